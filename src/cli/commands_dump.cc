// dumpjson: the daemon's state as one JSON document for programs (cfmctl
// status, scripts): settings, MDs, MAs, MEPs with their loopback and
// linktrace state, MIPs, remote MEPs and linktrace replies, each record with
// every field a program needs. It is written on the requesting connection
// only (see the command table), so polling it does not fill the log.
#include <cstring>

#include "cli/args.h"
#include "cli/commands.h"
#include "cli/json.h"
#include "core/os.h"
#include "core/status.h"
#include "db/mgmt_if.h"
#include "engines/ccm_tx.h"

namespace {

void write_global(JsonOut &json) {
  GlobalEntry global = {};
  CFM_IF_Get_Global_Entry(&global);
  json.begin("global", '{');
  json.boolean("enabled", global.status == 1);
  json.number("default_md_level", global.default_md_level);
  json.number("mhf_creation", global.mhf_creation);
  json.number("sender_id_permission", global.sender_id_permission);
  json.boolean("debug", isCfmDebugOn() != 0);
  json.end('}');
}

void write_mds(JsonOut &json) {
  json.begin("mds", '[');
  MdEntry md = {};
  while (CFM_IF_GetNext_MD_Entry(&md) == 1) {
    json.begin(nullptr, '{');
    json.number("md", md.MdIndex);
    json.text("md_name", md.MdName, strnlen(md.MdName, sizeof md.MdName));
    json.number("name_format", md.MdFormat);
    json.number("level", md.MdLevel);
    json.number("mhf_creation", md.MhfCreation);
    json.number("sender_id_permission", md.SenderIdPermission);
    json.end('}');
  }
  json.end(']');
}

void write_mas(JsonOut &json) {
  json.begin("mas", '[');
  MaNetEntry ma = {};
  while (CFM_IF_GetNext_MA_Net_Entry(&ma) == 1) {
    uint32_t period = 0;
    cfm_ccm_interval_lookup(ma.CcmInterval, &period, nullptr, nullptr);
    json.begin(nullptr, '{');
    json.number("md", ma.MdIndex);
    json.number("ma", ma.MaIndex);
    json.text("ma_name", ma.MaName, strnlen(ma.MaName, sizeof ma.MaName));
    json.number("name_format", ma.MaFormat);
    json.number("ccm_interval", ma.CcmInterval);
    json.number("ccm_interval_ms", period);
    json.end('}');
  }
  json.end(']');
}

// A result that never happened (no run started) is null.
void write_result(JsonOut &json, uint32_t runs, bool success) {
  if (runs == 0) return json.null("result");
  json.text("result", success ? "success" : "fail");
}

void write_loopback(JsonOut &json, const MepEntry &mep) {
  json.begin("loopback", '{');
  json.number("messages", mep.LbmMessages);
  json.number("priority", mep.LbmPriority);
  json.mac("target_mac", mep.LbmTargetMac);
  json.number("target_mep", mep.LbmTargetMepId);
  json.boolean("target_is_mep", mep.LbmTargetIsMepId == 1);
  json.text("data", mep.LbmDataTlv, strnlen(mep.LbmDataTlv, CFM_LBM_DATA_TLV_SIZE));
  json.boolean("drop_enable", mep.LbmDropEnable == 1);
  json.boolean("running", mep.LbmRunning == 1);
  json.boolean("stopped", mep.LbmStopped == 1);
  json.number("runs", mep.LbmRuns);
  write_result(json, mep.LbmRuns, mep.LbmResultOk == 1);
  if (mep.LbmRuns == 0) {
    json.null("first_trans_id");
  } else {
    json.number("first_trans_id", mep.LbmSeqNumber);
  }
  json.number("next_trans_id", mep.NextLbmTransId);
  json.number("lbr_in", mep.LbrIn);
  json.number("lbr_in_out_of_order", mep.LbrInOutOfOrder);
  json.number("lbr_bad_msdu", mep.LbrBadMsdu);
  json.number("lbr_out", mep.LbrOut);
  json.end('}');
}

void write_linktrace(JsonOut &json, const MepEntry &mep) {
  json.begin("linktrace", '{');
  json.boolean("fdb_only", mep.LtmFlags != 0);
  json.mac("target_mac", mep.LtmTargetMac);
  json.number("target_mep", mep.LtmTargetMepId);
  json.boolean("target_is_mep", mep.LtmTargetIsMepId == 1);
  json.number("ttl", mep.LtmTtl);
  json.number("runs", mep.LtmRuns);
  write_result(json, mep.LtmRuns, mep.LtmResult == 1);
  if (mep.LtmRuns == 0) {
    json.null("sequence");
  } else {
    json.number("sequence", mep.LtmSeqNumber);
  }
  json.number("next_sequence", mep.LtmNextSeqNumber);
  json.number("unexpected_ltr_in", mep.UnexpectedLtrIn);
  json.end('}');
}

void write_meps(JsonOut &json) {
  json.begin("meps", '[');
  MepEntry mep = {};
  while (CFM_IF_GetNext_MEP_Entry(&mep) == 1) {
    json.begin(nullptr, '{');
    json.number("md", mep.md_id);
    json.number("ma", mep.ma_id);
    json.number("mep", mep.mep_id);
    json.number("port", mep.port);
    json.number("vid", mep.vid);
    json.text("direction", mep.direction == CFM_DIRECTION_UP ? "up" : "down");
    json.boolean("active", mep.Active == 1);
    json.boolean("ccm_enabled", mep.CciEnabled != 0);
    json.number("ccm_ltm_priority", mep.CcmLtmPriority);
    json.number("lowest_alarm_priority", mep.LowestAlarmPriority);
    json.number("fng_state", mep.FngState);
    json.number("fng_alarm_time_ms", mep.FngAlarmTime * 10);
    json.number("fng_reset_time_ms", mep.FngResetTime * 10);
    json.number("defect", mep.CcmDefect);
    json.number("ccm_sequence", mep.CcmSequenceNum);
    json.number("ccm_sequence_errors", mep.CcmSequenceErrors);
    write_loopback(json, mep);
    write_linktrace(json, mep);
    json.end('}');
  }
  json.end(']');
}

void write_mips(JsonOut &json) {
  json.begin("mips", '[');
  MipEntry mip = {};
  while (CFM_IF_GetNext_MIP_Entry(&mip) == 1) {
    json.begin(nullptr, '{');
    json.number("md", mip.md_id);
    json.number("ma", mip.ma_id);
    json.number("mip", mip.MipId);
    json.number("port", mip.port);
    json.end('}');
  }
  json.end(']');
}

void write_remote_meps(JsonOut &json) {
  json.begin("remote_meps", '[');
  RemoteMepEntry rmep = {};
  while (CFM_MEP_Get_NextRemEntry(&rmep) == CFM_DB_FOUND) {
    json.begin(nullptr, '{');
    json.number("md", rmep.md_id);
    json.number("ma", rmep.ma_id);
    json.number("mep", rmep.mep_id);
    json.number("rmep", rmep.rmep_id);
    json.mac("mac", rmep.src_mac);
    json.number("port", rmep.port);
    json.number("vid", rmep.vlan_id);
    json.boolean("rdi", rmep.RdiReceived == 1);
    json.number("port_status", rmep.PortStatus);
    json.number("interface_status", rmep.InterfaceStatus);
    json.number("sequence", rmep.SequenceNum);
    json.time("last_ccm_time", rmep.ReceiveTimeMs);
    json.number("age_left_ms", rmep.AgeTime);
    json.end('}');
  }
  json.end(']');
}

// An 8-byte egress identifier: "00:00:02:00:00:00:0b:02".
void write_egress_id(JsonOut &json, const char *key, const uint8_t *id) {
  char text[24];
  snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", id[0], id[1], id[2], id[3], id[4], id[5],
           id[6], id[7]);
  json.text(key, text);
}

