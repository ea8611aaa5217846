// Linktrace receive side: answers an LTM aimed at this router with one LTR,
// lets LTMs of the upper levels cross to the LAN when no local MEP claims
// them, and records the LTRs that answer the local MEPs' LTMs.
#include "engines/lt_receiver.h"

#include <cstdio>
#include <cstring>

#include "core/frame_type.h"
#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "db/ltr_db.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "engines/lb_initiator.h"
#include "engines/lt_initiator.h"
#include "engines/lt_pdu.h"
#include "engines/trace.h"
#include "io/frame.h"
#include "io/rx.h"
#include "io/tx.h"

using namespace cfm;

namespace {

// LTMs of these levels cross the router when no local MEP takes them.
constexpr uint8_t kLowestRelayedLevel = 3;
constexpr size_t kPortIdCut = 3;

void trace(const char *text) {
  if (isCfmDebugOn()) puts(text);
}

// The local MEP that receives a frame of this level and VLAN: the first one
// found under the MDs of the level, in MD order.
bool find_receiving_mep(uint8_t level, uint32_t vid, uint32_t port, MepEntry *mep) {
  MdEntry md = {};
  while (CFM_GetNext_MD_Entry(&md) == 1) {
    if (md.MdLevel == level && cfm_find_mep_in_md(md.MdIndex, vid, port, mep)) return true;
  }
  return false;
}

// What the TLV walk of an LTM or LTR collected.
struct FoundTlvs {
  const uint8_t *ltm_egress;  // LTM Egress Identifier value (8 bytes)
  const uint8_t *ltr_egress;  // LTR Egress Identifier value (16 bytes)
  const uint8_t *ingress;     // Reply Ingress value
  size_t ingress_len;
  const uint8_t *egress;      // Reply Egress value
  size_t egress_len;
};

// Walks the TLVs from `pos` up to the End TLV (or the end of the frame).
// False when a TLV does not lie inside the frame or is too short for its
// type.
bool walk_tlvs(const uint8_t *frame, size_t len, size_t pos, FoundTlvs *found) {
  *found = {};
  while (pos < len) {
    CfmTlv tlv;
    size_t next = 0;
    if (!cfm_tlv_read(frame, len, pos, &tlv, &next)) return false;
    switch (tlv.type) {
      case kTlvEnd:
        return true;
      case kTlvLtmEgressId:
        if (tlv.length < ltm::kEgressIdLen) return false;
        if (found->ltm_egress == nullptr) found->ltm_egress = tlv.value;
        break;
      case kTlvLtrEgressId:
        if (tlv.length < ltr::kEgressTlvLen) return false;
        if (found->ltr_egress == nullptr) found->ltr_egress = tlv.value;
        break;
      case kTlvReplyIngress:
        if (tlv.length < ltr::kReplyTlvMinLen) return false;
        if (found->ingress == nullptr) {
          found->ingress = tlv.value;
          found->ingress_len = tlv.length;
        }
        break;
      case kTlvReplyEgress:
        if (tlv.length < ltr::kReplyTlvMinLen) return false;
        if (found->egress == nullptr) {
          found->egress = tlv.value;
          found->egress_len = tlv.length;
        }
        break;
      default:
        break;
    }
    pos = next;
  }
  return true;
}

// Common header checks of a received LTM or LTR; true when the fixed
// fields (body_len bytes of body) lie inside the frame.
bool header_ok(const uint8_t *frame, size_t len, const CfmOffsets &off, uint8_t opcode, uint8_t min_first_tlv,
               size_t body_len) {
  if (len < off.body + body_len) return false;
  return get_be16(frame + off.ether_type) == kCfmEtherType && cfm_version(frame[off.level_version]) == 0 &&
         frame[off.opcode] == opcode && frame[off.first_tlv_offset] >= min_first_tlv;
}

uint32_t relay_to_lan(const CfmPacket &packet) {
  size_t tags = packet.inner_vid == CFM_NO_INNER_VID ? 1 : 2;
  size_t length = packet.length + tags * kTagLen;
  if (packet.length < wire::kTpid || length > kTxBufferSize) return CFM_ERR_FAILURE;
  auto *buffer = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kTxBufferSize));
  if (buffer == nullptr) return CFM_ERR_FAILURE;
  memcpy(buffer, packet.buffer, wire::kTpid);
  put_be16(buffer + wire::kTpid, kTpid8021Q);
  buffer[wire::kTci] = tci_high(static_cast<uint8_t>(packet.priority), static_cast<uint16_t>(packet.vid));
  buffer[wire::kTci + 1] = tci_low(static_cast<uint16_t>(packet.vid));
  size_t rest = wire::kSingleTagPayload;
  if (tags == 2) {
    put_be16(buffer + wire::kInnerTpid, kTpid8021Q);
    buffer[wire::kInnerTci] =
        tci_high(static_cast<uint8_t>(packet.inner_priority), static_cast<uint16_t>(packet.inner_vid));
    buffer[wire::kInnerTci + 1] = tci_low(static_cast<uint16_t>(packet.inner_vid));
    rest = wire::kDoubleTagPayload;
  }
  memcpy(buffer + rest, packet.buffer + wire::kTpid, packet.length - wire::kTpid);
  uint32_t result = CFM_Send_Packet_To_LAN(buffer, static_cast<uint32_t>(length), packet.priority);
  CFM_OS_Deallocate_Memory(buffer);
  trace(result == CFM_OK ? "CFM: Forward the LTM to LAN" : "CFM: Forward the LTM to LAN failed");
  return result;
}

