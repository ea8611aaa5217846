// Loopback responder: validates an LBM received from the WAN, walks its TLVs
// and answers it with an LBR (the LBM with opcode 2 and swapped addresses),
// counting the reply in the LbrOut of the local MEP it belongs to.
#include "engines/lb_responder.h"

#include <cstdio>
#include <cstring>

#include "core/global.h"
#include "core/frame_type.h"
#include "core/os.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "engines/lb_initiator.h"
#include "engines/lb_pdu.h"
#include "engines/trace.h"
#include "io/frame.h"
#include "io/rx.h"
#include "io/tx.h"

using namespace cfm;

namespace {

constexpr uint8_t kLowestAnsweredLevel = 1;
constexpr uint8_t kHighestAnsweredLevel = 2;
// LBMs on these VIDs are always answered at a level with an MD.
constexpr uint32_t kAlwaysAnsweredVid1 = 101;
constexpr uint32_t kAlwaysAnsweredVid2 = 102;

// Byte of the frame, or 0 beyond the received length: the walk below never
// reads outside the frame, and a missing byte reads like the zero padding of
// a short frame.
uint8_t byte_at(const uint8_t *frame, size_t len, size_t pos) { return pos < len ? frame[pos] : 0; }
uint16_t be16_at(const uint8_t *frame, size_t len, size_t pos) {
  return static_cast<uint16_t>((byte_at(frame, len, pos) << 8) | byte_at(frame, len, pos + 1));
}

bool allowed_tlv(uint8_t type) {
  return type == kTlvSenderId || type == kTlvData || type == kTlvOrgSpecific || type == lb::kTlvType64;
}

// The TLV walk of a received LBM, from `pos` to the end of the frame.
// CFM_OK to answer, CFM_ERR_TLV to drop. While debug is off a TLV longer than
// what remains is let through to the next check, which then drops it.
uint32_t walk_lbm_tlvs(const uint8_t *frame, size_t len, size_t pos) {
  if (pos >= len) {
    if (isCfmDebugOn()) puts("Debug: The length in TLV field > the length of TLV value");
    return CFM_ERR_TLV;
  }
  long remaining = static_cast<long>(len - pos);
  uint8_t type = frame[pos];
  long tlv_len = be16_at(frame, len, pos + 1);
  for (;;) {
    if (type == kTlvEnd) return CFM_OK;
    if (!allowed_tlv(type)) {
      if (isCfmDebugOn()) puts("Debug: unKnown TLV and drop the package ");
      return CFM_ERR_TLV;
    }
    if (isCfmDebugOn()) {
      printf("Debug: buf_ptr[%zu]\n", pos);
      printf("Debug: u2tlvLen=%ld\n", tlv_len);
      printf("Debug: remain_len[%ld]\n", remaining);
    }
    if (remaining < tlv_len + 4 && isCfmDebugOn()) {
      puts("Debug: The length in TLV field > the length of TLV value");
      return CFM_ERR_TLV;
    }
    if (tlv_len + 4 == remaining) {
      if (isCfmDebugOn()) puts("Debug: No more TLV");
      return CFM_OK;
    }
    if (isCfmDebugOn()) puts("Debug: Calcuate next TLV");
    pos += static_cast<size_t>(tlv_len) + kTlvHeaderLen;
    if (tlv_len + 3 >= remaining) {
      printf("Debug: Drop Illegal TLV packet ");
      return CFM_ERR_TLV;
    }
    remaining -= tlv_len + 3;
    type = byte_at(frame, len, pos);
    tlv_len = be16_at(frame, len, pos + 1);
    if (isCfmDebugOn()) {
      printf("Debug: End TLV buf_ptr[frame_idx]=%d\n", type);
      puts("Debug: Copy  All TLV!!");
    }
  }
}

// Counts the reply in LbrOut of the first matching MEP under each MD of the
// level. True when the reply may be sent on the strength of the tables.
bool count_reply(uint8_t level, uint32_t vid, uint32_t port) {
  bool allowed = false;
  MdEntry md = {};
  while (CFM_GetNext_MD_Entry(&md) == 1) {
    if (md.MdLevel != level) continue;
    if (vid == kAlwaysAnsweredVid1 || vid == kAlwaysAnsweredVid2) allowed = true;
    MepEntry mep = {};
    mep.md_id = md.MdIndex;
    mep.vid = static_cast<uint16_t>(vid);
    while (CFM_GetNext_MEP_Entry(&mep) == 1) {
      if (mep.md_id != md.MdIndex && mep.vid != vid) break;
      if (mep.vid != vid || (mep.port != port && mep.direction != CFM_DIRECTION_UP)) continue;
      allowed = true;
      mep.LbrOut += 1;
      CFM_Update_MEP_Entry(&mep);
      break;
    }
  }
  return allowed;
}

}  // namespace

