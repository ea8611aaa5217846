#include "engines/lb_pdu.h"

#include <cstring>

#include "io/frame.h"
#include "io/rx.h"

using namespace cfm;

namespace {

// Addresses and one tag: the first 16 bytes of every frame built here.
void put_head(uint8_t *frame, const uint8_t *dst, const uint8_t *src, uint8_t priority, uint16_t vid) {
  memcpy(frame + wire::kDst, dst, kMacLen);
  memcpy(frame + wire::kSrc, src, kMacLen);
  put_be16(frame + wire::kTpid, kTpid8021Q);
  frame[wire::kTci] = tci_high(priority, vid);
  frame[wire::kTci + 1] = tci_low(vid);
}

}  // namespace

size_t cfm_lbm_build(uint8_t *frame, size_t cap, const uint8_t *dst, const uint8_t *src, uint8_t priority,
                     uint16_t vid, uint8_t level, uint32_t trans_id, const char *data, size_t data_len) {
  size_t length = data_len > 0 ? lb::frame_len_with_data(data_len) : lb::kFrameLenNoData;
  if (frame == nullptr || length > cap || (data_len > 0 && data == nullptr) || data_len > 0xFFFF) return 0;
  memset(frame, 0, length);
  put_head(frame, dst, src, priority, vid);
  put_be16(frame + wire::kSingleTagEtherType, kCfmEtherType);
  frame[wire::kSingleTagEtherType + 2] = cfm_level_version(level);
  frame[wire::kSingleTagOpcode] = kOpLbm;
  frame[wire::kSingleTagOpcode + 1] = 0;  // flags
  frame[wire::kSingleTagOpcode + 2] = lb::kFirstTlvOffset;
  put_be32(frame + lb::kTransId, trans_id);

  frame[lb::kSenderIdTlv] = kTlvSenderId;
  put_be16(frame + lb::kSenderIdTlv + 1, lb::kSenderIdLen);  // four zero bytes follow
  frame[lb::kOrgTlv] = kTlvOrgSpecific;
  put_be16(frame + lb::kOrgTlv + 1, lb::kOrgLen);
  memcpy(frame + lb::kOrgTlv + kTlvHeaderLen, lb::kOrgValue, lb::kOrgLen);
  if (data_len > 0) {
    frame[lb::kDataTlv] = kTlvData;
    put_be16(frame + lb::kDataTlv + 1, static_cast<uint16_t>(data_len));
    memcpy(frame + lb::kDataTlv + kTlvHeaderLen, data, data_len);
  }
  frame[length - 1] = kTlvEnd;
  return length;
}

size_t cfm_lbr_build(uint8_t *out, size_t cap, const uint8_t *lbm, size_t lbm_len, const uint8_t *dst,
                     const uint8_t *src, const CfmLbrTags &tags, bool frame_8023) {
  size_t length = lbm_len + kTagLen;
  if (out == nullptr || lbm == nullptr || lbm_len < kEthOffsets.level_version + 1 || length > cap) return 0;
  memset(out, 0, length);
  put_head(out, dst, src, static_cast<uint8_t>(tags.priority), static_cast<uint16_t>(tags.vid));
  if (tags.inner_vid == CFM_NO_INNER_VID) {
    // The LBM from its EtherType (or 802.3 length) on, behind one tag.
    memcpy(out + wire::kSingleTagPayload, lbm + kEthOffsets.ether_type, lbm_len - kEthOffsets.ether_type);
    size_t opcode = frame_8023 ? lb::kReplySingleTagOpcode8023 : lb::kReplySingleTagOpcode;
    if (opcode < length) out[opcode] = kOpLbr;
    return length;
  }
  // Double tag: EtherType and level/version, opcode 2, then the LBM from its
  // byte 16; the length is not raised for the second tag.
  put_be16(out + wire::kInnerTpid, kTpid8021Q);
  out[wire::kInnerTci] = tci_high(static_cast<uint8_t>(tags.inner_priority), static_cast<uint16_t>(tags.inner_vid));
  out[wire::kInnerTci + 1] = tci_low(static_cast<uint16_t>(tags.inner_vid));
  memcpy(out + wire::kDoubleTagPayload, lbm + kEthOffsets.ether_type, 3);
  out[lb::kReplyDoubleTagOpcode] = kOpLbr;
  size_t rest_from = kEthOffsets.flags;  // LBM byte 16
  if (length > lb::kReplyDoubleTagRest && lbm_len > rest_from) {
    size_t n = length - lb::kReplyDoubleTagRest;
    if (n > lbm_len - rest_from) n = lbm_len - rest_from;
    memcpy(out + lb::kReplyDoubleTagRest, lbm + rest_from, n);
  }
  return length;
}
