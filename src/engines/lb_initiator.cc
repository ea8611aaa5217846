// Loopback initiator: one tick of every MEP's loopback run (resolve the
// target, one LBM per tick, five ticks of waiting for late replies) and the
// counting of the LBRs that answer the run.
#include "engines/lb_initiator.h"

#include <cstdio>
#include <cstring>

#include "core/config_tree.h"
#include "core/events.h"
#include "core/global.h"
#include "core/hwaddr.h"
#include "core/os.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mgmt_if.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"
#include "engines/lb_pdu.h"
#include "io/frame.h"
#include "io/rx.h"
#include "io/tx.h"

using namespace cfm;

// Result of the current send step; kept across MEPs and ticks.
uint32_t _LBMresultOK = 0;

namespace {

constexpr uint32_t kWaitTicks = 5;
constexpr uint32_t kMaxPort = 8;
// Port values of the two fixed local targets: the router's own MAC and that
// MAC plus 2 in its last byte.
constexpr uint32_t kLocalPortSelf = 1234;
constexpr uint32_t kLocalPortSelfPlus2 = 1235;

uint8_t g_lb_source_mac[kMacLen] = {0};
// LBR rows in the configuration tree; touched only under MEP_SYC.
uint32_t g_lbr_rows = 0;
uint32_t g_lbr_rows_unwritten = 0;
// Rows written for the run started last, and its message count.
uint32_t g_lbr_run_rows = 0;
uint32_t g_lbr_run_messages = 0;

// Flags of one tick, cleared when the tick starts and not for each MEP: what
// one MEP sets stays set for the MEPs after it in the same tick.
struct TickFlags {
  bool local;
  bool found;
  bool multicast;
};

// What one send step decided.
struct Target {
  uint8_t mac[kMacLen];
  uint32_t port;
};

// Source MAC of the first remote MEP with the MEPID at or after the MEP's
// MD and MA.
void resolve_by_mepid(const MepEntry &mep, Target *target) {
  RemoteMepEntry rmep = {};
  rmep.md_id = mep.md_id;
  rmep.ma_id = mep.ma_id;
  while (CFM_MEP_Get_NextRemEntry(&rmep) == CFM_DB_FOUND) {
    if (rmep.rmep_id == mep.LbmTargetMepId) {
      memcpy(target->mac, rmep.src_mac, kMacLen);
      return;
    }
  }
}

// True when the MAC target is this router (or a fixed neighbour of its
// address, or a local MIP with the target MEPID); sets the port value.
bool resolve_local(const MepEntry &mep, Target *target) {
  const uint8_t *self = g_lb_source_mac;
  if (memcmp(mep.LbmTargetMac, self, kMacLen - 1) == 0) {
    uint8_t last = mep.LbmTargetMac[kMacLen - 1];
    if (last == self[kMacLen - 1]) {
      target->port = kLocalPortSelf;
      return true;
    }
    // Compared as integers: for a MAC ending in FE or FF no byte matches.
    if (last == self[kMacLen - 1] + 2) {
      target->port = kLocalPortSelfPlus2;
      return true;
    }
  }
  MipEntry mip = {};
  mip.md_id = mep.md_id;
  mip.ma_id = mep.ma_id;
  while (CFM_IF_GetNext_MIP_Entry(&mip) == 1) {
    if (mip.MipId == mep.LbmTargetMepId) {
      target->port = mip.port;
      return true;
    }
  }
  return false;
}

void advance(uint32_t *trans_id) { *trans_id += 1; }  // wraps from 0xFFFFFFFF to 0

// The send step of a running loopback: resolve the target and send one LBM.
void send_step(MepEntry *mep, TickFlags *flags) {
  Target target = {};
  if (mep->LbmTargetIsMepId == 1) {
    resolve_by_mepid(*mep, &target);
  } else {
    if (resolve_local(*mep, &target)) flags->local = true;
    memcpy(target.mac, flags->local ? g_lb_source_mac : mep->LbmTargetMac, kMacLen);
  }
  if (flags->local) {
    _LBMresultOK = 1;
    flags->found = true;
  }
  MdEntry md = {};
  md.MdIndex = mep->md_id;
  bool md_exists = CFM_Get_MD_Entry(&md) == 1;
  if (!flags->found && mep->LbmTargetIsMepId == 1 && md_exists) {
    cfm_group_address(kLbmGroupBase, md.MdLevel, target.mac);
    flags->multicast = true;
  }
  if (mep->direction == CFM_DIRECTION_DOWN) {
    target.port = mep->port;
    _LBMresultOK = 1;
  }
  if (!md_exists) _LBMresultOK = 0;

  size_t data_len = strnlen(mep->LbmDataTlv, CFM_LBM_DATA_TLV_SIZE);
  if (_LBMresultOK == 1) {
    cfm_send_lbm(target.mac, target.port, mep->LbmPriority, mep->vid, &mep->NextLbmTransId, md.MdLevel,
                 mep->LbmDataTlv, data_len);
    mep->LbmWaitTicks = kWaitTicks;
    mep->LbmRemaining -= 1;
  } else if (flags->multicast) {
    _LBMresultOK = 1;
    for (uint32_t port = 1; port <= kMaxPort; ++port) {
      if (!CFM_Is_Vlan_Port_Member(mep->vid, port)) continue;
      if (mep->direction == CFM_DIRECTION_UP && port == mep->port) continue;
      uint32_t same_id = mep->NextLbmTransId;
      cfm_send_lbm(target.mac, port, mep->LbmPriority, mep->vid, &same_id, md.MdLevel, mep->LbmDataTlv, data_len);
    }
    mep->LbmWaitTicks = kWaitTicks;
    mep->LbmRemaining -= 1;
    advance(&mep->NextLbmTransId);
  }
}

// One MEP's part of a tick. Writes the MEP back when its run changed.
void tick_mep(MepEntry *mep, TickFlags *flags) {
  bool changed = false;
  bool started = false;
  uint32_t first_id = 0;
  if (mep->LbmTransmitStatus == 1) {
    mep->LbmRemaining = mep->LbmMessages;
    g_lbr_run_rows = 0;
    g_lbr_run_messages = mep->LbmMessages;
  }
  if (mep->LbmRemaining > 0 && mep->LbmRunning == 0) {
    mep->LbmRunning = 1;
    first_id = mep->NextLbmTransId;
    mep->LbmWaitTicks = kWaitTicks;
    started = changed = true;
  }
  if (mep->LbmWaitTicks > 0) {
    mep->LbmWaitTicks -= 1;
    changed = true;
  }
  if (mep->LbmRemaining > 0 && mep->LbmWaitTicks > 0 && mep->LbmRunning == 1) {
    send_step(mep, flags);
    changed = true;
  }
  if (!changed) return;

  // Store the run's fields into the MEP as it is now, leaving the rest of
  // the record as the management interface last wrote it.
  MepEntry stored = {};
  memcpy(&stored, mep, sizeof(MepKey));
  if (CFM_Get_MEP_Entry(&stored) != 1) return;
  if (started) {
    stored.LbrExpectedTransId = first_id;
    stored.LbmSeqNumber = first_id;
    stored.LbmRuns += 1;
  }
  bool ended = mep->LbmWaitTicks == 0 && mep->LbmRunning == 1;
  if (mep->LbmWaitTicks == 0) {
    mep->LbmRemaining = 0;
    mep->LbmRunning = 0;
  }
  ConfigTree::setInt(static_cast<int>(mep->LbmRemaining), "/runtime/cfm/lbm/sending");
  stored.LbmResultOk = _LBMresultOK;
  stored.LbmRemaining = mep->LbmRemaining;
  stored.NextLbmTransId = mep->NextLbmTransId;
  stored.LbmRunning = mep->LbmRunning;
  stored.LbmWaitTicks = mep->LbmWaitTicks;
  stored.LbmTransmitStatus = 0;
  CFM_Update_MEP_Entry(&stored);
  if (ended) cfm_lb_post_done(stored, false);
}

// Data of the Data TLV of a received LBR, freed on every path.
class DataCopy {
 public:
  DataCopy() = default;
  ~DataCopy() { CFM_OS_Deallocate_Memory(data_); }
  DataCopy(const DataCopy &) = delete;
  DataCopy &operator=(const DataCopy &) = delete;
  bool assign(const uint8_t *value, size_t length) {
    CFM_OS_Deallocate_Memory(data_);
    data_ = nullptr;
    length_ = 0;
    if (length == 0) return true;
    data_ = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(length));
    if (data_ == nullptr) return false;
    memcpy(data_, value, length);
    length_ = length;
    return true;
  }
  const uint8_t *data() const { return data_; }
  size_t length() const { return length_; }

