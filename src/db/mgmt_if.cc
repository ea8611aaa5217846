// Management interface: validates a whole request in a fixed order (the first
// failing check decides the status), fills defaults for fields left 0, then
// applies it through the table functions. Takes no lock of its own.
#include "db/mgmt_if.h"

#include <atomic>
#include <cstring>

#include "core/config_tree.h"
#include "core/events.h"
#include "engines/fng.h"
#include "engines/lt_done.h"
#include "core/status.h"

namespace {

std::atomic<CfmLtmTransmitFn> g_ltm_transmitter{nullptr};

constexpr const char *kLtmSendingKey = "/runtime/cfm/ltm/sending";
constexpr uint16_t kMaxMepId = 8191;
constexpr uint8_t kMaxPort = 8;
constexpr uint8_t kLtmFlagUseFdbOnly = 0x80;

template <typename T>
void default_if_zero(T &field, T value) {
  if (field == 0) field = value;
}

template <typename T>
bool within(T value, T low, T high) {
  return value >= low && value <= high;
}

// Booleans other than 0/1 are stored as 0.
void normalise_bool(uint32_t &field) {
  if (field > 1) field = 0;
}

bool valid_row_status(uint32_t row_status) { return row_status <= CFM_ROW_DELETE; }

uint32_t result_of(int table_result) { return table_result == 1 ? CFM_OK : CFM_ERR_FAILURE; }

// A config event for a request with this row status, made before the change
// (a deleted object's names are gone after it) and posted on success.
CfmEvent config_event(CfmConfigObject object, uint32_t row_status, uint32_t md, uint32_t ma, uint16_t mep,
                      uint16_t vid) {
  CfmEvent event = cfm_event_make(CfmEventKind::Config, md, ma, mep, vid);
  event.object = object;
  event.action = row_status == CFM_ROW_CREATE   ? CfmConfigAction::Created
                 : row_status == CFM_ROW_DELETE ? CfmConfigAction::Deleted
                                                : CfmConfigAction::Changed;
  event.has_ma = object != CfmConfigObject::Md;
  event.has_mep = object == CfmConfigObject::Mep;
  return event;
}

uint32_t posted_if_ok(uint32_t status, const CfmEvent &event) {
  if (status == CFM_OK) cfm_event_post(event);
  return status;
}

bool md_exists(uint32_t md_index, MdEntry *out) {
  MdEntry md{};
  md.MdIndex = md_index;
  int found = CFM_Get_MD_Entry(&md);
  if (found && out != nullptr) *out = md;
  return found == 1;
}

bool ma_exists(uint32_t ma_index) {
  MaNetEntry ma{};
  ma.MaIndex = ma_index;
  return CFM_Get_MA_Net_Entry(&ma) == 1;
}

bool md_fields_valid(MdEntry *entry) {
  default_if_zero<uint8_t>(entry->MdFormat, 1);
  if (!within<uint8_t>(entry->MdFormat, 1, 4)) return false;
  if (entry->MdLevel >= 8) return false;
  default_if_zero<uint8_t>(entry->MhfCreation, 2);
  if (!within<uint8_t>(entry->MhfCreation, 1, 4)) return false;
  default_if_zero<uint8_t>(entry->SenderIdPermission, 1);
  if (!within<uint8_t>(entry->SenderIdPermission, 1, 5)) return false;
  if (strnlen(entry->MdName, sizeof entry->MdName) >= sizeof entry->MdName) return false;
  return valid_row_status(entry->RowStatus);
}

bool ma_fields_valid(MaNetEntry *entry) {
  default_if_zero<uint32_t>(entry->MaFormat, 1);
  if (!within<uint32_t>(entry->MaFormat, 1, 4)) return false;
  default_if_zero<uint8_t>(entry->CcmInterval, 4);
  if (!within<uint8_t>(entry->CcmInterval, 2, 7)) return false;
  if (strnlen(entry->MaName, sizeof entry->MaName) >= sizeof entry->MaName) return false;
  return valid_row_status(entry->RowStatus);
}

// Configuration and CCM fields of a MEP request.
bool mep_config_valid(MepEntry *entry) {
  default_if_zero<uint8_t>(entry->direction, CFM_DIRECTION_DOWN);
  if (entry->direction >= 3) return false;
  normalise_bool(entry->Active);
  normalise_bool(entry->CciEnabled);
  default_if_zero<uint8_t>(entry->FngState, 1);
  default_if_zero<uint8_t>(entry->CcmLtmPriority, 7);
  if (entry->CcmLtmPriority >= 8) return false;
  default_if_zero<uint8_t>(entry->LowestAlarmPriority, 2);
  if (entry->LowestAlarmPriority >= 7) return false;
  default_if_zero<uint16_t>(entry->FngAlarmTime, 250);
  if (!within<uint16_t>(entry->FngAlarmTime, 250, 1000)) return false;
  default_if_zero<uint16_t>(entry->FngResetTime, 1000);
  if (!within<uint16_t>(entry->FngResetTime, 250, 1000)) return false;
  default_if_zero<uint8_t>(entry->CcmDefect, kDefectRdi);
  if (entry->LbmMessages > 1024) return false;
  normalise_bool(entry->LbmTransmitStatus);
  return true;
}

// Loopback and linktrace settings of a MEP request.
bool mep_lb_lt_valid(MepEntry *entry) {
  default_if_zero<uint8_t>(entry->LbmPriority, 7);
  if (entry->LbmPriority >= 8) return false;
  normalise_bool(entry->LbmDropEnable);
  normalise_bool(entry->LbmResultOk);
  if (entry->LtmFlags != 0 && entry->LtmFlags != kLtmFlagUseFdbOnly) return false;
  default_if_zero<uint8_t>(entry->LtmTtl, 64);
  return true;
}

// Sends the linktrace the request asks for. Returns CFM_DB_NOT_FOUND when the
// target MEPID is not a known remote MEP, else CFM_OK (the outcome of the
// send is recorded in the request's LTM fields).
uint32_t send_linktrace(MepEntry *entry, const MdEntry &md) {
  LtmRequest request{};
  request.md_id = entry->md_id;
  request.ma_id = entry->ma_id;
  request.mep_id = entry->mep_id;
  request.port = entry->port;
  request.vid = entry->vid;
  request.direction = entry->direction;
  request.priority = entry->CcmLtmPriority;
  request.md_level = md.MdLevel;
  request.flags = entry->LtmFlags;
  request.trans_id = entry->LtmNextSeqNumber;
  request.ttl = entry->LtmTtl;
  if (entry->LtmTargetIsMepId != 1) {
    memcpy(request.target_mac, entry->LtmTargetMac, sizeof request.target_mac);
  } else {
    RemoteMepEntry remote{};
    remote.md_id = entry->md_id;
    remote.ma_id = entry->ma_id;
    remote.rmep_id = entry->LtmTargetMepId;
    if (CFM_MEP_DB_Get_RemEntry(&remote) != CFM_DB_FOUND) {
      ConfigTree::setInt(0, "%s", kLtmSendingKey);
      return CFM_DB_NOT_FOUND;
    }
    memcpy(request.target_mac, remote.src_mac, sizeof request.target_mac);
    memcpy(entry->LtmTargetMac, remote.src_mac, sizeof entry->LtmTargetMac);
  }
  CfmLtmTransmitFn transmit = g_ltm_transmitter.load();
  entry->LtmRuns += 1;
  bool sent = transmit != nullptr && transmit(&request) == 1;
  cfm_lt_done_started(entry->md_id, entry->ma_id, entry->mep_id, entry->vid, request.trans_id, sent,
                      cfm_fault_now_ms());
  if (sent) {
    entry->LtmResult = 1;
    entry->LtmTransmitStatus = 0;
    entry->LtmSeqNumber = entry->LtmNextSeqNumber;
    entry->LtmNextSeqNumber++;
  } else {
    entry->LtmResult = 0;
  }
  ConfigTree::setInt(0, "%s", kLtmSendingKey);
  return CFM_OK;
}

}  // namespace

