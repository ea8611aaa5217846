// Start-up: the configuration files, the command line and CFM_Init.
#pragma once
#include <net/if.h>

#include <cstdint>

// Fixed paths of the router platform.
#define CFM_CONFIG_FILE "/var/tmp/cfm/config"
#define CFM_FRAMETYPE_FILE "/var/tmp/cfm/frametype"
#define CFM_PVC_MAC_FILE "/var/tmp/pvc_mac"
#define CFM_IF_SCRATCH_FILE "/var/tmp/cfm/cfm_if"

// Accepted unicast destination MACs of the WAN receive path.
struct PvcMacTable {
  int32_t count;
  uint8_t *macs;  // count consecutive 6-byte addresses
};
extern PvcMacTable g_pvc_mac_table;

// Options beyond the router's standard command line: "-t DIR" backs the
// configuration tree with a directory; "-l IFNAME" names the LAN interface
// the router relays CFM frames to and from; "-y" answers and runs delay and
// synthetic-loss measurements (engines/pm_db.h); "-n PROG" runs PROG for
// every event (core/notify.h); "-q" keeps events out of syslog.
struct CfmExtraOptions {
  char tree_dir[512];
  char lan_ifname[IFNAMSIZ];
  bool no_syslog;
};
extern CfmExtraOptions g_cfm_extra_options;

int cfm_main(int argc, char **argv);
// "--help" or "--version" where an option stands (not as the value of -f, -i,
// -t, -l, -g or -n, nor after "--"): cfmd prints its usage or version and exits
// 0 before anything else.
enum CfmInfoRequest { kCfmRun = 0, kCfmHelp = 1, kCfmVersion = 2 };
CfmInfoRequest cfm_info_request(int argc, char *const *argv);
int cfm_check_config_enable(int *status);
int cfm_check_config_enable_at(const char *path, int *status);
// ifname must hold IFNAMSIZ bytes; names are cut to IFNAMSIZ - 1 characters.
int cfm_parse_args(int argc, char **argv, char *ifname, int *frame_type);
void cfm_wait_interface(const char *ifname);
int cfm_read_pvc_mac();
int cfm_read_pvc_mac_at(const char *path);
void cfm_clear_pvc_mac();
int checkPvcMac(const uint8_t *mac);
[[noreturn]] void CFM_Init();
