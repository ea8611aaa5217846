// Runtime export: the `update` command copies one kind of run-time state
// into the configuration tree under /runtime/cfm/, where the front ends read
// it (the command socket carries no replies).
#include <cstring>

#include "cli/args.h"
#include "cli/commands.h"
#include "cli/names.h"
#include "core/config_tree.h"
#include "core/hwaddr.h"
#include "core/os.h"
#include "core/status.h"
#include "db/mgmt_if.h"

namespace {

constexpr int kExportRemoteMeps = 1;
constexpr int kExportLtrs = 2;
constexpr int kExportCcm = 3;
constexpr int kExportLbm = 4;
constexpr int kExportLtm = 5;

// Old remote-MEP row counts beyond this are not believed: the key is
// written by front ends, and deleting rows one by one must stay bounded.
constexpr int kMaxOldRows = 65535;

int as_int(uint32_t value) { return static_cast<int>(value); }

void export_remote_row(int row, const RemoteMepEntry &rmep) {
  MdEntry md = {};
  md.MdIndex = rmep.md_id;
  if (CFM_IF_Get_MD_Entry(&md) != 1) memset(md.MdName, 0, sizeof md.MdName);
  MaNetEntry ma = {};
  ma.MdIndex = rmep.md_id;
  ma.MaIndex = rmep.ma_id;
  if (CFM_IF_Get_MA_Net_Entry(&ma) != 1) memset(ma.MaName, 0, sizeof ma.MaName);
  char md_name[CFM_MD_NAME_SIZE + 1] = {0};
  char ma_name[CFM_MA_NAME_SIZE + 1] = {0};
  memcpy(md_name, md.MdName, sizeof md.MdName);
  memcpy(ma_name, ma.MaName, sizeof ma.MaName);
  char mac[CFM_MAC_TEXT_SIZE];
  ConfigTree::setStr(md_name, "/runtime/cfm/rmep:%d/md_id", row);
  ConfigTree::setStr(ma_name, "/runtime/cfm/rmep:%d/ma_id", row);
  ConfigTree::setInt(rmep.rmep_id, "/runtime/cfm/rmep:%d/rmep_id", row);
  ConfigTree::setInt(rmep.vlan_id, "/runtime/cfm/rmep:%d/vlan_id", row);
  ConfigTree::setStr(hwaddr_to_string(mac, rmep.src_mac), "/runtime/cfm/rmep:%d/src_mac", row);
}

void export_remote_meps() {
  ConfigTree::setInt(1, "/runtime/cfm/rmep_db");
  int old_rows = ConfigTree::getInt(nullptr, "/runtime/cfm/rmep#");
  if (old_rows > kMaxOldRows) old_rows = kMaxOldRows;
  // Old rows are numbered from 0 here, unlike the rows written below.
  for (int n = 0; n < old_rows; ++n) ConfigTree::delStr("/runtime/cfm/rmep:%d", n);
  RemoteMepEntry rmep = {};
  int row = 0;
  while (CFM_MEP_Get_NextRemEntry(&rmep) == CFM_DB_FOUND) export_remote_row(++row, rmep);
  CFM_OS_Sleep(1000);
  ConfigTree::setInt(0, "/runtime/cfm/rmep_db");
}

// Port fields are 4 bytes that need not end in a NUL.
void set_port_text(const char *field, const char *key_format, int row) {
  char text[5] = {0};
  memcpy(text, field, 4);
  ConfigTree::setStr(text, key_format, row);
}

void export_ltr_row(int row, const LtrEntry &ltr) {
  char mac[CFM_MAC_TEXT_SIZE];
  static const char *const kRelay[] = {"", "Hit", "FDB", "MPDB"};
  ConfigTree::setStr(hwaddr_to_string(mac, ltr.mac), "/runtime/cfm/ltr:%d/mac", row);
  ConfigTree::setInt(as_int(ltr.md_id), "/runtime/cfm/ltr:%d/md_id", row);
  ConfigTree::setInt(as_int(ltr.ma_id), "/runtime/cfm/ltr:%d/ma_id", row);
  ConfigTree::setInt(ltr.mep_id, "/runtime/cfm/ltr:%d/mep_id", row);
  ConfigTree::setInt(as_int(ltr.sequence), "/runtime/cfm/ltr:%d/sequence", row);
  ConfigTree::setInt(as_int(ltr.ttl), "/runtime/cfm/ltr:%d/ttl", row);
  ConfigTree::setStr(ltr.forward == 1 ? "Yes" : "No", "/runtime/cfm/ltr:%d/forward", row);
  ConfigTree::setStr(ltr.terminal == 1 ? "MEP" : "MIP", "/runtime/cfm/ltr:%d/terminal", row);
  ConfigTree::setStr(hwaddr_to_string1(mac, ltr.LastEgressId), "/runtime/cfm/ltr:%d/last_egress", row);
  ConfigTree::setStr(hwaddr_to_string1(mac, ltr.NextEgressId), "/runtime/cfm/ltr:%d/next_egress", row);
  ConfigTree::setStr(hwaddr_to_string(mac, ltr.ReplyIngressMac), "/runtime/cfm/ltr:%d/reply_ingress_mac", row);
  ConfigTree::setStr(hwaddr_to_string(mac, ltr.ReplyEgressMac), "/runtime/cfm/ltr:%d/reply_egress_mac", row);
  set_port_text(ltr.ReplyIngressPort, "/runtime/cfm/ltr:%d/reply_ingress_port", row);
  set_port_text(ltr.ReplyEgressPort, "/runtime/cfm/ltr:%d/reply_egress_port", row);
  ConfigTree::setStr(ltr.relay <= 3 ? kRelay[ltr.relay] : "", "/runtime/cfm/ltr:%d/relay", row);
}

void export_ltrs() {
  ConfigTree::setInt(1, "/runtime/cfm/ltr_db");
  uint16_t old_rows = 0;
  ConfigTree::getRow("/runtime/cfm/ltr", &old_rows);
  for (int n = old_rows; n >= 1; --n) ConfigTree::delStr("/runtime/cfm/ltr:%d", n);
  LtrEntry ltr = {};
  int row = 0;
  static const uint8_t kZeroMac[CFM_MAC_LEN] = {0};
  while (CFM_DB_GetNext_LtrEntry(&ltr) == CFM_DB_FOUND) {
    if (memcmp(ltr.mac, kZeroMac, sizeof kZeroMac) == 0) continue;  // no reply yet
    export_ltr_row(++row, ltr);
  }
  CFM_OS_Sleep(3000);
  ConfigTree::setInt(0, "/runtime/cfm/ltr_db");
}

void export_ccm(const MepEntry &mep) {
  ConfigTree::setStr(mep.CciEnabled != 0 ? "Enable" : "Disable", "/runtime/cfm/ccm/transmit");
  ConfigTree::setInt(as_int(mep.CcmSequenceErrors), "/runtime/cfm/ccm/sequence_err");
  if (const char *text = cfm_cli_alarm_text(mep.LowestAlarmPriority)) {
    ConfigTree::setStr(text, "/runtime/cfm/ccm/defect_priority");
  }
  if (const char *text = cfm_cli_defect_text(mep.CcmDefect)) ConfigTree::setStr(text, "/runtime/cfm/ccm/defect");
  ConfigTree::setInt(as_int(mep.CcmSequenceNum), "/runtime/cfm/ccm/sequence_num");
}

void export_lbm(const MepEntry &mep) {
  ConfigTree::setStr(mep.LbmResultOk == 1 ? "Success" : "Fail", "/runtime/cfm/lbm/result");
  ConfigTree::setInt(as_int(mep.LbmSeqNumber), "/runtime/cfm/lbm/first_sequence");
  ConfigTree::setInt(as_int(mep.NextLbmTransId), "/runtime/cfm/lbm/next_lbm");
  ConfigTree::setInt(as_int(mep.LbrIn), "/runtime/cfm/lbm/valid_lbr_in");
  ConfigTree::setInt(as_int(mep.LbrInOutOfOrder), "/runtime/cfm/lbm/valid_lbr_outoforder");
  ConfigTree::setInt(as_int(mep.LbrBadMsdu), "/runtime/cfm/lbm/bad_lbr_msdu");
  ConfigTree::setInt(as_int(mep.LbrOut), "/runtime/cfm/lbm/transmit_lbr");
  ConfigTree::setStr(cfm_cli_lbm_state(mep), "/runtime/cfm/lbm/status");
}

void export_ltm(const MepEntry &mep) {
  char mac[CFM_MAC_TEXT_SIZE];
  ConfigTree::setInt(as_int(mep.LtmNextSeqNumber), "/runtime/cfm/ltm/sequence_num");
  ConfigTree::setInt(as_int(mep.UnexpectedLtrIn), "/runtime/cfm/ltm/unexpect_ltr");
  ConfigTree::setStr(mep.LtmFlags != 0 ? "useFDBonly" : "None", "/runtime/cfm/ltm/flag");
  ConfigTree::setStr(hwaddr_to_string(mac, mep.LtmTargetMac), "/runtime/cfm/ltm/target");
  ConfigTree::setInt(mep.LtmTargetMepId, "/runtime/cfm/ltm/target_mepid");
  ConfigTree::setStr(cfm_cli_flag_name(mep.LtmTargetIsMepId), "/runtime/cfm/ltm/target_ismep");
  ConfigTree::setInt(mep.LtmTtl, "/runtime/cfm/ltm/ttl");
  ConfigTree::setStr(mep.LtmResult == 1 ? "Success" : "Fail", "/runtime/cfm/ltm/result");
  ConfigTree::setInt(as_int(mep.LtmSeqNumber), "/runtime/cfm/ltm/ltm_sequence");
}

// Kinds 3 to 5 carry no MEP number: each MEP overwrites the previous one and
// the last MEP in key order is what stays.
void export_per_mep(void (*write)(const MepEntry &)) {
  MepEntry mep = {};
  while (CFM_IF_GetNext_MEP_Entry(&mep) == 1) write(mep);
}

}  // namespace

// update KIND (1 remote MEPs, 2 linktrace replies, 3 CCM, 4 loopback,
// 5 linktrace)
int cli_usr_cfm_update(FILE *out, CliArg *args, int) {
  static const int kPositions[] = {1};
  int32_t kind = 0;
  if (!cli_read_numbers(out, args, kPositions, 1, &kind)) return 0;
  switch (kind) {
    case kExportRemoteMeps: export_remote_meps(); break;
    case kExportLtrs: export_ltrs(); break;
    case kExportCcm: export_per_mep(export_ccm); break;
    case kExportLbm: export_per_mep(export_lbm); break;
    case kExportLtm: export_per_mep(export_ltm); break;
    default: break;
  }
  return 2;
}