void CFM_IF_Set_LTM_Transmitter(CfmLtmTransmitFn fn) { g_ltm_transmitter.store(fn); }

int CFM_IF_Get_MD_Entry(MdEntry *entry) { return entry == nullptr ? 0 : CFM_Get_MD_Entry(entry); }
int CFM_IF_GetNext_MD_Entry(MdEntry *entry) { return entry == nullptr ? 0 : CFM_GetNext_MD_Entry(entry); }
int CFM_IF_GetFirst_MD_Entry(MdEntry *entry) {
  if (entry == nullptr) return 0;
  memset(entry, 0, sizeof *entry);
  return CFM_GetNext_MD_Entry(entry);
}

int CFM_IF_Get_MA_Net_Entry(MaNetEntry *entry) { return entry == nullptr ? 0 : CFM_Get_MA_Net_Entry(entry); }
int CFM_IF_GetNext_MA_Net_Entry(MaNetEntry *entry) {
  return entry == nullptr ? 0 : CFM_GetNext_MA_Net_Entry(entry);
}
int CFM_IF_GetFirst_MA_Net_Entry(MaNetEntry *entry) {
  if (entry == nullptr) return 0;
  memset(entry, 0, sizeof *entry);
  return CFM_GetNext_MA_Net_Entry(entry);
}

