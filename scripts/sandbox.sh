#!/usr/bin/env bash
# Usage (as root): scripts/sandbox.sh [-f FILE]... COMMAND...
# Runs COMMAND as root in a throwaway copy of this machine: the root file
# system seen through an overlay whose changes live in memory, private mount,
# network, IPC and pid namespaces, fresh /proc, /sys, /run and /tmp, and a
# veth pair wan0/peer0 that is up. The copy behaves as a machine booted with
# sysvinit in runlevel 2 (no systemd running), so packages can be installed,
# started, stopped and purged there for real; nothing reaches the real system.
# Each -f FILE is copied to /tmp of the copy first.
set -eu
[ "$(id -u)" = 0 ] || { echo "sandbox: needs root" >&2; exit 2; }
files=()
while [ "${1:-}" = -f ]; do files+=("$(realpath "$2")"); shift 2; done
[ $# -gt 0 ] || { echo "usage: $0 [-f FILE]... COMMAND..." >&2; exit 2; }

# The mount point of the copy's memory file system: made on this machine,
# removed when the copy ends.
top=$(mktemp -d)
trap 'rmdir "$top"' EXIT
unshare --mount --net --ipc --pid --fork --propagation private bash -euc '
  nfiles=$1; top=$2; shift 2
  mount -t tmpfs none "$top"
  mkdir "$top/lower" "$top/upper" "$top/work" "$top/root"
  # Only the root file system, without what is mounted on it.
  mount --bind / "$top/lower"
  mount -t overlay overlay -o "lowerdir=$top/lower,upperdir=$top/upper,workdir=$top/work" "$top/root"
  r=$top/root
  mount -t proc proc "$r/proc"
  mount -t sysfs sysfs "$r/sys"
  mount --rbind /dev "$r/dev"
  mount -t tmpfs none "$r/run" && mkdir -p "$r/run/lock"
  mount -t tmpfs none "$r/tmp"
  for i in $(seq "$nfiles"); do cp "$1" "$r/tmp/"; shift; done
  # The runlevel a sysvinit machine reports once it is up.
  rm -f "$r/sbin/runlevel" && printf "#!/bin/sh\necho N 2\n" >"$r/sbin/runlevel" &&
    chmod 755 "$r/sbin/runlevel"
  # A booted machine lets packages start their services (build hosts and
  # containers often forbid it with a policy-rc.d).
  rm -f "$r/usr/sbin/policy-rc.d"
  # Installing man pages then does not rebuild the whole man index.
  rm -f "$r/var/lib/man-db/auto-update"
  ip link set lo up
  ip link add wan0 type veth peer name peer0 && ip link set wan0 up && ip link set peer0 up
  exec chroot "$r" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@"
' sandbox "${#files[@]}" "$top" "${files[@]}" "$@"
