// CCMs on the wire under load: a burst of good and mangled frames, and
// commands racing a fast tick. What a CCM teaches and what is sent is checked
// in-process by the unit tests; the demo learns peers end to end.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::PeerCcm;
using namespace std::chrono_literals;

// The daemon's own CCMs as the peer sees them (VID 0: untagged).
bool is_daemon_ccm(const Frame &f) {
  return f.size() > 21 && f[12] == 0x89 && f[15] == 1 && std::equal(f.begin() + 6, f.begin() + 12, cfmlab::kWanMac.begin());
}
uint32_t sequence_of(const Frame &f) { return (f[18] << 24) | (f[19] << 16) | (f[20] << 8) | f[21]; }

class CcmLab : public cfmlab::Lab {
 protected:
  // The daemon with the tick `interval` ("": 1 s) and a Down MEP 5 on port 1,
  // VID 0, in MA 1 "ma1" of MD 1 "md7" at level 7.
  void Start(const std::string &interval = "100ms") {
    std::vector<std::string> args = DefaultArgs();
    if (!interval.empty()) {
      WriteFile("/var/tree/cfm/ccm_interval", interval + "\n");
      args.insert(args.end(), {"-t", "/var/tree"});
    }
    ASSERT_TRUE(StartDaemonReady(args));
    for (const char *request : {"createmd 1 0 7 0 md7", "createma 1 0 1 0 ma1", "createmep 1 0 1 0 5 0 1 0 0 0 1"}) {
      Command(request);
    }
  }
  Frame NextCcm() { return peer().Receive(3000, is_daemon_ccm).value_or(Frame(22, 0)); }
};

// A burst is read in full: every frame repeats one sequence number, so each
// one read after the first counts one sequence error.
TEST_F(CcmLab, BurstIsReadInFull) {
  Start("");  // one-second tick: little tick work during the burst
  // Learn the peer first: the daemon's second CCM after it comes from a tick
  // that surely followed its processing.
  ASSERT_TRUE(peer().Send(PeerCcm(1)));
  NextCcm(), NextCcm();
  ASSERT_NE(Command("showremotemep").find("RemoteMepID : 9"), std::string::npos);
  Command("clearcnt");
  constexpr int kFrames = 5000;
  for (int i = 0; i < kFrames; ++i) ASSERT_TRUE(peer().Send(PeerCcm(0xABCDEF)));
  const std::string want = std::to_string(kFrames - 1) + "\n";
  std::string errors;
  for (int i = 0; i < 50 && errors != want; ++i, std::this_thread::sleep_for(100ms)) errors = Command("runtime 2");
  EXPECT_EQ(errors, want);
}

// Command handlers hold MEP_SYC across their read-modify-write of a MEP: with
// a 10 ms tick, no command is undone by a tick (runtime 1 would disagree) and
// no tick by a command (the sequence numbers on the wire would repeat).
TEST_F(CcmLab, CommandsAndTheFastTickNeverUndoEachOther) {
  Start("10ms");
  EXPECT_TRUE(WaitForOutput("CCMInterval=10"));
  std::atomic<bool> done{false};
  std::vector<uint32_t> seen;
  std::thread watcher([&] {
    while (!done) {
      for (const Frame &f : peer().ReceiveAll(50, is_daemon_ccm)) seen.push_back(sequence_of(f));
    }
  });
  int undone = 0;
  for (int i = 0; i < 200; ++i) {
    bool enable = i % 2 == 1;
    Command(std::string("configmep 1 0 1 0 5 0 1 0 0 0 100 0 2 ") + (enable ? "21" : "22"));
    std::this_thread::sleep_for(25ms);
    undone += Command("runtime 1") != (enable ? "Enable\n" : "Disable\n");
  }
  done = true;
  watcher.join();
  EXPECT_EQ(undone, 0);
  ASSERT_GT(seen.size(), 100u);
  size_t repeats = 0;
  for (size_t i = 1; i < seen.size(); ++i) repeats += seen[i] <= seen[i - 1];
  EXPECT_EQ(repeats, 0u);
}

}  // namespace
