// Linktrace initiator: sends one LTM for a local MEP and prepares the
// linktrace-reply database for its replies.
#include "engines/lt_initiator.h"

#include <cstdio>
#include <cstring>

#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "db/ltr_db.h"
#include "db/mep_mip.h"
#include "engines/lt_pdu.h"
#include "io/frame.h"
#include "io/tx.h"

using namespace cfm;

namespace {

constexpr uint32_t kReplyCounters = 10;

uint8_t g_reply_counter[kReplyCounters] = {0};
uint8_t g_lt_system_mac[kMacLen] = {0};

// True when an Up MEP of the request's MD already sits on its port and VID
// (the requesting MEP itself included).
bool up_mep_in_the_way(const LtmRequest &request) {
  MepEntry mep = {};
  mep.md_id = request.md_id;
  while (CFM_GetNext_MEP_Entry(&mep) == 1 && mep.md_id == request.md_id) {
    if (mep.port == request.port && mep.vid == request.vid && mep.direction == CFM_DIRECTION_UP) return true;
  }
  return false;
}

// True when a MIP from the request's MD and MA to the end of the table sits
// on the request's port.
bool mip_on_port(const LtmRequest &request) {
  MipEntry mip = {};
  mip.md_id = request.md_id;
  mip.ma_id = request.ma_id;
  bool found = false;
  while (CFM_IF_GetNext_MIP_Entry(&mip) == 1) {
    if (mip.port == request.port) found = true;
  }
  return found;
}

LtrEntry entry_key(const LtmRequest &request) {
  LtrEntry entry = {};
  entry.md_id = request.md_id;
  entry.ma_id = request.ma_id;
  entry.mep_id = request.mep_id;
  entry.sequence = request.trans_id;
  return entry;
}

// The egress identifier of this router on a VLAN: the VID, then the MAC.
void egress_id(uint16_t vid, uint8_t *out) {
  put_be16(out, vid);
  memcpy(out + 2, g_lt_system_mac, kMacLen);
}

// Hands the 50 bytes to the WAN in a fresh transmit buffer; 1 sent, else 0.
int cfm_xmit_ltm(const uint8_t *ltm, uint8_t priority) {
  if (isCfmDebugOn()) puts("CFM: Prepare to send LTM");
  auto *buffer = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kTxBufferSize));
  if (buffer == nullptr) {
    printf("\r\n cfm_xmit_ltm: Allocate memory buffer failed!!");
    return 0;
  }
  memset(buffer, 0, kTxBufferSize);
  memcpy(buffer, ltm, ltm::kFrameLen);
  memcpy(buffer + wire::kSrc, g_lt_system_mac, kMacLen);
  put_be16(buffer + wire::kSingleTagEtherType, kCfmEtherType);
  buffer[wire::kSingleTagOpcode] = kOpLtm;
  buffer[wire::kSingleTagOpcode + 2] = ltm::kFirstTlvOffset;
  uint32_t result = CFM_Send_Packet_To_WAN(buffer, ltm::kFrameLen, priority);
  CFM_OS_Deallocate_Memory(buffer);
  if (result != CFM_OK) {
    printf("\r\n Send CFM LTM packet failed!!");
    return 0;
  }
  return 1;
}

}  // namespace

uint8_t cfm_lt_next_reply_number(uint32_t trans_id) { return ++g_reply_counter[trans_id % kReplyCounters]; }

void cfm_lt_reset_reply_counter(uint32_t trans_id) { g_reply_counter[trans_id % kReplyCounters] = 0; }

const uint8_t *cfm_lt_system_mac() { return g_lt_system_mac; }

uint32_t CFM_LT_Init() {
  memset(g_reply_counter, 0, sizeof g_reply_counter);
  if (CFM_Get_System_Mac(g_lt_system_mac) != CFM_OK) {
    printf("\r\nCFM_LT_Init: Get system MAC fail!");
    CFM_OS_Fatal_Error_Handler();
  }
  CFM_IF_Set_LTM_Transmitter(CFM_LTM_Transmit);
  return 1;
}

size_t cfm_ltm_build(const LtmRequest *request, uint8_t *frame) {
  return cfm_ltm_build_with(request, g_lt_system_mac, frame);
}

int CFM_LTM_Transmit(const LtmRequest *request) {
  if (request == nullptr) return 0;
  bool mip_found = false;
  if (request->direction == CFM_DIRECTION_UP) {
    if (up_mep_in_the_way(*request)) return 0;
    mip_found = mip_on_port(*request);
  }
  uint8_t frame[ltm::kFrameLen];
  cfm_ltm_build(request, frame);

  LtrEntry placeholder = entry_key(*request);
  if (CFM_DB_Update_LtrEntry_Make_Room(&placeholder) != CFM_DB_FOUND) return 0;
  cfm_lt_reset_reply_counter(request->trans_id);

  if (mip_found) {
    LtrEntry mip_reply = entry_key(*request);
    mip_reply.ReplyNumber = cfm_lt_next_reply_number(request->trans_id);
    mip_reply.ttl = static_cast<uint8_t>(request->ttl - 1);
    mip_reply.forward = 1;
    mip_reply.terminal = 0;
    mip_reply.relay = 0;
    egress_id(request->vid, mip_reply.LastEgressId);
    egress_id(request->vid, mip_reply.NextEgressId);
    CFM_DB_Update_LtrEntry_Make_Room(&mip_reply);
    frame[ltm::kTtl] = static_cast<uint8_t>(frame[ltm::kTtl] - 1);
  }
  return cfm_xmit_ltm(frame, request->priority);
}
