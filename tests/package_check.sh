#!/usr/bin/env bash
# Router build packaged: builds build-pkg/ (-DCFMD_SMALL=ON, prefix /usr),
# makes the Debian package and checks it: lintian without error or warning,
# Depends on libc alone, every /etc file a conffile, man pages render without
# warning, the unit's sandbox rated by systemd-analyze. As root it then
# installs the package for real in a throwaway copy of this machine
# (scripts/sandbox.sh, sysvinit, no systemd running): the service is enabled
# and started, cfmctl answers, the configuration files are applied at start and
# reload and saved, an edited conffile survives a reinstall, removal
# stops the daemon and its semaphore sets, purge leaves no file; the daemon
# also runs with no more than the unit grants it.
set -eu
cd "$(dirname "$0")/.."
dir=build-pkg
fail() { echo "package check: $*" >&2; exit 1; }

cmake -S . -B "$dir" -DCFMD_SMALL=ON -DCFMD_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$dir" -j "${JOBS:-2}" >/dev/null
(cd "$dir" && rm -f ./*.deb && cpack -G DEB >/dev/null 2>&1) || fail "cpack -G DEB failed"
deb=$(echo "$dir"/cfmd_*.deb)
command -v lintian >/dev/null || fail "lintian is not installed (.ci/run installs it)"
private_tmp=(); [ "$(id -u)" = 0 ] && private_tmp=(unshare -m sh -c 'mount -t tmpfs none /tmp && exec "$@"' sh)  # lintian leaves a cache file in /tmp
tags=$("${private_tmp[@]}" lintian --allow-root "$deb" 2>&1 | grep -E '^[EW]:' || true)
[ -z "$tags" ] || fail "lintian: $tags"
depends=$(dpkg-deb -f "$deb" Depends)
[[ "$depends" =~ ^libc6( \([^,]*\))?$ ]] || fail "Depends: $depends (libc6 alone expected)"
etc=$(dpkg-deb -c "$deb" | awk '$6 ~ /^\.\/etc\/.*[^\/]$/ { print substr($6, 2) }' | sort)
[ "$etc" = "$(dpkg-deb -I "$deb" conffiles | sort)" ] || fail "not every /etc file is a conffile"

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
dpkg-deb -x "$deb" "$stage"
[ -f "$stage/usr/share/bash-completion/completions/cfmctl" ] || fail "missing the bash completion"
for page in "$stage"/usr/share/man/man*/*.gz; do
  warnings=$(man --warnings -l "$page" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "$page: $warnings"
done
grep -qE "@[A-Z_]+@" "$stage/usr/lib/systemd/system/cfmd.service" && fail "unit: unsubstituted @VARIABLE@"
# Exposure at most 4.0 (the threshold counts tenths).
systemd-analyze security --offline=yes --root="$stage" --threshold=40 cfmd.service >/dev/null ||
  fail "systemd-analyze security rates the unit above 4.0"
# The unit's system call filter as systemd applies it (allow list; later lines add, "~" lines remove) allows chown.
calls() { for w; do case $w in @*) calls $(systemd-analyze syscall-filter "$w" | grep -v "^ *#" | sed 1d) ;; *) echo "$w" ;; esac; done; }
allowed=$(sed -n "s/^SystemCallFilter=//p" "$stage/usr/lib/systemd/system/cfmd.service" | while read -r line; do
  case $line in "~"*) calls ${line#\~} | sed "s/^/-/" ;; *) calls $line | sed "s/^/+/" ;; esac
done | awk '{ s[substr($0, 2)] = substr($0, 1, 1) } END { for (c in s) if (s[c] == "+") print c }')
[ "$(grep -cxE "chown|fchownat" <<<"$allowed")" = 2 ] || fail "the unit's system call filter refuses chown (-g)"
[ "$(id -u)" = 0 ] || { echo "package check: not root, install not tried"; exit 0; }

