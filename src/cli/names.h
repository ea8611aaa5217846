// Name lists of the command handlers. All lists live in one array, one after
// the other in a fixed order: the MA listing looks CCM intervals below 1 s up
// in front of the interval list and so prints the MA-format names that stand
// there ("unsignedint16" for 10 ms, "rfc2865vpnid" for 100 ms).
#pragma once

enum CfmNameList : int {
  kNamesStatus = 0,          // "disabled", "enabled"
  kNamesUpDown = 2,          // "down", "up"
  kNamesMdFormat = 4,        // MD name formats 1..4
  kNamesMhfCreation = 8,     // MHF creation 1..4
  kNamesSenderId = 12,       // sender-ID permission 1..5
  kNamesMaFormat = 17,       // MA name formats 1..4
  kNamesCcmInterval = 21,    // CCM intervals 4..7
  kNamesFdb = 25,            // "none", "usefdbonly"
  kNamesAlarmPriority = 27,  // lowest alarm priority 1..6
  kNamesCount = 33,
};

extern const char *const cfm_cli_names[kNamesCount];

// Entry `index` of the list starting at `list`, counted from the list's
// start but bounded only by the whole array, as the listings rely on; ""
// outside the array.
const char *cfm_cli_name(int list, long index);

// Texts of the MEP listings and the export; null outside their range.
// Lowest alarm priority 1..6: "All Defect" .. "noXcon".
const char *cfm_cli_alarm_text(long priority);
// Highest defect 0..5: "None" .. "CROSS CONNECT CCM".
const char *cfm_cli_defect_text(long defect);
// State of a MEP's loopback: "LBM is still Transmiting", "LBM Transmit
// Stopped" (ended by lbstop) or "LBM Transmit Finished".
struct MepEntry;
const char *cfm_cli_lbm_state(const MepEntry &mep);
// Port Status TLV 0..2: "NONE", "BLOCK", "UP".
const char *cfm_cli_port_status_text(long status);
// Interface Status TLV 0..7: "NONE" .. "Lower Layer Down".
const char *cfm_cli_interface_status_text(long status);
// Status name of a 0/1 flag ("disabled", "enabled"); other values read on
// into the lists that follow, bounded by the array.
inline const char *cfm_cli_flag_name(long flag) { return cfm_cli_name(kNamesStatus, flag); }