int CFM_IF_Get_MEP_Entry(MepEntry *entry) { return entry == nullptr ? 0 : CFM_Get_MEP_Entry(entry); }
int CFM_IF_GetNext_MEP_Entry(MepEntry *entry) { return entry == nullptr ? 0 : CFM_GetNext_MEP_Entry(entry); }
int CFM_IF_GetFirst_MEP_Entry(MepEntry *entry) {
  if (entry == nullptr) return 0;
  memset(entry, 0, sizeof *entry);
  return CFM_GetNext_MEP_Entry(entry);
}

int CFM_IF_Get_MIP_Entry(MipEntry *entry) { return entry == nullptr ? 0 : CFM_Get_MIP_Entry(entry); }
int CFM_IF_GetNext_MIP_Entry(MipEntry *entry) { return entry == nullptr ? 0 : CFM_GetNext_MIP_Entry(entry); }
int CFM_IF_GetFirst_MIP_Entry(MipEntry *entry) {
  if (entry == nullptr) return 0;
  memset(entry, 0, sizeof *entry);
  return CFM_GetNext_MIP_Entry(entry);
}

uint32_t CFM_IF_Set_MD_Entry(MdEntry *entry) {
  if (entry == nullptr) return CFM_ERR_NULL_REQUEST;
  if (!md_fields_valid(entry)) return CFM_ERR_OUT_OF_RANGE;
  CfmEvent event = config_event(CfmConfigObject::Md, entry->RowStatus, entry->MdIndex, 0, 0, 0);
  memcpy(event.md_name, entry->MdName, sizeof event.md_name - 1);
  event.level = entry->MdLevel;
  return posted_if_ok(result_of(CFM_Set_MD_Entry(entry)), event);
}

uint32_t CFM_IF_Set_MA_Net_Entry(MaNetEntry *entry) {
  if (entry == nullptr) return CFM_ERR_NULL_REQUEST;
  if (!md_exists(entry->MdIndex, nullptr)) return CFM_ERR_NO_MD_MA;
  if (!ma_fields_valid(entry)) return CFM_ERR_OUT_OF_RANGE;
  CfmEvent event = config_event(CfmConfigObject::Ma, entry->RowStatus, entry->MdIndex, entry->MaIndex, 0, 0);
  memcpy(event.ma_name, entry->MaName, sizeof event.ma_name - 1);
  return posted_if_ok(result_of(CFM_Set_MA_Net_Entry(entry)), event);
}

