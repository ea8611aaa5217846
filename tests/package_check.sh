#!/usr/bin/env bash
# Router build packaged: builds build-pkg/ (-DCFMD_SMALL=ON, prefix /usr),
# makes the Debian package, installs it into a scratch root, checks the files
# and the man pages, runs the installed daemon through the init script in
# private namespaces (as root), then removes the package. Exits non-zero on a fault.
set -eu
cd "$(dirname "$0")/.."
dir=build-pkg
fail() { echo "package check: $*" >&2; exit 1; }

cmake -S . -B "$dir" -DCFMD_SMALL=ON -DCFMD_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$dir" -j "${JOBS:-2}" >/dev/null
(cd "$dir" && rm -f ./*.deb && cpack -G DEB >/dev/null)
deb=$(echo "$dir"/cfmd_*.deb)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" && touch "$root/var/lib/dpkg/status"
dpkg --root="$root" --force-depends --force-script-chrootless -i "$deb" >/dev/null 2>&1 || fail "dpkg -i"

files="usr/sbin/cfmd usr/bin/cfmctl usr/share/man/man8/cfmd.8 usr/share/man/man1/cfmctl.1
       usr/lib/systemd/system/cfmd.service etc/init.d/cfmd etc/default/cfmd
       usr/share/bash-completion/completions/cfmctl"
for f in $files; do [ -f "$root/$f" ] || fail "missing /$f"; done
for page in usr/share/man/man8/cfmd.8 usr/share/man/man1/cfmctl.1; do
  warnings=$(man --warnings -l "$root/$page" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "$page: $warnings"
done
grep -q @ "$root/usr/lib/systemd/system/cfmd.service" && fail "unit: unsubstituted @VARIABLE@"

if [ "$(id -u)" = 0 ]; then
  # The installed daemon, started and stopped by the installed init script.
  unshare --net --mount --ipc --propagation private sh -euc '
    root=$1
    mount -t tmpfs none /var
    ip link add wan0 type veth peer name peer0 && ip link set wan0 up && ip link set peer0 up
    export DAEMON=$root/usr/sbin/cfmd CFMD_DEFAULTS=$root/etc/default/cfmd
    sh "$root/etc/init.d/cfmd" start
    sh "$root/etc/init.d/cfmd" status
    for i in 1 2 3 4 5 6 7 8 9 10; do [ -S /var/cfm_socket ] && break; sleep 1; done
    "$root/usr/bin/cfmctl" showdefault 2
    grep -q "CFM Status  : enabled" /var/log/cfmd.log
    [ -n "$(ipcs -s | grep "^0x")" ]
    sh "$root/etc/init.d/cfmd" stop
    if sh "$root/etc/init.d/cfmd" status >/dev/null; then exit 1; fi
    [ -z "$(ipcs -s | grep "^0x")" ]  # SIGTERM removed the semaphore sets
  ' sh "$root" || fail "the installed daemon did not start, answer and stop cleanly"
fi

dpkg --root="$root" --force-depends --force-script-chrootless -P cfmd >/dev/null 2>&1 || fail "dpkg -P"
left=$(cd "$root" && find . -type f ! -path "./var/lib/dpkg/*")
[ -z "$left" ] || fail "files left after removal: $left"
echo "package check: $(basename "$deb") installs, runs and removes cleanly"
