#include "cli/names.h"

#include "db/mep_mip.h"

const char *const cfm_cli_names[kNamesCount] = {
    // status
    "disabled", "enabled",
    // up/down
    "down", "up",
    // MD name formats
    "none", "dnslikename", "macaddressanduint", "charstring",
    // MHF creation
    "defmhfnone", "defmhfdefault", "defMHFexplicit", "defMHFdefer",
    // sender-ID permission
    "sendIdNone", "sendIdChassis", "sendIdManage", "sendIdChassisManage", "sendIdDefer",
    // MA name formats
    "primaryvid", "charstring", "unsignedint16", "rfc2865vpnid",
    // CCM intervals from 1 s up
    "10ms100ms1s", "10s", "1min", "10min",
    // FDB use
    "none", "usefdbonly",
    // lowest alarm priority
    "alldef", "macremerrxcon", "remerrxcon", "errxcon", "xcon", "noxcon",
};

const char *cfm_cli_name(int list, long index) {
  long at = static_cast<long>(list) + index;
  if (at < 0 || at >= kNamesCount) return "";
  return cfm_cli_names[at];
}

const char *cfm_cli_alarm_text(long priority) {
  static const char *const kTexts[] = {"All Defect", "macRemErrXcon", "remErrXcon", "errXcon", "xcon", "noXcon"};
  return priority >= 1 && priority <= 6 ? kTexts[priority - 1] : nullptr;
}

const char *cfm_cli_defect_text(long defect) {
  static const char *const kTexts[] = {"None",           "RDI CCM",        "MAC STATUS CCM",
                                       "REMOTE DELAY CCM", "DATA ERROR CCM", "CROSS CONNECT CCM"};
  return defect >= 0 && defect <= 5 ? kTexts[defect] : nullptr;
}

const char *cfm_cli_lbm_state(const MepEntry &mep) {
  if (mep.LbmRunning == 1) return "LBM is still Transmiting";
  return mep.LbmStopped == 1 ? "LBM Transmit Stopped" : "LBM Transmit Finished";
}

const char *cfm_cli_port_status_text(long status) {
  static const char *const kTexts[] = {"NONE", "BLOCK", "UP"};
  return status >= 0 && status <= 2 ? kTexts[status] : nullptr;
}

const char *cfm_cli_interface_status_text(long status) {
  static const char *const kTexts[] = {"NONE",    "UP",      "DOWN",        "Testing",
                                       "UnKnown", "DORMANT", "not Present", "Lower Layer Down"};
  return status >= 0 && status <= 7 ? kTexts[status] : nullptr;
}
