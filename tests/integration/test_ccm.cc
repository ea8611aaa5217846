// CCMs on the wire: what the daemon sends each tick, what it learns from a
// peer's CCMs, and what it refuses, driven and inspected through the command
// socket as a front end would.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::Lab;

constexpr uint8_t kLevel = 7;
constexpr uint16_t kLocalMep = 5;
constexpr uint16_t kPeerMep = 9;

// A CCM as a peer sends it, behind one tag.
struct PeerCcm {
  uint32_t sequence = 1;
  uint16_t mep_id = kPeerMep;
  uint8_t interval = 4;
  bool rdi = false;
  std::string ma_name = "ma1";
  uint16_t vid = 0;
  std::array<uint8_t, 6> dst = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x30 + kLevel};

  Frame wire() const {
    Frame f(dst.begin(), dst.end());
    f.insert(f.end(), cfmlab::kPeerMac.begin(), cfmlab::kPeerMac.end());
    f.insert(f.end(), {0x81, 0x00, static_cast<uint8_t>(0xE0 | (vid >> 8)), static_cast<uint8_t>(vid), 0x89, 0x02});
    f.insert(f.end(), {static_cast<uint8_t>(kLevel << 5), 0x01, static_cast<uint8_t>((rdi ? 0x80 : 0) | interval), 70});
    for (int shift = 24; shift >= 0; shift -= 8) f.push_back(static_cast<uint8_t>(sequence >> shift));
    f.insert(f.end(), {static_cast<uint8_t>(mep_id >> 8), static_cast<uint8_t>(mep_id)});
    Frame maid = {4, 3, 'm', 'd', '7', 2, static_cast<uint8_t>(ma_name.size())};
    maid.insert(maid.end(), ma_name.begin(), ma_name.end());
    maid.resize(48 + 16, 0);
    f.insert(f.end(), maid.begin(), maid.end());
    f.insert(f.end(), {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0});
    return f;
  }
};

// The daemon's own CCMs as the peer sees them (VID 0: untagged).
bool is_daemon_ccm(const Frame &f) {
  return f.size() > 15 && f[12] == 0x89 && f[13] == 0x02 && f[15] == 1 &&
         std::equal(cfmlab::kWanMac.begin(), cfmlab::kWanMac.end(), f.begin() + 6);
}
uint32_t sequence_of(const Frame &f) { return (f[18] << 24) | (f[19] << 16) | (f[20] << 8) | f[21]; }

class CcmLab : public Lab {
 protected:
  void TearDown() override {
    // A sanitizer build reports memory and undefined-behaviour faults here.
    EXPECT_EQ(Errors().find("Sanitizer"), std::string::npos) << Errors();
    EXPECT_EQ(Errors().find("runtime error"), std::string::npos) << Errors();
    Lab::TearDown();
  }
  // Starts the daemon with the timer period of `interval` ("" keeps 1 s) and
  // one Down MEP 5 on port 1, VID 0, in MA 1 "ma1" of MD 1 "md7" at level 7.
  void Start(const std::string &interval = "100ms", std::vector<std::string> extra = {}) {
    std::vector<std::string> args = DefaultArgs();
    if (!interval.empty()) {
      WriteFile("/var/tree/cfm/ccm_interval", interval + "\n");
      args.insert(args.end(), {"-t", "/var/tree"});
    }
    args.insert(args.end(), extra.begin(), extra.end());
    ASSERT_TRUE(StartDaemonReady(args));
    Command({"createmd", "1", "0", "7", "0", "md7"});
    Command({"createma", "1", "0", "1", "0", "ma1"});
    Command({"createmep", "1", "0", "1", "0", std::to_string(kLocalMep), "0", "1", "0", "0", "0", "1"});
  }
  std::optional<Frame> NextDaemonCcm(int timeout_ms = 3000) { return peer().Receive(timeout_ms, is_daemon_ccm); }
  bool PeerKnown() { return Command({"showremotemep"}).find("RemoteMepID : 9") != std::string::npos; }
  // Sends a CCM and waits until a whole daemon tick has followed it. Returns
  // the daemon's next CCMs after the send.
  std::vector<Frame> SendAndTick(const PeerCcm &ccm) {
    peer().Drain();
    EXPECT_TRUE(peer().Send(ccm.wire()));
    std::vector<Frame> after;
    for (int i = 0; i < 2; ++i) {
      auto f = NextDaemonCcm();
      EXPECT_TRUE(f.has_value());
      if (f) after.push_back(*f);
    }
    return after;
  }
};