 private:
  uint8_t *data_ = nullptr;
  size_t length_ = 0;
};

// TLV walk of an LBR from `pos`; keeps the Data TLV's value.
uint32_t walk_lbr_tlvs(const uint8_t *frame, size_t len, size_t pos, DataCopy *data) {
  long remaining = static_cast<long>(len) - static_cast<long>(pos);
  for (;;) {
    // Every TLV header must lie in the frame; a frame that ends without an
    // End TLV is dropped like a bad TLV.
    if (pos >= len) return CFM_ERR_TLV;
    uint8_t type = frame[pos];
    if (type == kTlvEnd) return CFM_OK;
    if (len - pos < kTlvHeaderLen) return CFM_ERR_TLV;
    long tlv_len = get_be16(frame + pos + 1);
    switch (type) {
      case kTlvData:
        if (tlv_len > remaining - 4) return CFM_ERR_TLV;
        if (tlv_len > 0 && !data->assign(frame + pos + kTlvHeaderLen, static_cast<size_t>(tlv_len)))
          return CFM_ERR_TLV;
        break;
      case kTlvOrgSpecific:
        if (remaining <= tlv_len + 3) return CFM_ERR_TLV;
        break;
      case kTlvSenderId:
        break;
      default:
        return CFM_ERR_TLV;
    }
    pos += static_cast<size_t>(tlv_len) + kTlvHeaderLen;
    remaining -= tlv_len + 3;
  }
}

