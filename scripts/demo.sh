#!/usr/bin/env bash
# Two routers on one link, each running cfmd on its end of a veth pair:
# router A (MEP 1) and router B (MEP 2) in one MD at level 2 and one MA, CCMs
# on. Waits until each has learned the other from its CCMs, runs a loopback
# of 5 messages from A to B and a linktrace from A to B, and prints what both
# routers report. A third box, host H on router A's LAN (A runs with -l),
# has MEPs at level 5 and at level 1: B learns the first through A's relay,
# never the second. Every box lives in its own network namespace and its
# own mount namespace (a private /var). Last, A measures the delay and the
# synthetic loss towards B (both run with -y). Needs root, iproute2 and util-linux.
# Everything it creates is removed on exit; any unexpected result ends it
# with "DEMO FAILED" and a non-zero status.
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
MAC_A=02:00:00:00:0a:01
MAC_B=02:00:00:00:0b:01
MAC_H=02:00:00:00:0c:01
VID=100
LEVEL=2
LB_COUNT=5

# Bold headings only on a terminal, so a log file stays plain text.
if [ -t 1 ]; then BOLD=$'\033[1m' RED=$'\033[1;31m' PLAIN=$'\033[0m'; else BOLD='' RED='' PLAIN=''; fi
say() { printf '\n%s== %s%s\n' "$BOLD" "$*" "$PLAIN"; }
fail() {
  printf '\n%sDEMO FAILED: %s%s\n' "$RED" "$*" "$PLAIN" >&2
  for r in A B H; do
    if [ -n "${WORK:-}" ] && [ -f "$WORK/$r.log" ]; then
      printf -- '--- last output of router %s ---\n' "$r" >&2
      tail -n 30 "$WORK/$r.log" | tr -d '\r' >&2
    fi
  done
  exit 1
}

# Status 77 (not root) lets a test runner report the demo as skipped.
[ "$(id -u)" -eq 0 ] || { echo "demo.sh needs root (network namespaces): sudo $0" >&2; exit 77; }
for tool in ip unshare mount cmake c++; do
  command -v "$tool" >/dev/null || { echo "demo.sh needs '$tool'" >&2; exit 1; }
done

# --- build if needed ------------------------------------------------------
# CFMD_BUILD_DIR names a build directory whose cfmd and cfmctl are used as
# they are (the test suite runs the demo so). Otherwise an existing build/ is
# brought up to date, or the two programs are built in build-demo/ without
# the tests (which would need GoogleTest).
if [ -n "${CFMD_BUILD_DIR:-}" ]; then
  BUILD="$CFMD_BUILD_DIR"
elif [ -f "$ROOT/build/CMakeCache.txt" ]; then
  BUILD="$ROOT/build"
else
  BUILD="$ROOT/build-demo"
  [ -f "$BUILD/CMakeCache.txt" ] || {
    say "configuring $BUILD"
    cmake -S "$ROOT" -B "$BUILD" -DCFMD_TESTS=OFF >/dev/null || fail "cmake could not configure $BUILD"
  }
fi
if [ -z "${CFMD_BUILD_DIR:-}" ]; then
  say "building cfmd and cfmctl in $BUILD (if needed)"
  cmake --build "$BUILD" -j 2 --target cfmd cfmctl >/dev/null || fail "the build failed (cmake --build $BUILD)"
fi