TEST_F(CcmLab, DaemonSendsOneExactCcmPerTick) {
  Start();
  std::vector<Frame> got;
  while (got.size() < 4) {
    auto f = NextDaemonCcm();
    ASSERT_TRUE(f.has_value());
    got.push_back(*f);
  }
  Frame expected = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x37};
  expected.insert(expected.end(), cfmlab::kWanMac.begin(), cfmlab::kWanMac.end());
  expected.insert(expected.end(), {0x89, 0x02, 0xE0, 0x01, 0x04, 70, 0, 0, 0, 0, 0, kLocalMep});
  expected.insert(expected.end(), {4, 3, 'm', 'd', '7', 2, 3, 'm', 'a', '1'});
  expected.resize(88, 0);
  expected.insert(expected.end(), {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0, 0, 0, 0, 0});
  uint32_t first = sequence_of(got[0]);
  EXPECT_LE(first, 3u);  // the first ticks may pass before the peer listens
  for (size_t i = 0; i < got.size(); ++i) {
    Frame want = expected;
    for (int b = 0; b < 4; ++b) want[18 + b] = static_cast<uint8_t>((first + i) >> (24 - 8 * b));
    // A MEP is stored with defect 1 when created, so its first CCM has RDI.
    if (first + i == 1) want[16] |= 0x80;
    EXPECT_EQ(got[i], want) << cfmlab::Hex(got[i]);
  }
  std::string out = Command({"runtime", "5"});
  EXPECT_GE(std::stoul(out), first + 3) << out;
}

TEST_F(CcmLab, PeerIsLearntWithRdiEchoedAndAgedOutAfterFiveTicks) {
  Start();
  for (int i = 0; i < 3; ++i) NextDaemonCcm();  // past the creation's RDI
  PeerCcm ccm;
  ccm.rdi = true;
  std::vector<Frame> after = SendAndTick(ccm);
  after.push_back(NextDaemonCcm().value_or(Frame(17, 0)));
  ASSERT_EQ(after.size(), 3u);
  // The RDI received is carried by exactly one of the daemon's next CCMs.
  EXPECT_EQ(std::count_if(after.begin(), after.end(), [](const Frame &f) { return (f[16] & 0x80) != 0; }), 1);
  EXPECT_EQ(after[2][16] & 0x80, 0);
  std::string shown = Command({"showremotemep"});
  EXPECT_NE(shown.find("\r\n MdID  : 1\r\n MaID  : 1\r\n MepID  : 5\r\n PortNumber   : 1\r\n vid   : 0\r\n RemoteMepID : 9"
                       "\r\n SrcMacAddress : 02:00:00:00:0b:02"),
            std::string::npos)
      << shown;
  EXPECT_NE(shown.find("\r\n SequenceNum  : 1\r\n PortStatusTlv  : UP\r\n InterfaceStatusTlv  : UP\r\n"),
            std::string::npos)
      << shown;

  // Silent peer: gone after about five ticks (AgeTime 3500 lowered by 1000 a tick).
  ccm.rdi = false;
  ccm.sequence = 2;
  SendAndTick(ccm);
  int ticks = 2;
  while (PeerKnown() && ticks < 20) {
    ASSERT_TRUE(NextDaemonCcm().has_value());
    ++ticks;
  }
  EXPECT_GE(ticks, 4);
  EXPECT_LE(ticks, 6);
}

TEST_F(CcmLab, RepeatedSequenceCountsOneErrorAndAGapNone) {
  Start();
  PeerCcm ccm;
  for (uint32_t seq : {5u, 5u, 9u, 10u}) {
    ccm.sequence = seq;
    SendAndTick(ccm);
  }
  EXPECT_EQ(Command({"runtime", "2"}), "1\n");
  EXPECT_NE(Command({"showmep", "1"}).find("\r\n CCM Sequence Errors : 1\r\n"), std::string::npos);
  EXPECT_NE(Command({"showremotemep"}).find("\r\n SequenceNum  : 10\r\n"), std::string::npos);
}