void count_lbr(MepEntry *mep, uint32_t trans_id, const DataCopy &data) {
  if (trans_id == mep->LbrExpectedTransId) {
    mep->LbrExpectedTransId += 1;
    mep->LbrIn += 1;
    size_t expected_len = strnlen(mep->LbmDataTlv, CFM_LBM_DATA_TLV_SIZE);
    if (data.length() != expected_len ||
        (expected_len > 0 && memcmp(data.data(), mep->LbmDataTlv, expected_len) != 0))
      mep->LbrBadMsdu += 1;
  } else {
    mep->LbrExpectedTransId = trans_id;
    mep->LbrInOutOfOrder += 1;
  }
  CFM_Update_MEP_Entry(mep);
}

// Records one LBR as the next row, while the run's rows are below its
// message count and the table below its bound.
void write_lbr_row(const uint8_t *source, uint32_t trans_id) {
  if (g_lbr_run_rows >= g_lbr_run_messages || g_lbr_rows >= CFM_MAX_LBR_ROWS) {
    g_lbr_rows_unwritten += 1;
    return;
  }
  g_lbr_run_rows += 1;
  int row = static_cast<int>(++g_lbr_rows);
  char mac_text[CFM_MAC_TEXT_SIZE];
  hwaddr_to_string(mac_text, source);
  ConfigTree::setStr(mac_text, "/runtime/cfm/lbr:%d/src_mac", row);
  ConfigTree::setInt(static_cast<int>(trans_id), "/runtime/cfm/lbr:%d/transID", row);
}

}  // namespace

void cfm_lb_post_done(const MepEntry &mep, bool stopped) {
  CfmEvent event = cfm_event_make(CfmEventKind::LbDone, mep.md_id, mep.ma_id, mep.mep_id, mep.vid);
  event.ok = mep.LbmResultOk != 0;
  event.stopped = stopped;
  event.sent = mep.LbrOut;
  event.replies = mep.LbrIn;
  event.out_of_order = mep.LbrInOutOfOrder;
  event.bad = mep.LbrBadMsdu;
  cfm_event_post(event);
}

const uint8_t *cfm_lb_source_mac() { return g_lb_source_mac; }

uint32_t cfm_lbr_rows() { return g_lbr_rows; }
uint32_t cfm_lbr_rows_unwritten() { return g_lbr_rows_unwritten; }

void cfm_lbr_rows_clear() {
  MepSycLock lock;
  uint16_t rows = 0;
  ConfigTree::getRow("/runtime/cfm/lbr", &rows);
  for (int n = rows; n >= 1; --n) ConfigTree::delStr("/runtime/cfm/lbr:%d", n);
  g_lbr_rows = 0;
  g_lbr_rows_unwritten = 0;
}