void write_ltrs(JsonOut &json) {
  static const char *const kRelay[] = {"hit", "fdb", "mpdb"};
  json.begin("ltrs", '[');
  LtrEntry ltr = {};
  while (CFM_DB_GetNext_LtrEntry(&ltr) == CFM_DB_FOUND) {
    json.begin(nullptr, '{');
    json.number("md", ltr.md_id);
    json.number("ma", ltr.ma_id);
    json.number("mep", ltr.mep_id);
    json.number("sequence", ltr.sequence);
    json.number("reply_number", ltr.ReplyNumber);
    json.mac("mac", ltr.mac);
    json.number("ttl", ltr.ttl);
    json.boolean("forward", ltr.forward == 1);
    json.boolean("terminal_mep", ltr.terminal == 1);
    write_egress_id(json, "last_egress_id", ltr.LastEgressId);
    write_egress_id(json, "next_egress_id", ltr.NextEgressId);
    if (ltr.relay >= 1 && ltr.relay <= 3) {
      json.text("relay_action", kRelay[ltr.relay - 1]);
    } else {
      json.null("relay_action");
    }
    json.number("ingress_action", ltr.ReplyIngressAction);
    json.mac("ingress_mac", ltr.ReplyIngressMac);
    json.text("ingress_port", ltr.ReplyIngressPort, strnlen(ltr.ReplyIngressPort, sizeof ltr.ReplyIngressPort));
    json.number("egress_action", ltr.ReplyEgressAction);
    json.mac("egress_mac", ltr.ReplyEgressMac);
    json.text("egress_port", ltr.ReplyEgressPort, strnlen(ltr.ReplyEgressPort, sizeof ltr.ReplyEgressPort));
    json.end('}');
  }
  json.end(']');
}

struct Section {
  const char *word;  // the argument that asks for this section alone
  void (*write)(JsonOut &json);
};

const Section kSections[] = {{"global", write_global}, {"md", write_mds},    {"ma", write_mas},   {"mep", write_meps},
                             {"mip", write_mips},       {"rmep", write_remote_meps}, {"ltr", write_ltrs}};

}  // namespace

// dumpjson [global|md|ma|mep|mip|rmep|ltr]: every section, or one.
int cli_usr_cfm_dumpjson(FILE *out, CliArg *args, int) {
  const char *only = nullptr;
  if (args != nullptr) {
    only = args->word;
    bool known = false;
    for (const Section &section : kSections) known = known || strcmp(only, section.word) == 0;
    if (!known) {
      cli_report_arg_status(out, CliArgStatus::kInvalid);
      return 0;
    }
  }
  JsonOut json(out);
  json.begin(nullptr, '{');
  json.time("time", CFM_OS_Get_Wall_Ms());
  for (const Section &section : kSections) {
    if (only == nullptr || strcmp(only, section.word) == 0) section.write(json);
  }
  json.end('}');
  fputc('\n', out);
  return 2;
}
