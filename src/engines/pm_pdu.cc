#include "engines/pm_pdu.h"

#include <cstring>
#include <ctime>

#include "io/rx.h"

using namespace cfm;

CfmStamp cfm_stamp_now() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return {static_cast<uint32_t>(ts.tv_sec), static_cast<uint32_t>(ts.tv_nsec)};
}

void cfm_stamp_put(uint8_t *p, CfmStamp s) {
  put_be32(p, s.sec);
  put_be32(p + 4, s.nsec);
}

CfmStamp cfm_stamp_get(const uint8_t *p) { return {get_be32(p), get_be32(p + 4)}; }

int64_t cfm_stamp_diff_ns(CfmStamp a, CfmStamp b) {
  return (static_cast<int64_t>(a.sec) - static_cast<int64_t>(b.sec)) * 1000000000LL +
         (static_cast<int64_t>(a.nsec) - static_cast<int64_t>(b.nsec));
}

bool cfm_pm_frame_ok(const uint8_t *frame, size_t len, const CfmOffsets &off, uint8_t opcode,
                     uint8_t first_tlv_offset, uint8_t max_version) {
  if (frame == nullptr || len < off.body) return false;
  if (get_be16(frame + off.ether_type) != kCfmEtherType) return false;
  if (cfm_version(frame[off.level_version]) > max_version) return false;
  if (frame[off.opcode] != opcode || frame[off.flags] != 0) return false;
  if (frame[off.first_tlv_offset] != first_tlv_offset) return false;
  size_t pos = off.body + first_tlv_offset;
  CfmTlv tlv;
  while (cfm_tlv_read(frame, len, pos, &tlv, &pos)) {
    if (tlv.type == kTlvEnd) return true;
  }
  return false;
}

size_t cfm_pm_reply_build(uint8_t *out, size_t cap, const uint8_t *req, size_t req_len, const uint8_t *dst,
                          const uint8_t *src, const CfmLbrTags &tags, const CfmOffsets &off, uint8_t opcode,
                          size_t *body_at) {
  bool double_tag = tags.inner_vid != CFM_NO_INNER_VID;
  size_t tag_bytes = double_tag ? 2 * kTagLen : kTagLen;
  if (req == nullptr || req_len <= off.body || req_len + tag_bytes > cap) return 0;
  memcpy(out + wire::kDst, dst, kMacLen);
  memcpy(out + wire::kSrc, src, kMacLen);
  size_t at = wire::kTpid;
  put_be16(out + at, kTpid8021Q);
  out[at + 2] = tci_high(static_cast<uint8_t>(tags.priority), static_cast<uint16_t>(tags.vid));
  out[at + 3] = tci_low(static_cast<uint16_t>(tags.vid));
  at += kTagLen;
  if (double_tag) {
    put_be16(out + at, kTpid8021Q);
    out[at + 2] = tci_high(static_cast<uint8_t>(tags.inner_priority), static_cast<uint16_t>(tags.inner_vid));
    out[at + 3] = tci_low(static_cast<uint16_t>(tags.inner_vid));
    at += kTagLen;
  }
  memcpy(out + at, req + wire::kTpid, req_len - wire::kTpid);
  out[off.opcode + tag_bytes] = opcode;
  if (body_at != nullptr) *body_at = off.body + tag_bytes;
  return req_len + tag_bytes;
}

size_t cfm_pm_request_build(uint8_t *frame, size_t cap, const uint8_t *dst, const uint8_t *src, uint8_t priority,
                            uint16_t vid, uint8_t level, uint8_t opcode, uint8_t first_tlv_offset) {
  size_t len = pm_request_len(first_tlv_offset);
  if (frame == nullptr || cap < len) return 0;
  memset(frame, 0, len);
  memcpy(frame + wire::kDst, dst, kMacLen);
  memcpy(frame + wire::kSrc, src, kMacLen);
  put_be16(frame + wire::kTpid, kTpid8021Q);
  frame[wire::kTci] = tci_high(priority, vid);
  frame[wire::kTci + 1] = tci_low(vid);
  put_be16(frame + wire::kSingleTagEtherType, kCfmEtherType);
  frame[wire::kSingleTagEtherType + 2] = cfm_level_version(level);
  frame[wire::kSingleTagOpcode] = opcode;
  frame[wire::kSingleTagOpcode + 2] = first_tlv_offset;
  return len;  // the body is zero and the End TLV (0) closes the frame
}
