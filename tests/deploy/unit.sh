#!/usr/bin/env bash
# The systemd unit: `systemd-analyze verify` accepts it, and the exposure
# score of its sandbox (`systemd-analyze security --offline=true`) is at
# most 3.0. Runs on a copy whose programs are the built ones, with the
# manual pages it names where man finds them.
#   unit.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build="$1" source="$2"
if ! command -v systemd-analyze >/dev/null; then
  echo "SKIP: systemd-analyze (systemd) is not installed"
  exit 77
fi
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
sed -e "s|^\(Exec[A-Za-z]*=\)[^ ]*/vrkms |\1$build/vrkms |" "$build/vrkms.service" >"$scratch/vrkms.service"
grep -q "^ExecStart=$build/vrkms -console$" "$scratch/vrkms.service"
MANPATH="$source/dist/man" systemd-analyze verify "$scratch/vrkms.service"
score="$(systemd-analyze security --offline=true "$scratch/vrkms.service" |
  sed -n 's/.*exposure level for vrkms.service: \([0-9.]*\).*/\1/p')"
echo "exposure score of vrkms.service: $score"
awk -v score="$score" 'BEGIN { exit !(score != "" && score + 0 <= 3.0) }'
