// Show and clear commands: MEP listings and single values, remote MEPs,
// linktrace replies, and the resets of their databases and counters.
#include <cstring>

#include "cli/args.h"
#include "cli/commands.h"
#include "cli/names.h"
#include "core/config_tree.h"
#include "core/hwaddr.h"
#include "core/os.h"
#include "core/status.h"
#include "db/mgmt_if.h"
#include "engines/lb_initiator.h"
#include "engines/pm_session.h"

namespace {

int as_int(uint32_t value) { return static_cast<int>(value); }

void print_mep_head(FILE *out, const MepEntry &mep) {
  fprintf(out, "\r\n MdID  : %d", as_int(mep.md_id));
  fprintf(out, "\r\n MaID  : %d", as_int(mep.ma_id));
  fprintf(out, "\r\n MepID : %d", mep.mep_id);
  fprintf(out, "\r\n port  : %d", mep.port);
  fprintf(out, "\r\n vid   : %d", mep.vid);
  fputs(mep.direction == CFM_DIRECTION_DOWN ? "\r\n Direct: Down\r\n" : "\r\n Direct: Up\r\n", out);
}

void print_ccm_block(FILE *out, const MepEntry &mep) {
  fprintf(out, "\r\n CCM/LTM priority  : %d", mep.CcmLtmPriority);
  fputs(mep.CciEnabled != 0 ? "\r\n CCM Transmite  : Enable" : "\r\n CCM Transmite  : Disable", out);
  fprintf(out, "\r\n CCM Sequence Errors : %d", as_int(mep.CcmSequenceErrors));
  if (const char *text = cfm_cli_alarm_text(mep.LowestAlarmPriority)) fprintf(out, "\r\n CCM Defect Prioity : %s", text);
  if (const char *text = cfm_cli_defect_text(mep.CcmDefect)) fprintf(out, "\r\n CCM Defect : %s", text);
  fprintf(out, "\r\n CCM sequence number  : %d\r\n", as_int(mep.CcmSequenceNum));
}

void print_ltm_block(FILE *out, const MepEntry &mep) {
  char mac[CFM_MAC_TEXT_SIZE];
  fputs("\r\n LTM wroking info", out);
  fprintf(out, "\r\n CCM/LTM priority  : %d", mep.CcmLtmPriority);
  fprintf(out, "\r\n LTM next sequence number  : %d", as_int(mep.LtmNextSeqNumber));
  fprintf(out, "\r\n Unexpect LTR : %d", as_int(mep.UnexpectedLtrIn));
  fputs(mep.LtmFlags != 0 ? "\r\n Flag: useFDBonly" : "\r\n Flag: None", out);
  fprintf(out, "\r\n Target : %s", hwaddr_to_string(mac, mep.LtmTargetMac));
  fprintf(out, "\r\n Target MEPID : %d", mep.LtmTargetMepId);
  fprintf(out, "\r\n Target IsMEPID : %s", cfm_cli_flag_name(mep.LtmTargetIsMepId));
  fprintf(out, "\r\n TTL : %d", mep.LtmTtl);
  fputs(mep.LtmResult == 1 ? "\r\n Result: Success" : "\r\n Result: Fail", out);
  fprintf(out, "\r\n LTM sequence number  : %d\r\n", as_int(mep.LtmSeqNumber));
}

void print_lbm_block(FILE *out, const MepEntry &mep) {
  char mac[CFM_MAC_TEXT_SIZE];
  fputs("\r\n ====LBM Setting info====", out);
  fprintf(out, "\r\n LBM message number    : %d", as_int(mep.LbmMessages));
  fprintf(out, "\r\n LBM priority          : %d", mep.LbmPriority);
  fprintf(out, "\r\n LBM Target MEPID      : %d", mep.LbmTargetMepId);
  fprintf(out, "\r\n LBM Target IsMEPID    : %s", cfm_cli_flag_name(mep.LbmTargetIsMepId));
  fprintf(out, "\r\n LBM Target MAC        : %s", hwaddr_to_string(mac, mep.LbmTargetMac));
  fprintf(out, "\r\n LBM DATA TLV  content : %.*s\r\n", static_cast<int>(CFM_LBM_DATA_TLV_SIZE), mep.LbmDataTlv);
  fputs("\r\n ====LBM wroking info====", out);
  if (mep.LbmRunning == 1) {
    fputs("\r\n LBM is still Transmiting ", out);
  } else {
    fprintf(out, "\r\n %s", cfm_cli_lbm_state(mep));
  }
  fputs(mep.LbmResultOk == 1 ? "\r\n LBM Transmit Result    : Success" : "\r\n LBM Transmit Result    : Fail", out);
  fprintf(out, "\r\n LBM Transmit first sequence number      : %d", as_int(mep.LbmSeqNumber));
  fprintf(out, "\r\n LBM Transmit Next Lbm TransId           : %d", as_int(mep.NextLbmTransId));
  fprintf(out, "\r\n Total number of valid LBR In            : %d", as_int(mep.LbrIn));
  fprintf(out, "\r\n Total number of valid LBR InOutOfOrder  : %d", as_int(mep.LbrInOutOfOrder));
  fprintf(out, "\r\n Total number of Bad LBR Msdu            : %d", as_int(mep.LbrBadMsdu));
  fprintf(out, "\r\n Total number of Transmit LBR number     : %d\r\n", as_int(mep.LbrOut));
}

void print_number(FILE *out, uint32_t value) { fprintf(out, "%d\n", as_int(value)); }

void print_line(FILE *out, const char *text) {
  if (text != nullptr) fprintf(out, "%s\n", text);
}

// One line of `runtime` for one MEP; nothing for an unknown selector.
void print_runtime_value(FILE *out, const MepEntry &mep, int32_t selector) {
  char mac[CFM_MAC_TEXT_SIZE];
  switch (selector) {
    case 1: print_line(out, mep.CciEnabled != 0 ? "Enable" : "Disable"); break;
    case 2: print_number(out, mep.CcmSequenceErrors); break;
    case 3: print_line(out, cfm_cli_alarm_text(mep.LowestAlarmPriority)); break;
    case 4: print_line(out, cfm_cli_defect_text(mep.CcmDefect)); break;
    case 5: print_number(out, mep.CcmSequenceNum); break;
    case 6: print_line(out, cfm_cli_lbm_state(mep)); break;
    case 7: print_line(out, mep.LbmResultOk == 1 ? "Success" : "Fail"); break;
    case 8: print_number(out, mep.LbmSeqNumber); break;
    case 9: print_number(out, mep.NextLbmTransId); break;
    case 10: print_number(out, mep.LbrIn); break;
    case 11: print_number(out, mep.LbrInOutOfOrder); break;
    case 12: print_number(out, mep.LbrBadMsdu); break;
    case 13: print_number(out, mep.LbrOut); break;
    case 14: print_number(out, mep.LtmNextSeqNumber); break;
    case 15: print_number(out, mep.UnexpectedLtrIn); break;
    case 16: print_line(out, mep.LtmFlags != 0 ? "useFDBonly" : "None"); break;
    case 17: print_line(out, hwaddr_to_string(mac, mep.LtmTargetMac)); break;
    case 18: print_number(out, mep.LtmTargetMepId); break;
    case 19: print_line(out, mep.LtmTargetIsMepId <= 1 ? cfm_cli_flag_name(mep.LtmTargetIsMepId) : nullptr); break;
    case 20: print_number(out, mep.LtmTtl); break;
    case 21: print_line(out, mep.LtmResult == 1 ? "Success" : "Fail"); break;
    case 22: print_number(out, mep.LtmSeqNumber); break;
    default: break;
  }
}

void print_remote_mep(FILE *out, const RemoteMepEntry &rmep) {
  char mac[CFM_MAC_TEXT_SIZE];
  fprintf(out, "\r\n MdID  : %d", as_int(rmep.md_id));
  fprintf(out, "\r\n MaID  : %d", as_int(rmep.ma_id));
  fprintf(out, "\r\n MepID  : %d", as_int(rmep.mep_id));
  fprintf(out, "\r\n PortNumber   : %d", rmep.port);
  fprintf(out, "\r\n vid   : %d", rmep.vlan_id);
  fprintf(out, "\r\n RemoteMepID : %d", rmep.rmep_id);
  fprintf(out, "\r\n SrcMacAddress : %s", hwaddr_to_string(mac, rmep.src_mac));
  fprintf(out, "\r\n ReciveTime  : %ds", as_int(rmep.ReceiveTime / 1000));
  fprintf(out, "\r\n SequenceNum  : %d", as_int(rmep.SequenceNum));
  if (const char *text = cfm_cli_port_status_text(rmep.PortStatus)) fprintf(out, "\r\n PortStatusTlv  : %s", text);
  if (const char *text = cfm_cli_interface_status_text(rmep.InterfaceStatus)) {
    fprintf(out, "\r\n InterfaceStatusTlv  : %s\r\n", text);
  }
}

void print_ltr(FILE *out, const LtrEntry &ltr) {
  char mac[CFM_MAC_TEXT_SIZE];
  fprintf(out, "\r\n MdID  : %d", as_int(ltr.md_id));
  fprintf(out, "\r\n MaID  : %d", as_int(ltr.ma_id));
  fprintf(out, "\r\n MepID : %d", ltr.mep_id);
  fprintf(out, "\r\n Sequence Number  : %d", as_int(ltr.sequence));
  fprintf(out, "\r\n LTR TTL : %d", as_int(ltr.ttl));
  fputs(ltr.forward == 1 ? "\r\n Forward: Yes" : "\r\n Forward: No", out);
  fputs(ltr.terminal == 1 ? "\r\n Terminal: MEP" : "\r\n Terminal: non-MEP", out);
  fprintf(out, "\r\n Last Egress ID : %s", hwaddr_to_string1(mac, ltr.LastEgressId));
  fprintf(out, "\r\n Next Egress ID : %s", hwaddr_to_string1(mac, ltr.NextEgressId));
  switch (ltr.relay) {
    case 1: fputs("\r\n Relay action: Hit\r\n", out); break;
    case 2: fputs("\r\n Relay action: FDB\r\n", out); break;
    case 3: fputs("\r\n Relay action: MPDB\r\n", out); break;
    default: fputs("\r\n", out); break;
  }
}

// The counters clearcnt resets; LtmNextSeqNumber is kept on purpose.
void zero_counters(MepEntry *mep) {
  mep->CcmSequenceErrors = 0;
  mep->CcmSequenceNum = 0;
  mep->NextLbmTransId = 0;
  mep->LbrIn = 0;
  mep->LbrInOutOfOrder = 0;
  mep->LbrBadMsdu = 0;
  mep->UnexpectedLtrIn = 0;
  mep->LbrOut = 0;
  mep->LbmSeqNumber = 0;
  mep->LbrExpectedTransId = 0;
}

void set_clear_keys(int value) {
  ConfigTree::setInt(value, "/runtime/cfm/lbm/sending");
  ConfigTree::setInt(value, "/runtime/cfm/ltm/sending");
  ConfigTree::setInt(value, "/runtime/cfm/clear");
}

}  // namespace