int cfm_check_lbm_group_address(int level, const uint8_t *address) {
  if (level < 0 || level > 7 || address == nullptr) return 0;
  uint8_t group[kMacLen];
  cfm_group_address(kLbmGroupBase, static_cast<uint8_t>(level), group);
  return memcmp(address, group, kMacLen) == 0 ? 1 : 0;
}

void cfm_send_lbr(const uint8_t *lbm, const uint8_t *destination, uint32_t priority, uint32_t vid,
                  uint32_t inner_priority, uint32_t inner_vid, uint8_t level, uint32_t port, uint32_t lbm_length,
                  uint32_t direction) {
  if (isCfmDebugOn()) puts("CFM: Prepare to send LBR");
  auto *buffer = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kTxBufferSize));
  if (buffer == nullptr) {
    printf("\r\nAllocate Buffer for CFM LB Send Frame failed!");
    return;
  }
  memset(buffer, 0, kTxBufferSize);
  const uint8_t *lbm_dst = lbm + wire::kDst;
  const uint8_t *source = mac_is_group(lbm_dst) ? cfm_lb_source_mac() : lbm_dst;
  CfmLbrTags tags = {priority, vid, inner_priority, inner_vid};
  size_t length = cfm_lbr_build(buffer, kTxBufferSize, lbm, lbm_length, destination, source, tags, is8023Frame());

  bool allowed = count_reply(level, vid, port);
  if (!allowed && isCfmEnable() == 1) allowed = true;
  if (allowed && length > 0) {
    uint32_t result = direction == 2 ? CFM_Send_Packet_To_LAN(buffer, static_cast<uint32_t>(length), priority)
                                     : CFM_Send_Packet_To_WAN(buffer, static_cast<uint32_t>(length), priority);
    cfm_tx_report_failure(result, "\r\n Send CFM LB packet failed!!");
  }
  CFM_OS_Deallocate_Memory(buffer);
}

uint32_t CFM_LBM_Process(CfmPacket *packet, uint32_t direction) {
  if (packet == nullptr || packet->buffer == nullptr) return CFM_ERR_FAILURE;
  const uint8_t *frame = packet->buffer;
  size_t len = packet->length;
  const CfmOffsets &off = cfm_offsets();
  if (isCfmDebugOn()) {
    puts("CFM: Run CFM LBM Process");
    printf("Debug: CFM_LBM_Process recevice packet len= %d\n", static_cast<int>(len));
    puts("Debug: CFM_LBM_Process recevice packet =");
    cfm_trace_frame(frame, len);
  }
  // Addresses, the common header and the transaction identifier must all be
  // there before anything is read.
  size_t tlv_start = off.body + lb::kBodyTlvs;
  if (len < tlv_start) return CFM_ERR_FAILURE;
  const uint8_t *dst = frame + wire::kDst;
  const uint8_t *src = frame + wire::kSrc;
  if (mac_is_group(src)) return CFM_ERR_FAILURE;
  if (get_be16(frame + off.ether_type) != kCfmEtherType) return CFM_ERR_FAILURE;

  uint8_t level = cfm_level(frame[off.level_version]);
  uint8_t version = cfm_version(frame[off.level_version]);
  uint8_t opcode = frame[off.opcode];
  uint8_t flags = frame[off.flags];
  uint8_t first_tlv_offset = frame[off.first_tlv_offset];
  if (isCfmDebugOn()) {
    printf("Debug: mdlevel = %d\n", level);
    printf("Debug: correct_LBM = %d\n", 0);
    printf("Debug: version = %d\n", version);
    printf("Debug: opcode = %d\n", opcode);
    printf("Debug: firstTLVOffset = %d\n", first_tlv_offset);
  }
  if (level < kLowestAnsweredLevel || level > kHighestAnsweredLevel) return CFM_ERR_FAILURE;
  if (isCfmDebugOn()) {
    MdEntry md = {};
    while (CFM_GetNext_MD_Entry(&md) == 1) puts("Debug: CFM_GetNext_MD_Entry(&mdEntry) == TRUE");
  }
  if (mac_is_group(dst) && cfm_check_lbm_group_address(level, dst) != 1) return CFM_ERR_FAILURE;
  if (version != 0 || opcode != kOpLbm || flags != 0 || first_tlv_offset < lb::kFirstTlvOffset)
    return CFM_ERR_FAILURE;

  uint32_t walk = walk_lbm_tlvs(frame, len, tlv_start);
  if (walk != CFM_OK) return walk;

  if (isCfmDebugOn()) {
    puts("Debug: Run Step.e");
    puts("Debug: NOT CFM_SUPPORT_MUTIL_MAC");
  }
  cfm_send_lbr(frame, src, packet->priority, packet->vid, packet->inner_priority, packet->inner_vid, level,
               packet->rx_port, static_cast<uint32_t>(len), direction);
  return CFM_OK;
}
