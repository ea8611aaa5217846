#!/usr/bin/env bash
# Open vSwitch's CFM as the far end of a cfmd MEP (README, "Tests"): each side
# lists the other with no fault, and reports the other's silence. OVS runs in a
# throwaway copy of this machine (scripts/sandbox.sh) with its own run, db and
# log directory and the userspace datapath; nothing may be left behind.
set -eu
cd "$(dirname "$0")/.."
build=${CFMD_BUILD_DIR:-build}
[ "$(id -u)" = 0 ] || { echo "ovs check: skipped, it needs root"; exit 0; }
command -v ovs-vswitchd >/dev/null ||
  { echo "ovs check: skipped, openvswitch-switch is not installed (.ci/run installs it)"; exit 0; }

# What the check could leave on this machine (inside $(...) a pgrep that finds
# nothing does not end the script).
host_state() {
  pgrep -a -x ovsdb-server; pgrep -a -x ovs-vswitchd; pgrep -a -f '^/tmp/cfmd '
  find /run/openvswitch /etc/openvswitch 2>/dev/null | sort; ipcs -s; ls /sys/class/net
}

# Runs in the sandbox, with set -x: the log shows each step. OVS's CCMs are
# tagged only with cfm_ccm_vlan or cfm_ccm_pcp, and cfmd takes tagged ones only.
# shellcheck disable=SC2317  # the predicates are called through until_ok
far_end() {
  c=/tmp/cfmctl
  until_ok() { for _ in $(seq 50); do "$@" && return 0; sleep 0.2; done; echo "not within 10 s: $*"; return 1; }
  snapshot() { $c status --json | python3 -c "import json, sys; d = json.load(sys.stdin); print($1)"; }
  cfmd_sees_ovs() {  # the MEP without defect, OVS's MEP 7 at its MAC on VID 100 without RDI
    [ "$(snapshot '[m["defect"] for m in d["meps"]], [(r["rmep"], r["mac"], r["vid"], r["rdi"]) for r in d["remote_meps"]]')" \
      = "[0] [(7, '$(cat /sys/class/net/peer0/address)', 100, False)]" ]
  }
  cfmd_lost_ovs() { [ "$(snapshot 'd["remote_meps"]')" = "[]" ]; }
  ovs_shows() { [ "$(ovs-appctl cfm/show peer0 | grep -E '^  fault:|^Remote MPID')" = "$1" ]; }
  events() {  # events N KIND [KEY VALUE]...: N lines of cfmctl watch --json of KIND with these values
    [ "$(python3 -c 'import json, sys; k = sys.argv[1:]; print(sum(1 for l in open("/tmp/events")
      if (e := json.loads(l))["event"] == k[0] and all(str(e.get(a)) == v for a, v in zip(k[1::2], k[2::2]))))' "${@:2}")" = "$1" ]
  }

  export OVS_RUNDIR=/tmp/ovs OVS_DBDIR=/tmp/ovs OVS_LOGDIR=/tmp/ovs
  mkdir /tmp/ovs
  ovsdb-tool create /tmp/ovs/conf.db /usr/share/openvswitch/vswitch.ovsschema
  ovsdb-server --remote=punix:/tmp/ovs/db.sock --pidfile --detach --log-file /tmp/ovs/conf.db
  ovs-vsctl --no-wait init
  ovs-vswitchd --pidfile --detach --log-file
  ovs-vsctl add-br br0 -- set bridge br0 datapath_type=netdev
  ovs-vsctl add-port br0 peer0 -- set interface peer0 cfm_mpid=7 other_config:cfm_interval=100 \
    other_config:cfm_ccm_vlan=100 other_config:cfm_ccm_pcp=5

  mkdir -p /var/tree/cfm && echo 100ms >/var/tree/cfm/ccm_interval
  /tmp/cfmd -i wan0 -e -t /var/tree >/tmp/cfmd.log 2>&1 &
  until_ok test -S /var/cfm_socket
  watching=""
  if $c help watch >/dev/null 2>&1; then $c watch --json >/tmp/events & watching=yes; fi
  $c md create 1 --level 0 --name ovs --format charstring
  $c ma create 1 1 --name ovs --format charstring --interval 100ms
  $c mep create 1 1 1 --vid 100
  $c mep config 1 1 1 --vid 100 --ccm on
  until_ok cfmd_sees_ovs
  until_ok ovs_shows "Remote MPID 1"

  ovs-vsctl clear interface peer0 cfm_mpid
  until_ok cfmd_lost_ovs
  # With events (cfmctl watch): one alarm, for loss of continuity (defect
  # code 3), none before, and OVS's MEP down. Key names: the event schema's.
  if [ -n "$watching" ]; then
    until_ok events 1 fault-alarm defect_code 3
    events 1 fault-alarm
    until_ok events 1 rmep-down rmep 7
  fi

  ovs-vsctl set interface peer0 cfm_mpid=7
  until_ok cfmd_sees_ovs
  $c mep config 1 1 1 --vid 100 --ccm off
  until_ok ovs_shows "  fault: recv"
}

before=$(host_state)
scripts/sandbox.sh -f "$build/cfmd" -f "$build/cfmctl" bash -euxc "$(declare -f far_end); far_end" \
  >"$build/ovs_check.log" 2>&1 || { tail -n 30 "$build/ovs_check.log"; echo "ovs check: failed, see $build/ovs_check.log"; exit 1; }
[ "$(host_state)" = "$before" ] || { diff <(echo "$before") <(host_state); echo "ovs check: something was left behind"; exit 1; }
echo "ovs check: Open vSwitch and cfmd see each other, and each reports the other's silence"