TEST_F(CcmLab, MismatchedIntervalOrMaNameIsNotLearnt) {
  Start();
  PeerCcm ccm;
  ccm.interval = 5;
  SendAndTick(ccm);
  ccm.interval = 4;
  ccm.ma_name = "ma2";
  SendAndTick(ccm);
  EXPECT_FALSE(PeerKnown());
  ccm.ma_name = "ma1";
  SendAndTick(ccm);
  EXPECT_TRUE(PeerKnown());
}

TEST_F(CcmLab, NothingReachesTheEnginesWhileDisabled) {
  Start();
  Command({"disable"});
  PeerCcm ccm;
  ASSERT_TRUE(peer().Send(ccm.wire()));
  // Frames are still read and relayed: a double-tagged LTM goes to the LAN side.
  Frame ltm = ccm.wire();
  ltm.insert(ltm.begin() + 16, {0x81, 0x00, 0x00, 0x14});
  ltm[23] = 5;
  ASSERT_TRUE(peer().Send(ltm));
  EXPECT_TRUE(WaitForOutput("CFM: Forward the CFM packet to LAN because  VID/opcode not define"));
  EXPECT_FALSE(PeerKnown());
  EXPECT_FALSE(NextDaemonCcm(500).has_value());  // no tick work either
  Command({"enable"});
  SendAndTick(ccm);
  EXPECT_TRUE(PeerKnown());
}

TEST_F(CcmLab, UnicastCcmOutsideThePvcTableIsDropped) {
  WriteFile(kPvcMac, "1\n02:00:00:00:00:37\n");
  Start();
  PeerCcm ccm;
  ccm.dst = {0x06, 0x00, 0x00, 0x00, 0x00, 0x37};
  SendAndTick(ccm);
  EXPECT_FALSE(PeerKnown());
  ccm.dst = {0x02, 0x00, 0x00, 0x00, 0x00, 0x37};
  SendAndTick(ccm);
  EXPECT_TRUE(PeerKnown());
}

TEST_F(CcmLab, BurstOfFramesIsReadInFull) {
  Start("");  // one-second tick: the burst is not interleaved with much tick work
  PeerCcm ccm;
  ccm.sequence = 7;
  constexpr int kFrames = 5000;
  // Each CCM repeats the number of the previous one, so every frame read
  // after the first counts one sequence error.
  for (int i = 0; i < kFrames; ++i) ASSERT_TRUE(peer().Send(ccm.wire()));
  std::string errors;
  for (int i = 0; i < 50; ++i) {
    errors = Command({"runtime", "2"});
    if (errors == std::to_string(kFrames - 1) + "\n") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(errors, std::to_string(kFrames - 1) + "\n");
}

TEST_F(CcmLab, MangledFramesDoNoHarm) {
  Start();
  PeerCcm ccm;
  Frame good = ccm.wire();
  uint32_t state = 12345;
  auto next = [&state] { return state = state * 1103515245u + 12345u; };
  for (int i = 0; i < 3000; ++i) {
    Frame f = good;
    f.resize(14 + next() % (good.size() - 13));  // cut anywhere after the tag
    for (int k = 0; k < 6; ++k) {
      size_t at = 18 + next() % 96;  // never the addresses, tag or EtherType
      if (at < f.size()) f[at] = static_cast<uint8_t>(next() >> 16);
    }
    if (f.size() > 19) f[19] = static_cast<uint8_t>(1 + next() % 5);  // every engine
    ASSERT_TRUE(peer().Send(f));
  }
  SendAndTick(ccm);
  EXPECT_TRUE(Running());
  EXPECT_TRUE(PeerKnown());
}

// Command handlers hold MEP_SYC across their read-modify-write, so a tick
// running every 10 ms never writes an older copy of the MEP over a command,
// and no command writes an older copy over a tick (the sequence numbers on
// the wire would then repeat).
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
  const std::vector<std::string> key = {"1", "0", "1", "0", std::to_string(kLocalMep), "0", "1", "0", "0", "0",
                                        "100", "0"};
  int undone = 0;
  for (int i = 0; i < 200; ++i) {
    bool enable = i % 2 == 1;
    std::vector<std::string> words = {"configmep"};
    words.insert(words.end(), key.begin(), key.end());
    words.insert(words.end(), {"2", enable ? "21" : "22"});
    Command(words);
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    if (Command({"runtime", "1"}) != (enable ? "Enable\n" : "Disable\n")) ++undone;
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