uint32_t send_ltr(const CfmPacket &packet, const uint8_t *ltm_egress_id) {
  auto *buffer = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kTxBufferSize));
  if (buffer == nullptr) {
    printf("\r\n CFM_LTM_Process: Allocate memory buffer failed!!");
    return CFM_ERR_FAILURE;
  }
  CfmLtrReply reply = {packet.buffer, packet.length, ltm_egress_id, packet.priority,
                       static_cast<uint16_t>(packet.vid), cfm_lt_system_mac()};
  size_t length = cfm_ltr_build(buffer, kTxBufferSize, reply, is8023Frame());
  trace("CFM: Prepare to send LTR");
  uint32_t result =
      length > 0 ? CFM_Send_Packet_To_WAN(buffer, static_cast<uint32_t>(length), packet.priority) : CFM_ERR_FAILURE;
  CFM_OS_Deallocate_Memory(buffer);
  cfm_tx_report_failure(result, "\r\n Send CFM LTR packet failed!!");
  return result;
}

// Port ID of a Reply Ingress/Egress TLV value, cut to 3 characters.
void copy_port_id(const uint8_t *value, size_t value_len, char *out) {
  memset(out, 0, kPortIdCut + 1);
  if (value == nullptr || value_len <= ltr::kReplyTlvPortIdLen) return;
  size_t id_len = value[ltr::kReplyTlvPortIdLen];
  if (value_len <= ltr::kReplyTlvPortId) return;
  size_t available = value_len - ltr::kReplyTlvPortId;
  size_t n = id_len < available ? id_len : available;
  if (n > kPortIdCut) n = kPortIdCut;
  memcpy(out, value + ltr::kReplyTlvPortId, n);
}

bool ltr_expected(const LtrEntry &key) {
  LtrEntry probe = key;
  probe.ReplyNumber = 0;
  if (CFM_DB_Get_LtrEntry(&probe) == CFM_DB_FOUND) return true;
  probe = key;
  probe.ReplyNumber = 0;
  if (CFM_DB_GetNext_LtrEntry(&probe) != CFM_DB_FOUND) return false;
  return probe.md_id == key.md_id && probe.ma_id == key.ma_id && probe.mep_id == key.mep_id &&
         probe.sequence == key.sequence;
}

}  // namespace

uint32_t CFM_LTM_Process(CfmPacket *packet, uint32_t from_wan) {
  trace("CFM: Run CFM LTM Process");
  if (packet == nullptr || packet->buffer == nullptr) return CFM_ERR_FAILURE;
  const uint8_t *frame = packet->buffer;
  size_t len = packet->length;
  if (isCfmDebugOn()) {
    printf("Debug: CFM_LTM_Process recevice packet len= %d\n", static_cast<int>(len));
    cfm_trace_frame(frame, len);
  }
  const CfmOffsets &off = cfm_offsets();
  if (!header_ok(frame, len, off, kOpLtm, ltm::kFirstTlvOffset, ltm::kBodyTlvs)) {
    trace("CFM: Drop the LTM because of its header");
    return CFM_ERR_FAILURE;
  }
  uint8_t level = cfm_level(frame[off.level_version]);
  const uint8_t *body = frame + off.body;
  uint8_t group[kMacLen];
  cfm_group_address(kLtmGroupBase, level, group);
  const uint8_t *dst = frame + wire::kDst;
  if (mac_is_group(body + ltm::kBodyOrigMac) ||
      (memcmp(dst, group, kMacLen) != 0 && memcmp(dst, cfm_lt_system_mac(), kMacLen) != 0)) {
    trace("CFM: Drop the LTM because of its addresses");
    return CFM_ERR_FAILURE;
  }
  FoundTlvs tlvs;
  size_t first_tlv = off.first_tlv_offset + 1 + frame[off.first_tlv_offset];
  if (!walk_tlvs(frame, len, first_tlv, &tlvs) || tlvs.ltm_egress == nullptr) {
    trace("CFM: Drop the LTM because of its TLVs");
    return CFM_ERR_FAILURE;
  }
  if (isCfmDebugOn()) printf("CFM: LTM mdlevel=%d ttl=%d\n", level, body[ltm::kBodyTtl]);

  MepEntry mep = {};
  if (!find_receiving_mep(level, packet->vid, from_wan, &mep)) {
    if (level >= kLowestRelayedLevel) return relay_to_lan(*packet);
    trace("CFM: Drop the LTM because no MEP of its level");
    return CFM_ERR_FAILURE;
  }
  if (body[ltm::kBodyTtl] == 0) {
    trace("CFM: Drop the LTM because TTL=0");
    return CFM_ERR_FAILURE;
  }
  if (memcmp(body + ltm::kBodyTargetMac, cfm_lt_system_mac(), kMacLen) != 0) {
    trace("CFM: The LTM ends at this MEP");
    return CFM_OK;
  }
  return send_ltr(*packet, tlvs.ltm_egress);
}

