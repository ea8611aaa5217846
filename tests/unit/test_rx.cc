// Receive path: classification of WAN frames, relaying, the untagged copy,
// dispatch only while CFM is enabled, draining the queue, the LAN rule.
#include <deque>

#include "ccm_world.h"
#include "core/frame_type.h"
#include "core/startup.h"

using namespace ccmtest;

namespace {

std::deque<Bytes> g_queue;
long queued_source(uint8_t *buf, size_t cap) {
  if (g_queue.empty()) return -1;
  Bytes f = g_queue.front();
  g_queue.pop_front();
  size_t n = f.size() < cap ? f.size() : cap;
  memcpy(buf, f.data(), n);
  return static_cast<long>(n);
}

Bytes double_tagged(uint8_t opcode, uint16_t outer, uint16_t inner) {
  Bytes f = PeerCcm().tagged(outer, 3);
  const uint8_t tag[4] = {0x81, 0x00, static_cast<uint8_t>(0x40 | (inner >> 8)), static_cast<uint8_t>(inner)};
  f.insert(f.begin() + 16, tag, tag + 4);
  f[23] = opcode;
  return f;
}

class Rx : public CcmWorld {
 protected:
  void SetUp() override {
    CcmWorld::SetUp();
    add_md(1, 5, "md");
    add_ma(1, 2, "ma", 4);
    mep_ = add_mep(1, 2, 1, 10);
  }
  void TearDown() override {
    cfm_set_rx_source(nullptr);
    g_queue.clear();
    cfm_clear_pvc_mac();
    setFrameType(CFM_FRAME_TYPE_ETH);
    CcmWorld::TearDown();
  }
  static uint32_t classify(const Bytes &f, CfmPacket *p) {
    *p = CfmPacket{};
    return cfm_classify_wan_frame(f.data(), f.size(), p);
  }
  MepEntry mep_;
};

TEST_F(Rx, SingleTaggedCcmIsHandedOnUntagged) {
  PeerCcm ccm;
  Bytes wire = ccm.tagged(10, 6);
  CfmPacket p;
  ASSERT_EQ(classify(wire, &p), CFM_OK);
  EXPECT_EQ(p.priority, 6u);
  EXPECT_EQ(p.vid, 10u);
  EXPECT_EQ(p.inner_vid, CFM_NO_INNER_VID);
  EXPECT_EQ(p.from_wan, 1u);
  EXPECT_EQ(Bytes(p.buffer, p.buffer + p.length), ccm.untagged());
  cfm_dispatch_packet(&p);  // learns the peer and frees the copy
  EXPECT_EQ(p.buffer, nullptr);
  EXPECT_TRUE(remote(1, 2, 2));
  EXPECT_TRUE(wan_.empty() && lan_.empty());
}

TEST_F(Rx, DoubleTaggedFramesAreRelayedUnlessAnLbmForALocalVid) {
  CfmPacket p;
  Bytes ltm = double_tagged(5, 10, 20);
  EXPECT_EQ(classify(ltm, &p), CFM_ERR_FAILURE);
  ASSERT_EQ(lan_.size(), 1u);
  EXPECT_EQ(lan_[0], ltm);  // whole frame, tags included

  EXPECT_EQ(classify(double_tagged(3, 11, 20), &p), CFM_ERR_FAILURE);
  EXPECT_EQ(lan_.size(), 2u);

  Bytes lbm = double_tagged(3, 10, 20);
  ASSERT_EQ(classify(lbm, &p), CFM_OK);
  EXPECT_EQ(p.vid, 10u);
  EXPECT_EQ(p.inner_vid, 20u);
  EXPECT_EQ(p.inner_priority, 2u);
  EXPECT_EQ(p.length, lbm.size() - 8);
  EXPECT_EQ(p.buffer[12], 0x89);
  p.release(p.buffer);
}

TEST_F(Rx, FramesThatAreNotForTheEnginesAreDropped) {
  CfmPacket p;
  Bytes untagged = PeerCcm().untagged();
  EXPECT_EQ(classify(untagged, &p), CFM_ERR_FAILURE);
  Bytes other = PeerCcm().tagged(10);
  other[16] = 0x08;  // tagged IPv4
  EXPECT_EQ(classify(other, &p), CFM_ERR_FAILURE);
  // Every truncation of a tagged CCM: dropped or handed on within bounds.
  Bytes full = PeerCcm().tagged(10);
  for (size_t cut = 0; cut < 22; ++cut) {
    Bytes t(full.begin(), full.begin() + static_cast<long>(cut));
    EXPECT_EQ(classify(t, &p), CFM_ERR_FAILURE) << cut;
    EXPECT_EQ(p.buffer, nullptr);
  }
  EXPECT_TRUE(wan_.empty() && lan_.empty());

  // A unicast destination outside a non-empty PVC table.
  char path[] = "/tmp/ccm_pvc_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  const char text[] = "1\n02:00:00:00:00:01\n";
  ASSERT_EQ(write(fd, text, sizeof text - 1), static_cast<ssize_t>(sizeof text - 1));
  close(fd);
  ASSERT_EQ(cfm_read_pvc_mac_at(path), 1);
  unlink(path);
  Bytes unicast = PeerCcm().tagged(10);
  const uint8_t pvc[6] = {0x02, 0, 0, 0, 0, 0x01};
  memcpy(unicast.data(), pvc, 6);
  unicast[5] = 0x02;
  EXPECT_EQ(classify(unicast, &p), CFM_ERR_FAILURE);
  unicast[5] = 0x01;
  ASSERT_EQ(classify(unicast, &p), CFM_OK);
  p.release(p.buffer);
}

TEST_F(Rx, EnginesRunOnlyWhileEnabledAndTheQueueIsDrainedInOrder) {
  set_status(0);
  PeerCcm ccm;
  g_queue.push_back(ccm.tagged(10));
  cfm_set_rx_source(queued_source);
  CfmPacket p{};
  ASSERT_EQ(rx_wan_packet(&p), CFM_OK);
  cfm_dispatch_packet(&p);
  EXPECT_EQ(remote_count(), 0u);

  set_status(1);
  for (uint32_t seq = 1; seq <= 300; ++seq) {
    ccm.sequence = seq;
    g_queue.push_back(ccm.tagged(10));
  }
  for (;;) {
    p = CfmPacket{};
    if (rx_wan_packet(&p) != CFM_OK) break;
    cfm_dispatch_packet(&p);
  }
  EXPECT_TRUE(g_queue.empty());
  RemoteMepEntry r;
  ASSERT_TRUE(remote(1, 2, 2, &r));
  EXPECT_EQ(r.SequenceNum, 300u);
  EXPECT_EQ(reread(mep_).CcmSequenceErrors, 0u);
}

TEST_F(Rx, FrameType8023ReadsTheTypeBehindTheSnapHeader) {
  setFrameType(CFM_FRAME_TYPE_8023);
  Bytes f = PeerCcm().tagged(10);
  const uint8_t snap[8] = {0x00, 0x60, 0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00};
  f.insert(f.begin() + 16, snap, snap + 8);
  CfmPacket p;
  ASSERT_EQ(classify(f, &p), CFM_OK);
  EXPECT_EQ(p.length, f.size() - 4);
  EXPECT_EQ(p.buffer[23], 1);  // opcode of the untagged "8023" form
  p.release(p.buffer);
}

TEST_F(Rx, LanFramesCrossToTheWanFromLevelThree) {
  for (uint8_t level = 0; level < 8; ++level) {
    PeerCcm ccm;
    ccm.level = level;
    cfm_relay_lan_frame(ccm.tagged(10).data(), ccm.tagged(10).size());
    Bytes dbl = double_tagged(1, 10, 20);
    dbl[22] = static_cast<uint8_t>(level << 5);
    cfm_relay_lan_frame(dbl.data(), dbl.size());
  }
  EXPECT_EQ(wan_.size(), 10u);
  cfm_relay_lan_frame(PeerCcm().untagged().data(), PeerCcm().untagged().size());
  Bytes cut = PeerCcm().tagged(10);
  cut.resize(18);
  cfm_relay_lan_frame(cut.data(), cut.size());
  EXPECT_EQ(wan_.size(), 10u);
  CfmPacket p{};
  EXPECT_EQ(rx_lan_packet(&p), CFM_ERR_FAILURE);  // no LAN socket
}

}  // namespace