scripts/sandbox.sh -f "$deb" bash -euxc '
  # One check per line: set -e does not see a failure inside an && list.
  deb=/tmp/$1
  # Not counted: the scratch files of -w and the pages man formatted for itself.
  cfm_files() { find /etc /usr /var /run -name "*cfm*" ! -path "/var/tmp/*" ! -path "/var/cache/man/*" | sort; }
  socket() { for i in $(seq 20); do [ -S /var/cfm_socket ] && return 0; sleep 0.5; done; return 1; }
  sems() { ipcs -s | grep -c "^0x" || true; }
  before=$(cfm_files)
  # A log past 1 MiB is moved aside at start (purge removes both).
  head -c 1100000 /dev/zero >/var/log/cfmd.log
  dpkg -i "$deb" >/dev/null
  [ "$(wc -c </var/log/cfmd.log.1)" = 1100000 ]
  systemd-analyze verify cfmd.service
  [ -L /etc/systemd/system/multi-user.target.wants/cfmd.service ]
  ls /etc/rc2.d/S??cfmd
  /etc/init.d/cfmd status
  socket
  cfmctl showdefault 2
  grep -q "CFM Status  : enabled" /var/log/cfmd.log
  cfmctl -t /var/lib/cfmd --export rmep
  [ -e /var/lib/cfmd/runtime/cfm/rmep_db ]
  logrotate -d /etc/logrotate.d/cfmd 2>/dev/null
  # The daemon as the unit runs it (its capabilities only, / read-only but for the paths it makes writable)
  # answers, gives its socket the group of -g (without CAP_CHOWN: stays 0600, said in the log) and removes its sets.
  /etc/init.d/cfmd stop
  unit=/usr/lib/systemd/system/cfmd.service
  caps=$(sed -n "s/^CapabilityBoundingSet=//p" $unit | tr "A-Z " "a-z," | sed "s/cap_/+/g")
  rw=$(sed -n "s/^ReadWritePaths=//p" $unit)
  for c in "${caps/,+chown/}" "$caps"; do
    rm -f /var/cfm_socket
    unshare -m sh -c "for p in $rw; do mount --bind \$p \$p; done && mount -o remount,bind,ro / &&
      exec setpriv --bounding-set=-all,$c --inh-caps=-all --no-new-privs cfmd -i wan0 -w -e -t /var/lib/cfmd -g daemon" >/tmp/unit.log 2>&1 &
    socket
    cfmctl showdefault 2
    grep -q "CFM Status  : enabled" /tmp/unit.log
    [ -z "$(grep "Reason:" /tmp/unit.log)" ]  # no failed system call
    [ "$c" = "$caps" ] || grep -q "command socket cannot get group 1 (Operation not permitted), it stays mode 0600" /tmp/unit.log
    [ "$(stat -c %G:%a /var/cfm_socket)" = "$([ "$c" = "$caps" ] && echo daemon:660 || echo root:600)" ]
    kill -TERM $!
    wait $! || true
    [ "$(sems)" = 0 ]
  done
  # The example applied at start, a bad line named in the log; reload; config save kept by a restart.
  sed -i "s/^#\([a-z]\)/\1/" /etc/cfmd/cfmd.conf
  echo "ma create 1 3 --name x --interval 2s" >/etc/cfmd/cfmd.d/50-more.conf
  /etc/init.d/cfmd start
  grep -q "^/etc/cfmd/cfmd.d/50-more.conf:1: ma: --interval" /var/log/cfmd.log
  cfmctl show running-config | grep -qx "mep config 2 2 201 --vid 100 --active yes"
  echo "mep create 1 1 102 --vid 100" >/etc/cfmd/cfmd.d/50-more.conf
  /etc/init.d/cfmd reload | grep -qx "cfmctl apply: mep create 1 1 102 --vid 100"
  rm /etc/cfmd/cfmd.d/50-more.conf
  cfmctl config save
  cfmctl show running-config >/tmp/running
  /etc/init.d/cfmd restart
  cfmctl show running-config | cmp - /tmp/running
  # An edited conffile survives a reinstall, which restarts the daemon;
  # force-reload restarts it again, and the edited options are used.
  read -r pid </var/run/cfmd.pid
  echo "CFMD_OPTS=\"-e -d -t /var/lib/cfmd\"" >>/etc/default/cfmd
  dpkg -i "$deb" >/dev/null
  grep -q -- "-e -d" /etc/default/cfmd
  grep -q "^# written by cfmctl config save at " /etc/cfmd/cfmd.conf
  [ "$(cat /var/run/cfmd.pid)" != "$pid" ]
  read -r pid </var/run/cfmd.pid
  /etc/init.d/cfmd force-reload
  [ "$(cat /var/run/cfmd.pid)" != "$pid" ]
  grep -q "Open CFM debug message" /var/log/cfmd.log
  read -r pid </var/run/cfmd.pid
  [ "$(sems)" != 0 ]
  dpkg -r cfmd >/dev/null
  if kill -0 "$pid" 2>/dev/null; then exit 1; fi
  [ "$(sems)" = 0 ]  # SIGTERM removed the semaphore sets
  dpkg -P cfmd >/dev/null
  [ "$(cfm_files)" = "$before" ]
' sh "$(basename "$deb")" >"$dir/sandbox.log" 2>&1 ||
  { tail -n 20 "$dir/sandbox.log"; fail "install, run, reinstall, remove or purge failed"; }
echo "package check: $(basename "$deb") is lintian-clean, installs, runs and purges cleanly"