uint32_t CFM_IF_Set_MEP_Entry(MepEntry *entry) {
  if (entry == nullptr) return CFM_ERR_NULL_REQUEST;
  MdEntry md{};
  if (!md_exists(entry->md_id, &md) || !ma_exists(entry->ma_id)) return CFM_ERR_NO_MD_MA;
  if (!within<uint16_t>(entry->mep_id, 1, kMaxMepId) || entry->port > kMaxPort) return CFM_ERR_OUT_OF_RANGE;
  if (!mep_config_valid(entry)) return CFM_ERR_OUT_OF_RANGE;
  if (entry->LbmRunning == 1) return CFM_ERR_LBM_RUNNING;
  if (!mep_lb_lt_valid(entry)) return CFM_ERR_OUT_OF_RANGE;

  entry->LtmNextSeqNumber = entry->LtmSeqNumber + 1;
  normalise_bool(entry->LtmTransmitStatus);
  // The linktrace goes out before the row status is looked at: a delete or
  // an unknown status with the transmit flag set still sends it.
  if (entry->LtmTransmitStatus == 1) {
    if (send_linktrace(entry, md) == CFM_DB_NOT_FOUND) return CFM_DB_NOT_FOUND;
  }

  // Starting a loopback or a linktrace changes no configuration.
  bool run = entry->LtmTransmitStatus == 1 || entry->LbmTransmitStatus == 1;
  CfmEvent event = config_event(CfmConfigObject::Mep, entry->RowStatus, entry->md_id, entry->ma_id, entry->mep_id,
                                entry->vid);
  if (entry->RowStatus == CFM_ROW_DELETE) return posted_if_ok(result_of(CFM_Delete_MEP_Entry(entry)), event);
  if (!valid_row_status(entry->RowStatus)) return CFM_ERR_UNKNOWN_ROW_STATUS;
  if (entry->RowStatus == CFM_ROW_CREATE) {
    entry->CciEnabled = 1;
    entry->LbmMessages = 10;
  }
  entry->RowStatus = CFM_ROW_IN_USE;
  uint32_t status = result_of(CFM_Update_MEP_Entry(entry));
  return run ? status : posted_if_ok(status, event);
}

uint32_t CFM_IF_Set_MIP_Entry(MipEntry *entry) {
  if (entry == nullptr) return CFM_ERR_NULL_REQUEST;
  if (!md_exists(entry->md_id, nullptr) || !ma_exists(entry->ma_id)) return CFM_ERR_NO_MD_MA;
  if (!within<uint16_t>(entry->MipId, 1, kMaxMepId) || entry->port > kMaxPort) return CFM_ERR_OUT_OF_RANGE;
  switch (entry->RowStatus) {
    case CFM_ROW_CREATE:
    case CFM_ROW_MODIFY:
      entry->RowStatus = CFM_ROW_IN_USE;
      return result_of(CFM_Update_MIP_Entry(entry));
    case CFM_ROW_DELETE:
      return result_of(CFM_Delete_MIP_Entry(entry));
    default:
      return CFM_ERR_UNKNOWN_ROW_STATUS;
  }
}

int CFM_IF_Clean_RemoteMep_Entry() {
  RemoteMepEntry entry{};
  while (CFM_MEP_Get_NextRemEntry(&entry) == CFM_DB_FOUND) {
    CFM_MEP_Del_RemEntry(&entry);
  }
  return 1;
}

int CFM_IF_Clean_LtrDB_Entry() {
  LtrEntry entry{};
  while (CFM_DB_GetNext_LtrEntry(&entry) == CFM_DB_FOUND) {
    CFM_DB_Del_LtrEntry(&entry);
  }
  return 1;
}