uint32_t CFM_LB_Init() {
  if (CFM_Get_System_Mac(g_lb_source_mac) != CFM_OK) {
    printf("\r\nGet System MAC for CFM LB  Send Frame failed!");
  }
  uint16_t rows = 0;
  ConfigTree::getRow("/runtime/cfm/lbr", &rows);
  g_lbr_rows = rows;
  return 1;
}

bool cfm_find_mep_in_md(uint32_t md_id, uint32_t vid, uint32_t port, MepEntry *out) {
  MepEntry mep = {};
  mep.md_id = md_id;
  mep.vid = static_cast<uint16_t>(vid);
  while (CFM_GetNext_MEP_Entry(&mep) == 1 && mep.md_id == md_id) {
    if (mep.vid == vid && (mep.port == port || mep.direction == CFM_DIRECTION_UP)) {
      *out = mep;
      return true;
    }
  }
  return false;
}

uint32_t cfm_send_lbm(const uint8_t *destination, uint32_t /*port*/, uint8_t priority, uint16_t vid,
                      uint32_t *trans_id, uint8_t md_level, const char *data, size_t data_length) {
  if (isCfmDebugOn()) puts("CFM: Prepare to send LBM");
  auto *buffer = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kTxBufferSize));
  if (buffer == nullptr) {
    printf("\r\nAllocate Buffer for CFM LB Send Frame failed!");
    return CFM_ERR_FAILURE;
  }
  memset(buffer, 0, kTxBufferSize);
  size_t length = cfm_lbm_build(buffer, kTxBufferSize, destination, g_lb_source_mac, priority, vid, md_level,
                                *trans_id, data, data_length);
  uint32_t result = length > 0 ? CFM_Send_Packet_To_WAN(buffer, static_cast<uint32_t>(length), priority)
                               : CFM_ERR_FAILURE;
  if (result != CFM_OK) {
    printf("\r\n Send CFM LB packet failed!!");
  } else {
    advance(trans_id);
  }
  CFM_OS_Deallocate_Memory(buffer);
  return result;
}

void CFM_LBI_XMIT_Check() {
  TickFlags flags = {false, false, false};
  MepEntry mep = {};
  while (CFM_GetNext_MEP_Entry(&mep) == 1) tick_mep(&mep, &flags);
}

uint32_t CFM_LBR_Process(CfmPacket *packet) {
  if (isCfmDebugOn()) puts("CFM: Run CFM LBR Process");
  if (packet == nullptr || packet->buffer == nullptr) return CFM_ERR_FAILURE;
  const uint8_t *frame = packet->buffer;
  size_t len = packet->length;
  // Fixed Ethernet II offsets: the reply to our own LBM.
  const CfmOffsets &off = kEthOffsets;
  size_t tlv_start = off.body + lb::kBodyTlvs;
  if (len < tlv_start) return CFM_ERR_FAILURE;
  if (memcmp(frame + wire::kDst, g_lb_source_mac, kMacLen) != 0 || mac_is_group(frame + wire::kSrc))
    return CFM_ERR_FAILURE;
  uint32_t trans_id = get_be32(frame + off.body + lb::kBodyTransId);

  if (get_be16(frame + off.ether_type) != kCfmEtherType || cfm_version(frame[off.level_version]) != 0 ||
      frame[off.opcode] != kOpLbr || frame[off.flags] != 0 || frame[off.first_tlv_offset] != lb::kFirstTlvOffset)
    return CFM_ERR_FAILURE;
  uint8_t level = cfm_level(frame[off.level_version]);

  DataCopy data;
  uint32_t walk = walk_lbr_tlvs(frame, len, tlv_start, &data);
  if (walk != CFM_OK) return walk;

  // Only a reply that passed the checks and answers a running loopback gets
  // a row: anything else from the line would fill the tree.
  bool answered = false;
  MdEntry md = {};
  while (CFM_GetNext_MD_Entry(&md) == 1) {
    if (md.MdLevel != level) continue;
    MepEntry mep = {};
    if (cfm_find_mep_in_md(md.MdIndex, packet->vid, packet->rx_port, &mep) && mep.LbmRunning == 1) {
      count_lbr(&mep, trans_id, data);
      answered = true;
    }
  }
  if (answered) write_lbr_row(frame + wire::kSrc, trans_id);
  return CFM_OK;
}
