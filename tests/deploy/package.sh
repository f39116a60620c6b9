#!/usr/bin/env bash
# The Debian package, made by CPack from the built tree: its control fields
# and contents (dpkg-deb), owners from its tar listing, modes in an
# extracted tree, and its postinst run on that tree (DPKG_ROOT), with the
# account tools stubbed, to see what it makes and that it never creates or
# touches a store.
#   package.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build="$1"
for tool in cpack dpkg-deb dpkg-shlibdeps; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is not installed"
    exit 77
  fi
done
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
fail() {
  echo "FAIL: $*"
  exit 1
}

(cd "$build" && cpack -G DEB -B "$scratch/out" >"$scratch/cpack.log") || {
  cat "$scratch/cpack.log"
  fail "cpack"
}
deb="$(ls "$scratch"/out/vrkms_*.deb)"

[ "$(dpkg-deb -f "$deb" Package)" = vrkms ] || fail "package name"
[ "$(dpkg-deb -f "$deb" Section)" = admin ] || fail "section"
depends="$(dpkg-deb -f "$deb" Depends)"
for lib in adduser libssl3 libace- libomniorb4- libsystemd0 libxml2; do
  [[ "$depends" == *"$lib"* ]] || fail "Depends lacks $lib: $depends"
done

listing="$(dpkg-deb -c "$deb")"
for path in ./usr/bin/vrkms ./usr/bin/vrkmsctl ./usr/vrest/vaultrest/bin/vrclusterutil \
  ./usr/lib/systemd/system/vrkms.service ./usr/share/man/man8/vrkms.8 \
  ./usr/share/man/man1/vrkmsctl.1 ./usr/share/doc/vrkms/README.md \
  ./usr/share/doc/vrkms/pacemaker/vrkms-resources.xml; do
  grep -q " $path\$" <<<"$listing" || fail "$path is not in the package"
done
if awk '{ print $2 }' <<<"$listing" | grep -qv '^root/root$'; then
  fail "an entry not owned by root/root"
fi
if grep -q ' ./usr/vrest/kms' <<<"$listing"; then
  fail "the package holds a store directory"
fi

tree="$scratch/root"
dpkg-deb -x "$deb" "$tree"
dpkg-deb -e "$deb" "$scratch/control"
mode() { stat -c %a "$tree$1"; }
[ "$(mode /usr/bin/vrkms)" = 755 ] && [ "$(mode /usr/vrest/vaultrest/bin/vrclusterutil)" = 755 ] ||
  fail "program modes"
[ "$(mode /usr/lib/systemd/system/vrkms.service)" = 644 ] || fail "unit mode"
grep -q "^ExecStart=/usr/bin/vrkms -console$" "$tree/usr/lib/systemd/system/vrkms.service" ||
  fail "the unit does not run /usr/bin/vrkms"

# postinst with the account tools stubbed: getent knows the account, and
# chown records what it is asked.
stubs="$scratch/stubs"
mkdir "$stubs"
printf '#!/bin/sh\necho "$1:x:999:999::/usr/vrest:/usr/sbin/nologin"\n' >"$stubs/getent"
printf '#!/bin/sh\necho "adduser $*" >>"%s"\n' "$scratch/calls" >"$stubs/adduser"
printf '#!/bin/sh\necho "chown $*" >>"%s"\n' "$scratch/calls" >"$stubs/chown"
chmod +x "$stubs"/*
postinst() { DPKG_ROOT="$tree" PATH="$stubs:$PATH" sh "$scratch/control/postinst" configure "$@"; }
postinst ""
vrest=/usr/vrest
for entry in "$vrest/kms 700" "$vrest/logs/vrkms 750" "$vrest/var/vrkms 700" "$vrest/etc/vr.conf 640"; do
  set -- $entry
  [ "$(mode "$1")" = "$2" ] || fail "$1 has mode $(mode "$1"), not $2"
done
grep -qx "chown vrkms:vrkms $tree$vrest/kms" "$scratch/calls" || fail "the store directory's owner"
grep -qx "chown root:vrkms $tree$vrest/etc/vr.conf" "$scratch/calls" || fail "vr.conf's owner"
[ -z "$(ls -A "$tree$vrest/kms")" ] || fail "postinst created something in the store directory"

# An upgrade over a store: the store, its directory and vr.conf stay as they are.
mkdir -p "$tree$vrest/kms/db"
echo store >"$tree$vrest/kms/db/KMS_DATA.dat"
chmod 755 "$tree$vrest/kms"
echo "SERVER = elsewhere" >"$tree$vrest/etc/vr.conf"
: >"$scratch/calls"
postinst 1.0.0
[ "$(mode $vrest/kms)" = 755 ] && [ "$(cat "$tree$vrest/kms/db/KMS_DATA.dat")" = store ] ||
  fail "postinst touched an existing store"
[ "$(cat "$tree$vrest/etc/vr.conf")" = "SERVER = elsewhere" ] || fail "postinst rewrote vr.conf"
if grep -q "$vrest/kms" "$scratch/calls"; then fail "postinst changed the store's owner"; fi
echo "package $(basename "$deb"): $(du -k "$deb" | cut -f1) KiB, Depends: $depends"
