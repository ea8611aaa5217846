// The bounded TLV reader every engine walks frames with.
#include "io/frame.h"

#include <gtest/gtest.h>

#include <vector>


namespace {

TEST(Frame, TlvWalkStaysInsideTheFrame) {
  // Data TLV (3 bytes of value), Sender ID TLV (1 byte), End TLV.
  const std::vector<uint8_t> tlvs = {3, 0, 3, 'a', 'b', 'c', 1, 0, 1, 9, 0};
  struct Step { uint8_t type; uint16_t length; const uint8_t *value; size_t next; } steps[] = {
      {3, 3, tlvs.data() + 3, 6}, {1, 1, tlvs.data() + 9, 10}, {0, 0, nullptr, 11}};
  CfmTlv tlv;
  size_t next = 0;
  for (const Step &s : steps) {
    ASSERT_TRUE(cfm_tlv_read(tlvs.data(), tlvs.size(), next, &tlv, &next));
    EXPECT_EQ(tlv.type, s.type);
    EXPECT_EQ(tlv.length, s.length);
    EXPECT_EQ(tlv.value, s.value);
    EXPECT_EQ(next, s.next);
  }
  EXPECT_FALSE(cfm_tlv_read(tlvs.data(), tlvs.size(), next, &tlv, &next));

  // Every cut of the buffer: a TLV is returned only when it lies wholly
  // inside the given length.
  for (size_t len = 0; len <= tlvs.size(); ++len) {
    std::vector<uint8_t> cut(tlvs.begin(), tlvs.begin() + len);
    for (size_t pos = 0; cfm_tlv_read(cut.data(), cut.size(), pos, &tlv, &next); pos = next) {
      ASSERT_LE(next, len);
      if (tlv.type != 0) {
        ASSERT_LE(static_cast<size_t>(tlv.value - cut.data()) + tlv.length, len);
      }
    }
  }

  // A length past the frame by one byte and by a lot, a bare header, a start
  // past the end, no buffer: refused, the record untouched.
  const uint8_t over[] = {3, 0, 4, 1, 2, 3}, huge[] = {3, 0xFF, 0xFF, 1}, header_only[] = {3, 0};
  tlv = {7, 7, nullptr, 7};
  EXPECT_FALSE(cfm_tlv_read(over, sizeof over, 0, &tlv, &next));
  EXPECT_FALSE(cfm_tlv_read(huge, sizeof huge, 0, &tlv, &next));
  EXPECT_FALSE(cfm_tlv_read(header_only, sizeof header_only, 0, &tlv, &next));
  EXPECT_FALSE(cfm_tlv_read(over, sizeof over, 100, &tlv, &next));
  EXPECT_FALSE(cfm_tlv_read(nullptr, 10, 0, &tlv, &next));
  EXPECT_EQ(tlv.type, 7);
  EXPECT_EQ(tlv.offset, 7u);
}

}  // namespace