// showmep [1|2|3]
int cli_usr_cfm_showmep(FILE *out, CliArg *args, int) {
  int32_t block = 0;
  if (args != nullptr) {
    CliArgStatus status = cli_arg_number(args, &block);
    if (status != CliArgStatus::kOk) {
      cli_report_arg_status(out, status);
      return 0;
    }
  }
  MepEntry mep = {};
  while (CFM_IF_GetNext_MEP_Entry(&mep) == 1) {
    print_mep_head(out, mep);
    if (cfm_pm_enabled()) cfm_pm_print_counters(out, mep.md_id, mep.ma_id, mep.mep_id);
    if (block == 1) print_ccm_block(out, mep);
    if (block == 2) print_ltm_block(out, mep);
    if (block == 3) print_lbm_block(out, mep);
    if (cfm_cli_output_aborted(out) != 0) break;
  }
  return 2;
}

// runtime SELECTOR (1..22)
int cli_usr_cfm_runtime(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1};
  int32_t selector = 0;
  if (!cli_read_numbers(out, args, kPositions, 1, &selector)) return 0;
  MepEntry mep = {};
  while (CFM_IF_GetNext_MEP_Entry(&mep) == 1) {
    print_runtime_value(out, mep, selector);
    if (cfm_cli_output_aborted(out) != 0) break;
  }
  return 2;
}

