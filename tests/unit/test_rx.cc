// Receive path: classification of WAN frames, relaying, the untagged copy,
// dispatch only while CFM is enabled, draining in order, the LAN rule.
#include <deque>

#include "harness.h"
#include "core/frame_type.h"

using namespace harness;

namespace {

std::deque<Bytes> g_queue;
long queued_source(uint8_t *buf, size_t cap) {
  if (g_queue.empty()) return -1;
  size_t n = std::min(g_queue.front().size(), cap);
  memcpy(buf, g_queue.front().data(), n);
  g_queue.pop_front();
  return static_cast<long>(n);
}

Bytes double_tagged(uint8_t opcode, uint16_t outer, uint8_t level = 5) {
  PeerCcm ccm;
  ccm.level = level;
  Bytes f = ccm.tagged(outer, 3);
  f.insert(f.begin() + 16, {0x81, 0x00, 0x40, 20});
  f[23] = opcode;
  return f;
}

class Rx : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    add_md(1, 5, "md");
    add_ma(1, 2, "ma", 4);
    ccm_mep(1, 2, 1, 10);
  }
  void TearDown() override {
    cfm_set_rx_source(nullptr);
    setFrameType(CFM_FRAME_TYPE_ETH);
    EngineTest::TearDown();
  }
  // Classifies; a frame handed on is released at once. Returns the length
  // handed on, or -1.
  static long classify(const Bytes &f, CfmPacket *out = nullptr) {
    CfmPacket p{};
    if (cfm_classify_wan_frame(f.data(), f.size(), &p) != CFM_OK) return p.buffer == nullptr ? -1 : -2;
    if (out != nullptr) *out = p;
    long n = p.length;
    p.release(p.buffer);
    return n;
  }
};

TEST_F(Rx, TaggedFramesAreUntaggedOrRelayed) {
  CfmPacket p;
  Bytes single = PeerCcm().tagged(10, 6);
  EXPECT_EQ(classify(single, &p), static_cast<long>(single.size() - 4));
  EXPECT_EQ(Bytes({uint8_t(p.priority), uint8_t(p.vid), uint8_t(p.rx_port)}), Bytes({6, 10, 1}));
  EXPECT_EQ(p.inner_vid, CFM_NO_INNER_VID);
  // Double tag: an LBM is processed when an MD's first MEP has the outer VID.
  Bytes lbm = double_tagged(3, 10);
  EXPECT_EQ(classify(lbm, &p), static_cast<long>(lbm.size() - 8));
  EXPECT_EQ(Bytes({uint8_t(p.vid), uint8_t(p.inner_vid), uint8_t(p.inner_priority)}), Bytes({10, 20, 2}));
  EXPECT_TRUE(lan_.empty());
  // Anything else double-tagged goes to the LAN whole.
  EXPECT_EQ(classify(double_tagged(3, 11)), -1);
  EXPECT_EQ(classify(double_tagged(5, 10)), -1);
  ASSERT_EQ(lan_.size(), 2u);
  EXPECT_EQ(lan_[1], double_tagged(5, 10));
  // Untagged, non-CFM and every truncation: dropped, nothing relayed.
  EXPECT_EQ(classify(PeerCcm().untagged()), -1);
  single[16] = 0x08;
  EXPECT_EQ(classify(single), -1);
  Bytes lbm_short = double_tagged(3, 10);
  for (size_t cut = 0; cut < 26; ++cut) {
    EXPECT_EQ(classify(Bytes(lbm_short.begin(), lbm_short.begin() + cut)), -1) << cut;
  }
  EXPECT_EQ(lan_.size(), 2u);
  EXPECT_TRUE(wan_.empty());
  // "8023": the EtherType sits behind the 802.3 length and SNAP header.
  setFrameType(CFM_FRAME_TYPE_8023);
  Bytes snap = PeerCcm().tagged(10);
  snap.insert(snap.begin() + 16, {0x00, 0x60, 0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00});
  EXPECT_EQ(classify(snap), static_cast<long>(snap.size() - 4));
}

TEST_F(Rx, EnginesRunOnlyWhileEnabledAndTheQueueIsDrainedInOrder) {
  cfm_set_rx_source(queued_source);
  PeerCcm ccm;
  for (uint32_t status : {0u, 1u}) {
    set_status(status);
    for (uint32_t seq = 1; seq <= 100; ++seq) {
      ccm.sequence = seq + 1000 * status;
      g_queue.push_back(ccm.tagged(10));
    }
    for (CfmPacket p{}; rx_wan_packet(&p) == CFM_OK; p = CfmPacket{}) cfm_dispatch_packet(&p);
    EXPECT_TRUE(g_queue.empty());
  }
  RemoteMepEntry r;
  ASSERT_TRUE(remote(1, 2, 2, &r));
  EXPECT_EQ(r.SequenceNum, 1100u);  // none of the first hundred was applied
  // Untagged traffic (IPv6 neighbour discovery here) is passed over before
  // any debug trace.
  cfm_debug_msg = 1;
  Bytes nd(86, 0);
  nd[12] = 0x86, nd[13] = 0xDD;
  g_queue.push_back(nd);
  CfmPacket p{};
  testing::internal::CaptureStdout();
  EXPECT_EQ(rx_wan_packet(&p), CFM_ERR_FAILURE);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  cfm_debug_msg = 0;
}

TEST_F(Rx, LanFramesCrossToTheWanFromLevelThree) {
  for (uint8_t level = 0; level < 8; ++level) {
    PeerCcm ccm;
    ccm.level = level;
    for (const Bytes &f : {ccm.tagged(10), double_tagged(1, 10, level)}) cfm_relay_lan_frame(f.data(), f.size());
  }
  EXPECT_EQ(wan_.size(), 10u);
  Bytes cut = PeerCcm().tagged(10);
  cut.resize(18);
  cfm_relay_lan_frame(cut.data(), cut.size());
  EXPECT_EQ(wan_.size(), 10u);
  CfmPacket p{};
  EXPECT_EQ(rx_lan_packet(&p), CFM_ERR_FAILURE);  // no LAN socket: nothing read
}

}  // namespace
