// The relay between WAN and LAN (option -l): the router between two raw
// peers, peer0 on its WAN and lpeer0 on its LAN.
#include <chrono>
#include <thread>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::Lab;

// A CFM frame at `level` behind one tag (VID 10) or two (VIDs 10 and 20),
// padded so that it leaves exactly as built.
Frame Cfm(uint8_t level, uint8_t opcode, bool double_tag, uint8_t last_dst = 0x30) {
  Frame f = {0x01, 0x80, 0xC2, 0x00, 0x00, last_dst, 2, 0, 0, 0, 0x0b, 0x02, 0x81, 0x00, 0x00, 10};
  if (double_tag) f.insert(f.end(), {0x81, 0x00, 0x00, 20});
  f.insert(f.end(), {0x89, 0x02, static_cast<uint8_t>(level << 5), opcode, 0, 4, 0, 0, 0, level, 0});
  f.resize(64, 0);
  return f;
}

class Lan : public Lab {
 protected:
  void SetUp() override {
    Lab::SetUp();
    if (IsSkipped()) return;
    Shell("ip link del lan0 >/dev/null 2>&1");
    ASSERT_TRUE(AddLink("lan0", "lpeer0"));
    ASSERT_TRUE(lan_.Open("lpeer0"));
  }
  void Start(const char *debug = "-e") { ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-e", "-l", "lan0", debug})); }
  cfmlab::Peer lan_;
};

// Levels 3 to 7 cross from the LAN to the WAN unchanged, single and double
// tagged; 0 to 2 stay; nothing the daemon sends comes back to it as received.
TEST_F(Lan, LanFramesCrossByLevel) {
  ASSERT_NO_FATAL_FAILURE(Start("-d"));
  std::vector<Frame> expected;
  for (uint8_t level = 0; level < 8; ++level) {
    for (bool dbl : {false, true}) {
      Frame f = Cfm(level, 1, dbl);
      ASSERT_TRUE(lan_.Send(f));
      if (level >= 3) expected.push_back(f);
    }
  }
  EXPECT_EQ(peer().ReceiveAll(500), expected);
  std::string out = Output();
  EXPECT_EQ(Count(out, "packet with mdlevel="), 16u) << out;
  EXPECT_EQ(Count(out, "Forward the CFM packet because mdlevel="), 5u);
  EXPECT_EQ(Count(out, "Drop the double vlan CFM packet because mdlevel="), 3u);
  EXPECT_EQ(Count(out, "from WAN"), 0u) << out;
}

// Unclaimed double-tagged WAN frames reach the LAN with their tags; a local
// MEP's CCMs leave on both sides; a LAN interface that cannot be used is
// reported once and the daemon runs on.
TEST_F(Lan, WanFramesAndOwnCcmsReachTheLan) {
  ASSERT_NO_FATAL_FAILURE(Start());
  for (const Frame &f : {Cfm(5, 5, true, 0x3D), Cfm(2, 3, true, 0x32)}) {
    ASSERT_TRUE(peer().Send(f));
    EXPECT_EQ(lan_.Receive(1000).value_or(Frame()), f);
  }
  for (const char *request : {"createmd 1 0 6 0 md", "createma 1 0 1 0 ma", "createmep 1 0 1 0 1 0 1 0 7 0 1"}) {
    Command(request);
  }
  auto ccm = [](const Frame &f) { return f.size() > 19 && f[5] == 0x36 && f[19] == 1; };
  auto on_wan = peer().Receive(2500, ccm);
  auto on_lan = lan_.Receive(2500, ccm);
  ASSERT_TRUE(on_wan && on_lan);
  EXPECT_EQ(*on_wan, *on_lan);
  // debugon widens the kernel filter to every tagged frame, which the trace shows.
  Frame ordinary = Cfm(5, 1, false);
  ordinary[16] = 0x08, ordinary[17] = 0x00;
  Command("debugon");
  ASSERT_TRUE(peer().Send(ordinary));
  EXPECT_TRUE(WaitForOutput("Debug: rx_wan_packet recevice"));
  Stop();
  ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-e", "-l", "nosuch0"}));
  EXPECT_NE(Output().find("CFM: LAN interface nosuch0 cannot be used, nothing is relayed\n"), std::string::npos);
  EXPECT_TRUE(Running());
}

// A flood from the LAN does not starve the WAN: an LBM is still answered
// while 10,000 LAN frames are relayed.
TEST_F(Lan, LanFloodLeavesTheWanServed) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Frame lbm = Cfm(2, 3, false, 0x32);  // its End TLV follows the transaction id
  auto t0 = std::chrono::steady_clock::now();
  std::thread flood([&] {
    Frame f = Cfm(5, 1, false);
    for (int i = 0; i < 10000; ++i) lan_.Send(f);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(peer().Send(lbm));
  // Relays that come before the LBR count too: a daemon that keeps up with
  // the flood may have relayed all of it by then.
  size_t relayed = 0;
  auto lbr = peer().Receive(2000, [&](const Frame &f) { return (f.size() > 19 && f[19] == 2) || (++relayed, false); });
  flood.join();
  EXPECT_TRUE(lbr.has_value()) << "no LBR during the LAN flood";
  for (std::vector<Frame> got; !(got = peer().ReceiveAll(300)).empty();) relayed += got.size();
  double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  printf("LAN flood: %zu of 10000 frames relayed to the WAN in %.2f s (%.0f/s)\n", relayed, s, relayed / s);
  EXPECT_GT(relayed, 0u);
}

}  // namespace
