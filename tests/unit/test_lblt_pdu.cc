// Byte-exact checks of the loopback and linktrace PDUs the engines build.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "engines/lb_pdu.h"
#include "engines/lt_pdu.h"
#include "io/rx.h"

namespace {

const uint8_t kPeer[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint8_t kSelf[6] = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};

using Bytes = std::vector<uint8_t>;

TEST(LbmBuild, ExactPduWithAndWithoutData) {
  uint8_t frame[1522];
  size_t len = cfm_lbm_build(frame, sizeof frame, kPeer, kSelf, 5, 0x123, 2, 0x01020304, nullptr, 0);
  Bytes expect = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,  // addresses
                  0x81, 0x00, 0xA1, 0x23,                                                  // tag
                  0x89, 0x02, 0x40, 0x03, 0x00, 0x04,                                      // header
                  0x01, 0x02, 0x03, 0x04,                                                  // transaction id
                  0x01, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00,                                // Sender ID
                  0x1F, 0x00, 0x03, 0x0A, 0x00, 0x00,                                      // Org-specific
                  0x00};
  ASSERT_EQ(len, 40u);
  EXPECT_EQ(Bytes(frame, frame + len), expect);

  len = cfm_lbm_build(frame, sizeof frame, kPeer, kSelf, 7, 101, 1, 0xFFFFFFFF, "abc", 3);
  ASSERT_EQ(len, 46u);
  EXPECT_EQ(frame[14], 0xE0);
  EXPECT_EQ(frame[15], 101);
  EXPECT_EQ(frame[18], 0x20);
  EXPECT_EQ(Bytes(frame + 39, frame + 46), (Bytes{0x03, 0x00, 0x03, 'a', 'b', 'c', 0x00}));
  // Too small a buffer builds nothing.
  EXPECT_EQ(cfm_lbm_build(frame, 45, kPeer, kSelf, 7, 101, 1, 0, "abc", 3), 0u);
}

// An untagged LBM as the receive task hands it over, Ethernet II.
Bytes untagged_lbm() {
  Bytes f = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x31, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x89, 0x02, 0x20, 0x03,
             0x00, 0x04, 0xDE, 0xAD, 0xBE, 0xEF, 0x03, 0x00, 0x02, 'h', 'i', 0x00};
  return f;
}

TEST(LbrBuild, SingleTagReplyIsTheLbmWithOpcode2) {
  Bytes lbm = untagged_lbm();
  uint8_t out[1522];
  CfmLbrTags tags = {3, 0x0FFF, 0, CFM_NO_INNER_VID};
  size_t len = cfm_lbr_build(out, sizeof out, lbm.data(), lbm.size(), kPeer, kSelf, tags, false);
  ASSERT_EQ(len, lbm.size() + 4);
  Bytes expect = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x81, 0x00, 0x6F, 0xFF,
                  0x89, 0x02, 0x20, 0x02, 0x00, 0x04, 0xDE, 0xAD, 0xBE, 0xEF, 0x03, 0x00, 0x02, 'h', 'i', 0x00};
  EXPECT_EQ(Bytes(out, out + len), expect);
}

TEST(LbrBuild, DoubleTagReplyDropsTheLastFourBytes) {
  Bytes lbm = untagged_lbm();
  uint8_t out[1522];
  memset(out, 0x77, sizeof out);
  CfmLbrTags tags = {1, 100, 6, 200};
  size_t len = cfm_lbr_build(out, sizeof out, lbm.data(), lbm.size(), kPeer, kSelf, tags, false);
  ASSERT_EQ(len, lbm.size() + 4);
  Bytes expect = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x81, 0x00, 0x20, 100,
                  0x81, 0x00, 0xC0, 200, 0x89, 0x02, 0x20, 0x02, 0x00, 0x04, 0xDE, 0xAD, 0xBE, 0xEF, 0x03, 0x00};
  EXPECT_EQ(Bytes(out, out + len), expect);
}

TEST(LbrBuild, Frame8023OpcodeAndShortInput) {
  Bytes lbm(40, 0);
  lbm[23] = 3;
  uint8_t out[1522];
  CfmLbrTags tags = {0, 5, 0, CFM_NO_INNER_VID};
  ASSERT_EQ(cfm_lbr_build(out, sizeof out, lbm.data(), lbm.size(), kPeer, kSelf, tags, true), 44u);
  EXPECT_EQ(out[27], 2);
  EXPECT_EQ(out[19], 0);  // the LLC/SNAP bytes are copied, not touched
  EXPECT_EQ(cfm_lbr_build(out, sizeof out, lbm.data(), 14, kPeer, kSelf, tags, false), 0u);
  EXPECT_EQ(cfm_lbr_build(out, 43, lbm.data(), lbm.size(), kPeer, kSelf, tags, false), 0u);
}

TEST(LtmBuild, ExactFiftyBytes) {
  LtmRequest req = {};
  req.md_level = 2;
  req.priority = 7;
  req.vid = 0x1ABC;  // bit 12 leaks into the DEI bit
  req.flags = 1;
  req.trans_id = 0x0A0B0C0D;
  req.ttl = 64;
  memcpy(req.target_mac, kPeer, 6);
  uint8_t frame[64];
  ASSERT_EQ(cfm_ltm_build_with(&req, kSelf, frame), 50u);
  Bytes expect = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3A, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,  // addresses
                  0x81, 0x00, 0xFA, 0xBC, 0x89, 0x02,                                      // tag, EtherType
                  0x40, 0x05, 0x80, 0x11,                                                  // header
                  0x0A, 0x0B, 0x0C, 0x0D, 0x40,                                            // id, TTL
                  0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,                                      // original MAC
                  0x02, 0x11, 0x22, 0x33, 0x44, 0x55,                                      // target MAC
                  0x07, 0x00, 0x08, 0x1A, 0xBC, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};       // egress id
  EXPECT_EQ(Bytes(frame, frame + 50), expect);
  req.flags = 0;
  req.md_level = 7;
  cfm_ltm_build_with(&req, kSelf, frame);
  EXPECT_EQ(frame[5], 0x3F);
  EXPECT_EQ(frame[18], 0xE0);
  EXPECT_EQ(frame[20], 0x00);
}

TEST(LtrBuild, AnswersAnLtmWithEveryField) {
  // Untagged LTM from the peer at level 5, useFDBonly and an unknown flag set.
  Bytes ltm = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3D, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x89, 0x02, 0xA0, 0x05,
               0x81, 0x11, 0x00, 0x00, 0x00, 0x09, 0x10, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x02, 0xAA, 0xBB,
               0xCC, 0xDD, 0xEE, 0x07, 0x00, 0x08, 0x00, 0x64, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00};
  uint8_t out[128];
  CfmLtrReply reply = {ltm.data(), ltm.size(), ltm.data() + 38, 4, 100, kSelf};
  size_t len = cfm_ltr_build(out, sizeof out, reply, false);
  Bytes expect = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,  // addresses
                  0x81, 0x00, 0x80, 0x64, 0x89, 0x02,                                      // tag, EtherType
                  0xA0, 0x04, 0xA0, 0x06,                                                  // header
                  0x00, 0x00, 0x00, 0x09, 0x0F, 0x01,                                      // id, TTL, Hit
                  0x08, 0x00, 0x10, 0x00, 0x64, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55,        // last egress
                  0x00, 0x64, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,                          // next egress
                  0x05, 0x00, 0x07, 0x01, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,              // reply ingress
                  0x00};
  EXPECT_EQ(Bytes(out, out + len), expect);
  EXPECT_EQ(cfm_ltr_build(out, 57, reply, false), 0u);
}

}  // namespace
