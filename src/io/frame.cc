#include "io/frame.h"

#include "core/frame_type.h"

bool cfm_is_vlan_tpid(uint8_t b0, uint8_t b1) { return b0 == 0x81 && b1 == 0x00; }

bool cfm_is_cfm_ethertype(uint8_t b0, uint8_t b1) { return b0 == 0x89 && b1 == 0x02; }

namespace cfm {

const CfmOffsets &cfm_offsets() { return is8023Frame() ? k8023Offsets : kEthOffsets; }

bool cfm_tlv_read(const uint8_t *frame, size_t len, size_t pos, CfmTlv *tlv, size_t *next) {
  if (frame == nullptr || tlv == nullptr || pos >= len) return false;
  if (frame[pos] == kTlvEnd) {
    *tlv = {kTlvEnd, 0, nullptr, pos};
    if (next != nullptr) *next = pos + 1;
    return true;
  }
  if (len - pos < kTlvHeaderLen) return false;
  uint16_t length = get_be16(frame + pos + 1);
  size_t value_at = pos + kTlvHeaderLen;
  if (length > len - value_at) return false;
  *tlv = {frame[pos], length, frame + value_at, pos};
  if (next != nullptr) *next = value_at + length;
  return true;
}

}  // namespace cfm
