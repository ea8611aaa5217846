#!/bin/sh
# Measures the receive path of cfmd on a private veth pair (root only):
#   - idle CPU of the daemon over 10 s while one MEP sends a CCM every second;
#   - a burst of frames sent as fast as a raw socket can, counted on the daemon
#     side: every CCM repeats the previous sequence number, so each one read
#     after the first adds one sequence error.
# Prints the figures; asserts nothing about time.
#   usage: scripts/ccm_bench.sh [BUILD_DIR] [BURST_FRAMES] [IDLE_SECONDS]
set -eu
BUILD=$(cd "${1:-build}" && pwd)
FRAMES=${2:-5000}
IDLE=${3:-10}
HERE=$(cd "$(dirname "$0")" && pwd)

if [ "${CCM_BENCH_INSIDE:-}" != 1 ]; then
  exec env CCM_BENCH_INSIDE=1 unshare --net --mount --ipc --propagation private "$HERE/ccm_bench.sh" "$BUILD" "$FRAMES" "$IDLE"
fi

mount -t tmpfs tmpfs /var
mkdir -p /var/tmp/cfm
echo "Enable=1" > /var/tmp/cfm/config
ip link add wan0 type veth peer name peer0
ip link set wan0 up
ip link set peer0 up
OUT=/var/cfmd.out
"$BUILD/cfmd" -i wan0 -e > "$OUT" 2>&1 &
PID=$!
trap 'kill $PID 2>/dev/null || true' EXIT
i=0
while [ ! -S /var/cfm_socket ] && [ $i -lt 50 ]; do sleep 0.1; i=$((i + 1)); done
ctl() { "$BUILD/cfmctl" "$@" > /dev/null; }
ctl createmd 1 0 7 0 md7
ctl createma 1 0 1 0 ma1
ctl createmep 1 0 1 0 5 0 1 0 0 0 1

# CPU time of every thread of the daemon, in nanoseconds.
cpu_ns() { cat /proc/$PID/task/*/schedstat | awk '{ sum += $1 } END { printf "%d", sum }'; }
sleep 1
T0=$(cpu_ns)
sleep "$IDLE"
T1=$(cpu_ns)
awk -v ns=$((T1 - T0)) -v s="$IDLE" \
  'BEGIN { printf "idle: %.3f ms of CPU over %ds = %.4f%% of one core\n", ns / 1e6, s, 100 * ns / 1e9 / s }'

python3 - "$FRAMES" <<'PY'
import socket, struct, sys, time
frames = int(sys.argv[1])
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind(("peer0", 0))
maid = bytes([4, 3]) + b"md7" + bytes([2, 3]) + b"ma1"
pdu = bytes([7 << 5, 1, 4, 70]) + struct.pack(">IH", 7, 9) + maid.ljust(64, b"\0")
tlvs = bytes([1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0])
frame = bytes([1, 0x80, 0xC2, 0, 0, 0x37, 2, 0, 0, 0, 0x0B, 2, 0x81, 0, 0xE0, 0, 0x89, 2]) + pdu + tlvs
start = time.monotonic()
for _ in range(frames):
    s.send(frame)
print("burst: %d frames sent in %.3f s" % (frames, time.monotonic() - start))
PY
sleep 2
BEFORE=$(wc -c < "$OUT")
ctl runtime 2
sleep 0.2
READ=$(tail -c +$((BEFORE + 1)) "$OUT" | head -n 1)
echo "burst: daemon counted $READ sequence errors, so $((READ + 1)) of $FRAMES frames were read"
