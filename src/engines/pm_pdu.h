// Performance-monitoring PDUs: delay measurement (DMM, DMR, 1DM) and
// synthetic loss measurement (SLM, SLR). Byte work only: layouts, the
// header check shared by the receive side, timestamps, and the builders of
// requests and replies. No tables, no sending.
#pragma once
#include <cstddef>
#include <cstdint>

#include "engines/lb_pdu.h"
#include "io/frame.h"

namespace cfm {

constexpr uint8_t kOp1Dm = 45;
constexpr uint8_t kOpDmr = 46;
constexpr uint8_t kOpDmm = 47;
constexpr uint8_t kOpSlr = 54;
constexpr uint8_t kOpSlm = 55;

// Timestamps: 32-bit seconds and 32-bit nanoseconds, big-endian.
constexpr size_t kStampLen = 8;

namespace dm {
// Offsets in the body (after the common header).
constexpr size_t kTxStampF = 0;
constexpr size_t kRxStampF = 8;
constexpr size_t kTxStampB = 16;
constexpr size_t kRxStampB = 24;  // for the initiator's own use
constexpr uint8_t kFirstTlvOffset = 32;
constexpr uint8_t kFirstTlvOffset1Dm = 16;  // 1DM: TxTimeStampf, reserved RxTimeStampf
static_assert(kRxStampB + kStampLen == kFirstTlvOffset);
static_assert(kRxStampF + kStampLen == kFirstTlvOffset1Dm);
// DM senders of the older revision use version 1; it is echoed.
constexpr uint8_t kHighestVersion = 1;
}  // namespace dm

namespace slm {
constexpr size_t kSrcMepId = 0;
constexpr size_t kRspMepId = 2;
constexpr size_t kTestId = 4;
constexpr size_t kTxFcf = 8;
constexpr size_t kTxFcb = 12;
constexpr uint8_t kFirstTlvOffset = 16;
static_assert(kTxFcb + 4 == kFirstTlvOffset);
}  // namespace slm

// Requests as the initiators send them: one tag, Ethernet II, the body, then
// the End TLV.
inline constexpr size_t pm_request_len(uint8_t first_tlv_offset) { return kTaggedBody + first_tlv_offset + 1; }
static_assert(pm_request_len(dm::kFirstTlvOffset) == 55);
static_assert(pm_request_len(slm::kFirstTlvOffset) == 39);

}  // namespace cfm

struct CfmStamp {
  uint32_t sec;
  uint32_t nsec;
};
CfmStamp cfm_stamp_now();  // real-time clock
void cfm_stamp_put(uint8_t *p, CfmStamp s);
CfmStamp cfm_stamp_get(const uint8_t *p);
// a - b in nanoseconds.
int64_t cfm_stamp_diff_ns(CfmStamp a, CfmStamp b);

// Checks the common header and TLVs of an untagged PM frame of len bytes:
// EtherType, opcode, version (0, or up to max_version), flags 0, the first
// TLV offset exactly as given, and a TLV walk that stays inside the frame
// and ends with an End TLV. True when the frame may be used.
bool cfm_pm_frame_ok(const uint8_t *frame, size_t len, const cfm::CfmOffsets &off, uint8_t opcode,
                     uint8_t first_tlv_offset, uint8_t max_version);

// Builds the reply to an untagged request: the request re-tagged with the
// received tag(s), addresses dst and src, the opcode byte set to `opcode`,
// nothing cut. Returns the reply length and, in *body_at, where the body
// starts in the reply; 0 when it does not fit in cap.
size_t cfm_pm_reply_build(uint8_t *out, size_t cap, const uint8_t *req, size_t req_len, const uint8_t *dst,
                          const uint8_t *src, const CfmLbrTags &tags, const cfm::CfmOffsets &off, uint8_t opcode,
                          size_t *body_at);

// Builds a request (one tag, Ethernet II) with a zero body of the first TLV
// offset's size and the End TLV. Returns its length, 0 if cap is too small.
size_t cfm_pm_request_build(uint8_t *frame, size_t cap, const uint8_t *dst, const uint8_t *src, uint8_t priority,
                            uint16_t vid, uint8_t level, uint8_t opcode, uint8_t first_tlv_offset);
