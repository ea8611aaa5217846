// Receive path: classification of WAN frames, relaying, the untagged copy,
// the LAN rule, dispatch only while CFM is enabled, draining in order.
#include <deque>

#include "harness.h"

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

class Rx : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    add_md(1, 5, "md");
    add_ma(1, 2, "ma", 4);
    ccm_mep(1, 2, 1, 10);
  }
  // Classifies; a frame handed on is released at once. Returns the length
  // handed on, or -1 (-2 if a failure left a buffer behind).
  static long classify(const Bytes &f, CfmPacket *out = nullptr) {
    CfmPacket p{};
    if (cfm_classify_wan_frame(f.data(), f.size(), &p) != CFM_OK) return p.buffer == nullptr ? -1 : -2;
    if (out != nullptr) *out = p;
    p.release(p.buffer);
    return p.length;
  }
};

TEST_F(Rx, TaggedFramesAreUntaggedOrRelayed) {
  CfmPacket p{};
  Bytes single = PeerCcm().tagged(10, 6), lbm = PeerCcm().tagged(10, 3);
  lbm.insert(lbm.begin() + 16, {0x81, 0x00, 0x40, 20});  // inner tag: VID 20, priority 2
  lbm[23] = 3;                                            // LBM opcode
  EXPECT_EQ(classify(single, &p), static_cast<long>(single.size() - 4));
  EXPECT_EQ(Bytes({uint8_t(p.priority), uint8_t(p.vid), uint8_t(p.rx_port), p.inner_vid == CFM_NO_INNER_VID}),
            Bytes({6, 10, 1, 1}));
  // The lab relays whole LAN frames by level; one cut before its level is not
  // relayed.
  cfm_relay_lan_frame(single.data(), 18);
  // Double tag: an LBM is processed when an MD's first MEP has the outer VID.
  EXPECT_EQ(classify(lbm, &p), static_cast<long>(lbm.size() - 8));
  EXPECT_EQ(Bytes({uint8_t(p.vid), uint8_t(p.inner_vid), uint8_t(p.inner_priority)}), Bytes({10, 20, 2}));
  // Non-CFM and every truncation: dropped, nothing relayed.
  single[16] = 0x08;
  EXPECT_EQ(classify(single), -1);
  for (size_t cut = 0; cut < 26; ++cut) EXPECT_EQ(classify(slice(lbm, 0, cut)), -1) << cut;
  EXPECT_TRUE(lan_.empty());
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
    for (ccm.sequence = 1000 * status + 1; ccm.sequence <= 1000 * status + 100; ++ccm.sequence) {
      g_queue.push_back(ccm.tagged(10));
    }
    for (CfmPacket p{}; rx_wan_packet(&p) == CFM_OK; p = CfmPacket{}) cfm_dispatch_packet(&p);
    EXPECT_TRUE(g_queue.empty());
  }
  RemoteMepEntry r;
  ASSERT_TRUE(remote(1, 2, 2, &r));
  EXPECT_EQ(r.SequenceNum, 1100u);  // none of the first hundred was applied
  // Untagged traffic (IPv6 here) is passed over before any debug trace.
  cfm_debug_msg = 1;
  g_queue.push_back(cat({Bytes(12, 2), {0x86, 0xDD}, Bytes(72, 0)}));
  CfmPacket p{};
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(rx_wan_packet(&p), CFM_ERR_FAILURE); }), "");
  cfm_set_rx_source(nullptr);
}

}  // namespace
