// Loopback under load against the real daemon: LBRs arriving while the tree
// holds its full count of "lbr" rows. (A flood of LBMs is answered in the
// LAN flood test; a burst read in full is checked with CCMs.) The frames and
// rules of loopback and linktrace are checked in-process by the unit tests;
// the demo runs both end to end between two daemons.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::Lab;
const char kTree[] = "/var/tree";

// A padded LBM (opcode 3) or LBR (2) from the peer to wan0 at level 2, VID
// 100, with transaction `id` and a Data TLV.
Frame Lb(uint8_t opcode, uint32_t id) {
  Frame f(cfmlab::kWanMac.begin(), cfmlab::kWanMac.end());
  f.insert(f.end(), cfmlab::kPeerMac.begin(), cfmlab::kPeerMac.end());
  f.insert(f.end(), {0x81, 0x00, 0xA0, 100, 0x89, 0x02, 0x40, opcode, 0, 4, uint8_t(id >> 24), uint8_t(id >> 16),
                     uint8_t(id >> 8), uint8_t(id), 3, 0, 4, 'p', 'i', 'n', 'g', 0});
  f.resize(64, 0);
  return f;
}
bool IsLbr(const Frame &f) { return cfmlab::IsCfmFrame(f) && f.size() > 25 && f[19] == 2; }
uint32_t IdOf(const Frame &f) { return (uint32_t(f[22]) << 24) | (f[23] << 16) | (f[24] << 8) | f[25]; }

// With 4,096 "lbr" rows present and 1,000 LBRs a second arriving (none
// answers a running loopback, so none adds a row), LBMs are still answered
// within 10 ms, and clearlbr removes the rows.
TEST_F(Lab, LbrRowsAreBoundedAndStallNothing) {
  WriteFile(std::string(kTree) + "/runtime/cfm/clear", "0\n");
  for (int n = 1; n <= 4096; ++n) mkdir((std::string(kTree) + "/runtime/cfm/lbr:" + std::to_string(n)).c_str(), 0755);
  ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-e", "-t", kTree}));
  // MD 1 at level 2, MA 1, Down MEP 1 on port 1, VID 100, CCMs off.
  for (const char *request : {"createmd 1 0 2 0 dom", "createma 1 0 1 0 assoc", "createmep 1 0 1 0 1 0 1 0 100 0 1",
                              "configmep 1 0 1 0 1 0 1 0 100 0 100 0 2 22"}) {
    ASSERT_EQ(Command(request), "");
  }
  std::atomic<bool> done{false};
  std::thread lbrs([&] {
    for (uint32_t id = 0; !done; ++id, std::this_thread::sleep_for(std::chrono::milliseconds(1))) peer().Send(Lb(2, id));
  });
  std::vector<double> rtt_ms;
  for (uint32_t id = 1000000; id < 1000020; ++id, std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_TRUE(peer().Send(Lb(3, id)));
    auto reply = peer().Receive(1000, [id](const Frame &f) { return IsLbr(f) && IdOf(f) == id; });
    if (reply) rtt_ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
  }
  done = true;
  lbrs.join();
  ASSERT_EQ(rtt_ms.size(), 20u);
  std::sort(rtt_ms.begin(), rtt_ms.end());
  EXPECT_LE(rtt_ms[10], 10.0) << "median LBM round trip, ms";
  EXPECT_EQ(Command("clearlbr"), "");
  EXPECT_EQ(access((std::string(kTree) + "/runtime/cfm/lbr:1").c_str(), F_OK), -1);
}

}  // namespace