int cli_usr_cfm_showremotemep(FILE *out, CliArg *, int) {
  RemoteMepEntry rmep = {};
  while (CFM_MEP_Get_NextRemEntry(&rmep) == CFM_DB_FOUND) {
    print_remote_mep(out, rmep);
    if (cfm_cli_output_aborted(out) != 0) break;
  }
  return 2;
}

int cli_usr_cfm_clearremotemep(FILE *, CliArg *, int) {
  CFM_IF_Clean_RemoteMep_Entry();
  return 1;
}

int cli_usr_cfm_showltr(FILE *out, CliArg *, int) {
  LtrEntry ltr = {};
  while (CFM_DB_GetNext_LtrEntry(&ltr) == CFM_DB_FOUND) {
    print_ltr(out, ltr);
    if (cfm_cli_output_aborted(out) != 0) break;
  }
  return 2;
}

int cli_usr_cfm_clearltr(FILE *, CliArg *, int) {
  ConfigTree::setInt(1, "/runtime/cfm/clear");
  CFM_IF_Clean_LtrDB_Entry();
  CFM_OS_Sleep(3000);
  ConfigTree::setInt(0, "/runtime/cfm/clear");
  return 1;
}

int cli_usr_cfm_clearlbr(FILE *, CliArg *, int) {
  ConfigTree::setInt(1, "/runtime/cfm/clear");
  cfm_lbr_rows_clear();
  ConfigTree::setInt(0, "/runtime/cfm/clear");
  return 1;
}

int cli_usr_cfm_clearcnt(FILE *, CliArg *, int) {
  set_clear_keys(1);
  MepEntry mep = {};
  for (;;) {
    // Read, zero and write back one MEP under MEP_SYC, so a tick cannot
    // write its older copy over the cleared one.
    MepSycLock lock;
    if (CFM_IF_GetNext_MEP_Entry(&mep) != 1) break;
    MepEntry request = mep;
    zero_counters(&request);
    CFM_IF_Set_MEP_Entry(&request);
  }
  CFM_OS_Sleep(1000);
  set_clear_keys(0);
  return 1;
}