uint32_t CFM_LTR_Process(CfmPacket *packet) {
  trace("CFM: Run CFM LTR Process");
  if (packet == nullptr || packet->buffer == nullptr) return CFM_ERR_FAILURE;
  const uint8_t *frame = packet->buffer;
  size_t len = packet->length;
  if (isCfmDebugOn()) {
    printf("Debug: CFM_LTR_Process recevice packet len= %d\n", static_cast<int>(len));
    cfm_trace_frame(frame, len);
  }
  const CfmOffsets &off = cfm_offsets();
  if (len < wire::kTpid || memcmp(frame + wire::kDst, cfm_lt_system_mac(), kMacLen) != 0 ||
      mac_is_group(frame + wire::kSrc) || !header_ok(frame, len, off, kOpLtr, ltr::kFirstTlvOffset, ltr::kBodyTlvs)) {
    trace("CFM: Drop the LTR because of its header");
    return CFM_ERR_FAILURE;
  }
  FoundTlvs tlvs;
  size_t first_tlv = off.first_tlv_offset + 1 + frame[off.first_tlv_offset];
  if (!walk_tlvs(frame, len, first_tlv, &tlvs)) {
    trace("CFM: Drop the LTR because of its TLVs");
    return CFM_ERR_FAILURE;
  }
  uint8_t level = cfm_level(frame[off.level_version]);
  MepEntry mep = {};
  if (!find_receiving_mep(level, packet->vid, packet->rx_port, &mep)) {
    trace("CFM: Drop the LTR because no MEP of its level");
    return CFM_ERR_FAILURE;
  }
  const uint8_t *body = frame + off.body;
  LtrEntry entry = {};
  entry.md_id = mep.md_id;
  entry.ma_id = mep.ma_id;
  entry.mep_id = mep.mep_id;
  entry.sequence = get_be32(body + ltr::kBodyTransId);
  if (!ltr_expected(entry)) {
    trace("CFM: Unexpected LTR");
    mep.UnexpectedLtrIn += 1;
    CFM_Update_MEP_Entry(&mep);
    return CFM_ERR_FAILURE;
  }
  uint8_t flags = frame[off.flags];
  entry.relay = body[ltr::kBodyRelayAction];
  entry.ReplyNumber = entry.relay == ltr::kRelayHit ? 0 : cfm_lt_next_reply_number(entry.sequence);
  entry.ttl = body[ltr::kBodyReplyTtl];
  entry.forward = (flags & ltr::kFlagFwdYes) != 0 ? 1 : 0;
  entry.terminal = (flags & ltr::kFlagTerminalMep) != 0 ? 1 : 0;
  if (tlvs.ltr_egress != nullptr) {
    memcpy(entry.LastEgressId, tlvs.ltr_egress, ltm::kEgressIdLen);
    memcpy(entry.NextEgressId, tlvs.ltr_egress + ltm::kEgressIdLen, ltm::kEgressIdLen);
  }
  if (tlvs.ingress != nullptr) {
    entry.ReplyIngressAction = tlvs.ingress[ltr::kReplyTlvAction];
    memcpy(entry.ReplyIngressMac, tlvs.ingress + ltr::kReplyTlvMac, kMacLen);
    copy_port_id(tlvs.ingress, tlvs.ingress_len, entry.ReplyIngressPort);
  }
  if (tlvs.egress != nullptr) {
    entry.ReplyEgressAction = tlvs.egress[ltr::kReplyTlvAction];
    memcpy(entry.ReplyEgressMac, tlvs.egress + ltr::kReplyTlvMac, kMacLen);
    copy_port_id(tlvs.egress, tlvs.egress_len, entry.ReplyEgressPort);
  }
  memcpy(entry.mac, frame + wire::kSrc, kMacLen);
  CFM_DB_Update_LtrEntry_Make_Room(&entry);
  trace("CFM: Store the LTR");
  return CFM_OK;
}
