#!/usr/bin/env bash
# Size and memory of cfmd, native build (build/) against the router build
# (build-small/, -DCFMD_SMALL=ON): stripped size, the shared libraries it
# needs, and RSS, Pss and private memory of a running daemon with one MEP
# sending CCMs. Builds what is missing. The memory part needs root: each
# daemon runs in private network, mount and IPC namespaces on a veth wan0.
set -eu
cd "$(dirname "$0")/.."
JOBS="${JOBS:-2}"

build() {  # build DIR CMAKE-OPTIONS...
  local dir="$1"; shift
  [ -f "$dir/CMakeCache.txt" ] || cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS" --target cfmd cfmctl >/dev/null
}

# Inside the private namespaces: one MEP at a 1 s CCM interval on a veth
# interface, then the daemon's memory figures from smaps_rollup.
measure() {  # measure CFMD CFMCTL
  mount -t tmpfs none /var && mkdir -p /var/tmp/cfm && mount -t sysfs none /sys
  sysctl -qw net.ipv6.conf.default.disable_ipv6=1 2>/dev/null || true
  ip link set lo up && ip link add wan0 type veth peer name peer0 && ip link set wan0 up && ip link set peer0 up
  "$1" -i wan0 -e >/dev/null 2>&1 &
  local pid=$!
  for _ in $(seq 50); do [ -S /var/cfm_socket ] && break; sleep 0.1; done
  "$2" createmd 1 0 2 0 md && "$2" createma 1 0 1 0 ma
  "$2" createmep 1 0 1 0 1 0 1 0 100 0 1 && "$2" configmep 1 0 1 0 1 0 1 0 100 0 100 0 2 21
  sleep 3
  awk -v frames="$(cat /sys/class/net/wan0/statistics/tx_packets)" \
    '/^(Rss|Pss|Private_Clean|Private_Dirty):/ { v[$1] = $2 }
    END { printf "rss %d KiB, pss %d KiB, private %d KiB (%d frames sent)\n", v["Rss:"], v["Pss:"],
          v["Private_Clean:"] + v["Private_Dirty:"], frames }' "/proc/$pid/smaps_rollup"
  kill -TERM "$pid"; wait "$pid" 2>/dev/null || true
}

if [ "${1:-}" = --measure ]; then measure "$2" "$3"; exit; fi

build build
build build-small -DCFMD_SMALL=ON -DCFMD_TESTS=OFF
for dir in build build-small; do
  stripped=$(mktemp)
  strip -o "$stripped" "$dir/cfmd"
  printf '%-12s stripped %d bytes (%d KiB); needs: %s\n' "$dir" "$(stat -c %s "$stripped")" \
    "$(( ($(stat -c %s "$stripped") + 1023) / 1024 ))" \
    "$(readelf -d "$dir/cfmd" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | tr '\n' ' ')"
  rm -f "$stripped"
  if [ "$(id -u)" = 0 ]; then
    printf '%-12s ' "$dir"
    unshare --net --mount --ipc --propagation private bash "$0" --measure "$PWD/$dir/cfmd" "$PWD/$dir/cfmctl"
  fi
done
