// Loopback PDUs: the LBM as the initiator sends it and the LBR that the
// responder builds from a received LBM. Byte work only: no tables, no sending.
#pragma once
#include <cstddef>
#include <cstdint>

#include "io/frame.h"

namespace cfm {
// LBM and LBR (identical bodies; the LBR is the LBM with opcode 2).
namespace lb {
constexpr size_t kBodyTransId = 0;
constexpr size_t kBodyTlvs = 4;
constexpr uint8_t kFirstTlvOffset = 4;  // as sent; at least this on reception
static_assert(kBodyTlvs == kFirstTlvOffset);
// The LBM as the initiator sends it (tagged offsets).
constexpr size_t kTransId = kTaggedBody + kBodyTransId;  // 22
constexpr size_t kSenderIdTlv = kTaggedBody + kBodyTlvs;  // 26
constexpr size_t kSenderIdLen = 4;
constexpr size_t kOrgTlv = kSenderIdTlv + kTlvHeaderLen + kSenderIdLen;  // 33
constexpr size_t kOrgLen = 3;
constexpr uint8_t kOrgValue[kOrgLen] = {0x0A, 0x00, 0x00};
constexpr size_t kDataTlv = kOrgTlv + kTlvHeaderLen + kOrgLen;  // 39
constexpr size_t kFrameLenNoData = kDataTlv + 1;                // End TLV only: 40
static_assert(kTransId == 22 && kSenderIdTlv == 26 && kOrgTlv == 33 && kDataTlv == 39);
static_assert(kFrameLenNoData == 40);
inline constexpr size_t frame_len_with_data(size_t data_len) { return kDataTlv + kTlvHeaderLen + data_len + 1; }
static_assert(frame_len_with_data(0) == 43);
// TLV types an LBM may carry; anything else drops it.
constexpr uint8_t kTlvType64 = 64;
// LBR replies built from a received LBM.
constexpr size_t kReplySingleTagOpcode = wire::kSingleTagOpcode;       // 19
constexpr size_t kReplySingleTagOpcode8023 = wire::kSingleTagOpcode8023;  // 27
constexpr size_t kReplyDoubleTagOpcode = wire::kDoubleTagOpcode;          // 23
constexpr size_t kReplyDoubleTagRest = 24;  // LBM byte 16 onward lands here
static_assert(kEthOffsets.opcode + kTagLen == kReplySingleTagOpcode);
static_assert(k8023Offsets.opcode + kTagLen == kReplySingleTagOpcode8023);
}  // namespace lb

}  // namespace cfm

// Builds an LBM (one tag, Ethernet II) into frame (cap bytes). The Data TLV
// is present only when data_len > 0. Returns the frame length, 0 if it does
// not fit.
size_t cfm_lbm_build(uint8_t *frame, size_t cap, const uint8_t *dst, const uint8_t *src, uint8_t priority,
                     uint16_t vid, uint8_t level, uint32_t trans_id, const char *data, size_t data_len);

// Tags of the reply: the received LBM's priority and VID, inner ones too for
// a double-tagged LBM (inner_vid 0xFFFFFFFF for a single tag).
struct CfmLbrTags {
  uint32_t priority;
  uint32_t vid;
  uint32_t inner_priority;
  uint32_t inner_vid;
};

// Builds the LBR for an untagged LBM of lbm_len bytes: the LBM re-tagged, its
// opcode set to 2, with dst and src as addresses. A double-tagged reply keeps
// the length lbm_len + 4, so its last 4 bytes are not sent. Returns the reply
// length, 0 if the LBM is shorter than its addresses and EtherType or the
// reply does not fit in cap.
size_t cfm_lbr_build(uint8_t *out, size_t cap, const uint8_t *lbm, size_t lbm_len, const uint8_t *dst,
                     const uint8_t *src, const CfmLbrTags &tags, bool frame_8023);
