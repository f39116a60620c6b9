#!/usr/bin/env bash
# The manual pages name every option that the programs accept: the options
# and flags of vrkms (its option switch and the table of administrator
# flags), and the options and commands of vrkmsctl (its command table), as
# the code has them. man reads both pages without a warning.
#   manpages.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
source="$2"
missing=0
# check PAGE WORD...: each WORD, with "-" as roff writes it and not as the
# start of a longer word, is in PAGE.
check() {
  local page="$1"
  shift
  for word in "$@"; do
    if ! grep -qE -- "${word//-/\\\\-}([^a-z-]|\$)" "$page"; then
      echo "$(basename "$page") does not name $word"
      missing=1
    fi
  done
}
vrkms="$source/dist/man/man8/vrkms.8"
vrkmsctl="$source/dist/man/man1/vrkmsctl.1"
mapfile -t options < <(grep -o 'isOption(shifter, "-[a-z]*")' "$source/kms/server/main.cpp" | grep -o -- '-[a-z]*')
mapfile -t flags < <(grep -o '^ *{k[A-Za-z]*, "-[a-z]*"' "$source/kms/server/AdminFlags.cpp" | grep -o -- '-[a-z]*')
mapfile -t ctlOptions < <(grep -o '"--[a-z][a-z-]*"' "$source/kms/client/CtlCommandLine.cpp" | tr -d '"' | sort -u)
mapfile -t commands < <(sed -n '/commands() {/,/^}/p' "$source/kms/client/CtlCommandLine.cpp" | grep -o '^ *{"[a-z][a-z -]*",' | grep -o '[a-z][a-z -]*')
[ "${#options[@]}" -ge 8 ] && [ "${#flags[@]}" -ge 10 ] && [ "${#ctlOptions[@]}" -ge 15 ] && [ "${#commands[@]}" -ge 20 ] || {
  echo "the option tables were not found in the code"
  exit 1
}
check "$vrkms" "${options[@]}" "${flags[@]}"
check "$vrkmsctl" "${ctlOptions[@]}" "${commands[@]}"
for page in "$vrkms" "$vrkmsctl"; do
  warnings="$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)"
  if [ -n "$warnings" ]; then
    echo "$warnings"
    missing=1
  fi
done
exit "$missing"
