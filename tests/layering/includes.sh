#!/bin/bash
# Fails when a source or header under kms/ includes one from a layer above
# its own, and prints each such include. The layers, lowest first:
#
#   platform     kms/platform (no ORB)
#   framework    kms/platform/framework: platform and the ORB
#   diagnostics  kms/server/diagnostics: platform
#   keystore     kms/server/keystore: diagnostics and platform (no ORB)
#   server       kms/server: all of the above and the ORB
#   client       kms/client: framework, platform and the ORB (no part of
#                the server or the store)
#   cluster      kms/cluster: platform only
#
# "The ORB" is the headers omniidl generates from kms/idl (<KMS.h>,
# <Framework.h>) and omniORB's own. A folder below one of these belongs to
# its layer.
#
#   tests/layering/includes.sh [source-dir]
set -euo pipefail
cd "${1:-$(dirname "$0")/../..}"

# Sets `layer` to the layer of folder $1.
layer_of() {
  case $1/ in
    kms/platform/framework/*) layer=framework ;;
    kms/platform/*) layer=platform ;;
    kms/server/diagnostics/*) layer=diagnostics ;;
    kms/server/keystore/*) layer=keystore ;;
    kms/server/*) layer=server ;;
    kms/client/*) layer=client ;;
    kms/cluster/*) layer=cluster ;;
    kms/idl/*) layer=orb ;;
    *) layer="an unlayered folder ($1)" ;;
  esac
}

declare -A may=(
  [platform]="platform"
  [framework]="framework platform orb"
  [diagnostics]="diagnostics platform"
  [keystore]="keystore diagnostics platform"
  [server]="server keystore diagnostics framework platform orb"
  [client]="client framework platform orb"
  [cluster]="cluster platform"
)

bad=0
while IFS=: read -r file line text; do
  layer_of "${file%/*}"
  own=$layer
  if [[ $text =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\"([^\"]+)\" ]]; then
    name=${BASH_REMATCH[1]}
    case $name in
      */*)
        layer_of "${name%/*}"
        to=$layer
        ;;
      *) to=$own ;;
    esac
  elif [[ $text =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\<((KMS|Framework)\.h|omniORB4/.*|omnithread.*)\> ]]; then
    name=${BASH_REMATCH[1]}
    to=orb
  else
    continue
  fi
  if [[ " ${may[$own]:-} " != *" $to "* ]]; then
    echo "$file:$line: includes $name ($to), which $own may not"
    bad=1
  fi
done < <(grep -rn --include='*.h' --include='*.cpp' --exclude-dir=idl \
           '^[[:space:]]*#[[:space:]]*include' kms | sort -t: -k1,1 -k2,2n)

if [ $bad -ne 0 ]; then
  echo "A layer includes only from its own and those below it (tests/layering/includes.sh)."
  exit 1
fi
echo "every include under kms/ is from its own layer or one below"