# --- the lab --------------------------------------------------------------
WORK="$(mktemp -d /tmp/cfmdemo.XXXXXX)"
NS_A="cfmdemo-a-$$"
NS_B="cfmdemo-b-$$"
NS_H="cfmdemo-h-$$"
PID_A=""
PID_B=""
PID_H=""
cleanup() {
  for pid in $PID_A $PID_B $PID_H; do kill "$pid" 2>/dev/null || true; done
  for pid in $PID_A $PID_B $PID_H; do wait "$pid" 2>/dev/null || true; done
  for ns in "$NS_A" "$NS_B" "$NS_H"; do ip netns del "$ns" 2>/dev/null || true; done
  rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The binaries run from the work directory: /var is replaced in the routers'
# mount namespaces, so nothing under it may be needed there.
mkdir -p "$WORK/bin"
cp "$BUILD/cfmd" "$BUILD/cfmctl" "$WORK/bin/"

say "network: router A ($MAC_A) wan0 <--veth--> wan0 router B ($MAC_B)"
echo "         host H ($MAC_H) eth0 <--veth--> lan0 router A"
for ns in "$NS_A" "$NS_B" "$NS_H"; do ip netns add "$ns"; done
ip link add wan0 netns "$NS_A" type veth peer name wan0 netns "$NS_B"
ip link add lan0 netns "$NS_A" type veth peer name eth0 netns "$NS_H"
ip -n "$NS_A" link set wan0 address "$MAC_A"
ip -n "$NS_B" link set wan0 address "$MAC_B"
ip -n "$NS_H" link set eth0 address "$MAC_H"
for ns in "$NS_A" "$NS_B" "$NS_H"; do
  ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 2>/dev/null || true
  ip -n "$ns" link set lo up
done
ip -n "$NS_A" link set wan0 up
ip -n "$NS_A" link set lan0 up
ip -n "$NS_B" link set wan0 up
ip -n "$NS_H" link set eth0 up

# Starts box $1 in namespace $2 with the options $3 and sets PID_$1: its own
# /var (a directory of the work area bind-mounted over /var), the
# configuration tree under /var/tree. ip, unshare and sh each exec the next,
# so the pid is cfmd's.
start_router() {
  local r="$1" ns="$2" opts="$3" var="$WORK/$1/var"
  mkdir -p "$var/tmp/cfm" "$var/tree"
  echo "Enable=1" >"$var/tmp/cfm/config"
  ip netns exec "$ns" unshare --mount --propagation private \
    sh -c "mount --bind '$var' /var && exec '$WORK/bin/cfmd' $opts -e -t /var/tree" \
    >"$WORK/$r.log" 2>&1 &
  printf -v "PID_$r" '%s' "$!"
}
start_router A "$NS_A" "-i wan0 -l lan0 -y"
start_router B "$NS_B" "-i wan0 -y"
start_router H "$NS_H" "-i eth0"

for r in A B H; do
  for _ in $(seq 50); do [ -S "$WORK/$r/var/cfm_socket" ] && break; sleep 0.1; done
  [ -S "$WORK/$r/var/cfm_socket" ] || fail "router $r did not open its command socket"
done
echo "router A: cfmd pid $PID_A, router B: cfmd pid $PID_B, host H: cfmd pid $PID_H"

# ctl R WORD... : sends one request to router R through cfmctl and leaves
# the router's answer in $REPLY_TEXT (carriage returns removed).
REPLY_TEXT=""
ctl() {
  local r="$1"; shift
  REPLY_TEXT="$("$WORK/bin/cfmctl" -s "$WORK/$r/var/cfm_socket" "$@")" || fail "cfmctl $* on router $r"
  REPLY_TEXT="${REPLY_TEXT//$'\r'/}"
}
# show R TITLE WORD... : like ctl, and prints the report under a heading.
show() {
  local r="$1" title="$2"; shift 2
  ctl "$r" "$@"
  printf '\n-- router %s: %s (cfmctl %s)\n' "$r" "$title" "$*"
  printf '%s\n' "$REPLY_TEXT" | sed '/^$/d; s/^/   /'
}
# has [-x] TEXT : true when the last report holds TEXT (fixed string; -x: a
# whole line). A here-string, not a pipe: with pipefail an early grep exit
# would fail the writer.
has() {
  local opt=-qF
  [ "$1" = -x ] && { opt=-qxF; shift; }
  grep "$opt" -- "$1" <<<"$REPLY_TEXT"
}
mep_key() {  # mep_key MEPID DIRECTION [MD MA] : the eleven key words of a MEP
  echo "${3:-1} md ${4:-1} ma $1 port 1 vid $VID dir $2"
}
# domain R MD LEVEL MEPID : on box R, MD and MA number MD (named md-MD and
# ma-MD) at LEVEL with one MEP sending CCMs.
domain() {
  ctl "$1" createmd "$2" level "$3" name "md-$2"
  [ -z "$REPLY_TEXT" ] || fail "createmd $2 on $1: $REPLY_TEXT"
  ctl "$1" createma "$2" ma "$2" name "ma-$2"
  [ -z "$REPLY_TEXT" ] || fail "createma $2 on $1: $REPLY_TEXT"
  # shellcheck disable=SC2046
  ctl "$1" createmep $(mep_key "$4" 1 "$2" "$2")
  # shellcheck disable=SC2046
  ctl "$1" configmep $(mep_key "$4" 100 "$2" "$2") options 2 21
  [ -z "$REPLY_TEXT" ] || fail "MEP $4 on $1: $REPLY_TEXT"
}

# --- configuration --------------------------------------------------------
say "configuration: MD 1 at level $LEVEL, MA 1, MEP 1 on A, MEP 2 on B, CCMs on"
for r in A B; do
  mep=1; [ "$r" = B ] && mep=2
  ctl "$r" createmd 1 level "$LEVEL" name demo-md
  [ -z "$REPLY_TEXT" ] || fail "createmd on $r: $REPLY_TEXT"
  ctl "$r" createma 1 ma 1 name demo-ma
  [ -z "$REPLY_TEXT" ] || fail "createma on $r: $REPLY_TEXT"
  # shellcheck disable=SC2046
  ctl "$r" createmep $(mep_key "$mep" 1)
  [ -z "$REPLY_TEXT" ] || fail "createmep on $r: $REPLY_TEXT"
  # shellcheck disable=SC2046
  ctl "$r" configmep $(mep_key "$mep" 100) options 2 21
  [ -z "$REPLY_TEXT" ] || fail "configmep on $r: $REPLY_TEXT"
done
show A "MEPs, CCM block" showmep 1

# --- CCMs -----------------------------------------------------------------
say "waiting until each router has learned the other's MEP from its CCMs"
learned() {  # learned R REMOTE_MEPID
  ctl "$1" showremotemep
  has -x " RemoteMepID : $2"
}
for _ in $(seq 30); do
  if learned A 2 && learned B 1; then break; fi
  sleep 0.5
done
learned A 2 || fail "router A has not learned MEP 2"
learned B 1 || fail "router B has not learned MEP 1"
show A "remote MEPs" showremotemep
has "SrcMacAddress : $MAC_B" || fail "A's remote MEP 2 is not at $MAC_B"
show B "remote MEPs" showremotemep
has "SrcMacAddress : $MAC_A" || fail "B's remote MEP 1 is not at $MAC_A"

# --- relay ----------------------------------------------------------------
say "relay: host H behind A has MEP 5 at level 5 and MEP 6 at level 1; B has both MDs"
domain H 5 5 5
domain H 6 1 6
domain B 5 5 7
domain B 6 1 8
for _ in $(seq 30); do
  if learned B 5; then break; fi
  sleep 0.5
done
sleep 2  # time for H's level-1 CCMs to cross too, if A let them
show B "remote MEPs, with H's behind A" showremotemep
has -x " RemoteMepID : 5" || fail "B has not learned H's level-5 MEP 5 through A"
has "SrcMacAddress : $MAC_H" || fail "B's remote MEP 5 is not at $MAC_H"
! has -x " RemoteMepID : 6" || fail "H's level-1 MEP 6 crossed A"

# --- loopback -------------------------------------------------------------
say "loopback: $LB_COUNT LBMs from A (MEP 1) to B ($MAC_B), one per second"
# shellcheck disable=SC2046
ctl A configmep $(mep_key 1 100) options 5 51 7 "$LB_COUNT" 6 "$MAC_B" 15 demo-data
[ -z "$REPLY_TEXT" ] || fail "starting the loopback: $REPLY_TEXT"
runtime() {  # runtime R SELECTOR : the value of the router's only MEP
  ctl "$1" runtime "$2"
  head -n 1 <<<"$REPLY_TEXT"
}
# The run sends one LBM per tick and ends five ticks after the last one.
finished=""
for _ in $(seq 40); do
  sleep 0.5
  if [ "$(runtime A 10)" = "$LB_COUNT" ] && [ "$(runtime A 6)" = "LBM Transmit Finished" ]; then
    finished=yes
    break
  fi
done
show A "loopback block" showmep 3
[ -n "$finished" ] || fail "the loopback run on A did not end with $LB_COUNT replies"
for line in "LBM Transmit Result    : Success" "Total number of valid LBR In            : $LB_COUNT" \
  "Total number of valid LBR InOutOfOrder  : 0" "Total number of Bad LBR Msdu            : 0"; do
  has "$line" || fail "A's loopback report lacks '$line'"
done
show B "loopback block (LBRs it sent)" showmep 3
has "Total number of Transmit LBR number     : $LB_COUNT" ||
  fail "B did not count $LB_COUNT LBRs sent"

# --- linktrace ------------------------------------------------------------
say "linktrace: one LTM from A (MEP 1) towards B ($MAC_B)"
# shellcheck disable=SC2046
ctl A configmep $(mep_key 1 100) options 10 "$MAC_B" 12 121
[ -z "$REPLY_TEXT" ] || fail "starting the linktrace: $REPLY_TEXT"
hit=""
for _ in $(seq 20); do
  ctl A showltr
  if has "Relay action: Hit"; then hit=yes; break; fi
  sleep 0.2
done
show A "linktrace block" showmep 2
has "Result: Success" || fail "A's linktrace was not sent"
show A "linktrace replies" showltr
[ -n "$hit" ] || fail "no linktrace reply from B reached A"
for line in "Terminal: MEP" "Last Egress ID : $MAC_A" "Next Egress ID : $MAC_B" "LTR TTL : 63"; do
  has "$line" || fail "A's linktrace reply lacks '$line'"
done
printf '\n-- router A: the replies as exported to its configuration tree (cfmctl --export ltr)\n'
"$WORK/bin/cfmctl" -s "$WORK/A/var/cfm_socket" -t "$WORK/A/var/tree" --export ltr | sed 's/^/   /' ||
  fail "exporting A's linktrace replies"
grep -qx "$MAC_B" "$WORK/A/var/tree/runtime/cfm/ltr:1/mac" || fail "the exported reply is not from $MAC_B"

# --- delay and loss -------------------------------------------------------
PM_COUNT=10
say "delay and loss: $PM_COUNT DMMs and $PM_COUNT SLMs from A (MEP 1) to B (remote MEP 2), 100 ms apart"
ctl A pm dm start 1 1 1 2 --count "$PM_COUNT" --period 100 --priority 5
[ -z "$REPLY_TEXT" ] || fail "starting the delay session: $REPLY_TEXT"
ctl A pm slm start 1 1 1 2 --count "$PM_COUNT" --period 100 --priority 5 --test-id 7
[ -z "$REPLY_TEXT" ] || fail "starting the loss session: $REPLY_TEXT"
for _ in $(seq 40); do
  sleep 0.5
  ctl A pm show
  if has "PM DM  md 1 ma 1 mep 1 finished" && has "PM SLM md 1 ma 1 mep 1 finished"; then break; fi
done
show A "delay and loss results" pm show
has "PM DM  md 1 ma 1 mep 1 finished: sent $PM_COUNT received $PM_COUNT lost 0" ||
  fail "A's delay session did not get $PM_COUNT replies"
has "PM SLM md 1 ma 1 mep 1 finished: sent $PM_COUNT received $PM_COUNT lost 0, near-end loss 0.00% (0), far-end loss 0.00% (0)" ||
  fail "A's loss session did not report $PM_COUNT of $PM_COUNT without loss"
show B "measurement frames it answered" pm show
has "DMM in $PM_COUNT out 0, DMR in 0 out $PM_COUNT, SLM in $PM_COUNT out 0, SLR in 0 out $PM_COUNT" ||
  fail "B did not answer every DMM and SLM"

for r in A B H; do
  pid_var="PID_$r"
  kill -0 "${!pid_var}" 2>/dev/null || fail "box $r's cfmd is gone"
done
say "DEMO OK: A and B learned each other, B learned H's level-5 MEP through A and not its level-1 one, B answered all $LB_COUNT LBMs, B's linktrace reply reached A, and A measured the delay and loss towards B"
