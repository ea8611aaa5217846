// CCMs on the wire: what the daemon sends each tick, what it learns from a
// peer's CCMs and what it refuses, driven and inspected through the command
// socket as a front end would.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "lab.h"

namespace {

using cfmlab::Frame;
using namespace std::chrono_literals;

// A peer CCM at level 7 of MD "md7", behind a VID 0 tag.
struct PeerCcm {
  uint32_t sequence = 1;
  uint8_t interval = 4;
  bool rdi = false;
  std::string ma_name = "ma1";
  std::array<uint8_t, 6> dst = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x37};

  Frame wire() const {
    Frame f(dst.begin(), dst.end());
    f.insert(f.end(), cfmlab::kPeerMac.begin(), cfmlab::kPeerMac.end());
    f.insert(f.end(), {0x81, 0x00, 0xE0, 0x00, 0x89, 0x02, 0xE0, 0x01, uint8_t((rdi ? 0x80 : 0) | interval), 70});
    for (int shift = 24; shift >= 0; shift -= 8) f.push_back(uint8_t(sequence >> shift));
    f.insert(f.end(), {0, 9, 4, 3, 'm', 'd', '7', 2, uint8_t(ma_name.size())});
    f.insert(f.end(), ma_name.begin(), ma_name.end());
    f.resize(92, 0);
    f.insert(f.end(), {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0});
    return f;
  }
};

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
    Command({"createmd", "1", "0", "7", "0", "md7"});
    Command({"createma", "1", "0", "1", "0", "ma1"});
    Command({"createmep", "1", "0", "1", "0", "5", "0", "1", "0", "0", "0", "1"});
  }
  Frame NextCcm() { return peer().Receive(3000, is_daemon_ccm).value_or(Frame(22, 0)); }
  bool PeerKnown() { return Command({"showremotemep"}).find("RemoteMepID : 9") != std::string::npos; }
  // Sends a CCM and returns the daemon's next two CCMs: the second one
  // comes from a tick that surely followed its processing.
  std::vector<Frame> SendAndTick(const PeerCcm &ccm) {
    peer().Drain();
    EXPECT_TRUE(peer().Send(ccm.wire()));
    return {NextCcm(), NextCcm()};
  }
};

TEST_F(CcmLab, DaemonSendsOneExactCcmPerTick) {
  Start();
  Frame expected = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x37};
  expected.insert(expected.end(), cfmlab::kWanMac.begin(), cfmlab::kWanMac.end());
  expected.insert(expected.end(), {0x89, 0x02, 0xE0, 0x01, 0x04, 70, 0, 0, 0, 0, 0, 5, 4, 3, 'm', 'd', '7', 2, 3, 'm',
                                   'a', '1'});
  expected.resize(88, 0);
  expected.insert(expected.end(), {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0, 0, 0, 0, 0});
  uint32_t first = sequence_of(NextCcm());
  EXPECT_GE(first, 1u);
  EXPECT_LE(first, 3u);  // the first ticks may pass before the peer listens
  for (uint32_t seq = first + 1; seq < first + 4; ++seq) {
    Frame want = expected;
    want[21] = uint8_t(seq);
    Frame got = NextCcm();
    EXPECT_EQ(got, want) << cfmlab::Hex(got);
  }
  // The tick stores the MEP just after sending: give it that moment (the
  // next tick is 100 ms away) before reading the counter.
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(std::stoul(Command({"runtime", "5"})), first + 3);
}

TEST_F(CcmLab, PeerIsLearntCountedAndAgedOutAfterFiveTicks) {
  Start();
  PeerCcm ccm;
  ccm.rdi = true;
  std::vector<Frame> after = SendAndTick(ccm);
  after.push_back(NextCcm());
  // The RDI received is echoed by exactly one of the daemon's next CCMs.
  EXPECT_EQ(std::count_if(after.begin(), after.end(), [](const Frame &f) { return f[16] & 0x80; }), 1);
  EXPECT_EQ(after[2][16] & 0x80, 0);
  std::string shown = Command({"showremotemep"});
  EXPECT_NE(shown.find("\r\n MdID  : 1\r\n MaID  : 1\r\n MepID  : 5\r\n PortNumber   : 1\r\n vid   : 0\r\n RemoteMepID : 9"
                       "\r\n SrcMacAddress : 02:00:00:00:0b:02"),
            std::string::npos)
      << shown;
  EXPECT_NE(shown.find("\r\n SequenceNum  : 1\r\n PortStatusTlv  : UP\r\n InterfaceStatusTlv  : UP\r\n"),
            std::string::npos);
  ccm.rdi = false;
  for (uint32_t seq : {1u, 5u, 6u}) {  // 1 repeated: one error; the gap to 5: none
    ccm.sequence = seq;
    SendAndTick(ccm);
  }
  EXPECT_EQ(Command({"runtime", "2"}), "1\n");
  EXPECT_NE(Command({"showmep", "1"}).find("\r\n CCM Sequence Errors : 1\r\n"), std::string::npos);
  // Silent from here: AgeTime 3500 loses 1000 a tick, the fifth pass deletes.
  int ticks = 2;
  for (; PeerKnown() && ticks < 20; ++ticks) NextCcm();
  EXPECT_GE(ticks, 4);
  EXPECT_LE(ticks, 6);
}

TEST_F(CcmLab, RefusedCcmsTeachNothing) {
  WriteFile(kPvcMac, "1\n02:00:00:00:00:37\n");
  Start();
  PeerCcm interval, name, unicast, good;
  interval.interval = 5;
  name.ma_name = "ma2";
  unicast.dst = {0x06, 0x00, 0x00, 0x00, 0x00, 0x37};
  for (const PeerCcm *ccm : {&interval, &name, &unicast}) SendAndTick(*ccm);
  EXPECT_FALSE(PeerKnown());
  // Disabled: frames are still read and relayed, but no engine runs and no tick works.
  Command({"disable"});
  peer().Drain();
  ASSERT_TRUE(peer().Send(good.wire()));
  Frame ltm = good.wire();
  ltm.insert(ltm.begin() + 16, {0x81, 0x00, 0x00, 0x14});
  ltm[23] = 5;
  ASSERT_TRUE(peer().Send(ltm));
  EXPECT_TRUE(WaitForOutput("CFM: Forward the CFM packet to LAN because  VID/opcode not define"));
  EXPECT_FALSE(peer().Receive(500, is_daemon_ccm).has_value());
  EXPECT_FALSE(PeerKnown());
  Command({"enable"});
  good.dst = {0x02, 0x00, 0x00, 0x00, 0x00, 0x37};  // unicast inside the PVC table
  SendAndTick(good);
  EXPECT_TRUE(PeerKnown());
}

TEST_F(CcmLab, BurstIsReadInFullAndMangledFramesDoNoHarm) {
  Start("");  // one-second tick: little tick work during the burst
  PeerCcm ccm;
  Frame good = ccm.wire();
  uint32_t state = 12345;
  auto next = [&state] { return state = state * 1103515245u + 12345u; };
  for (int i = 0; i < 3000; ++i) {
    Frame f(good.begin(), good.begin() + 14 + next() % (good.size() - 13));  // cut after the tag
    for (int k = 0; k < 6; ++k) {
      size_t at = 18 + next() % 96;  // never the addresses, tag or EtherType
      if (at < f.size()) f[at] = uint8_t(next() >> 16);
    }
    if (f.size() > 19) f[19] = uint8_t(1 + next() % 5);  // every engine
    ASSERT_TRUE(peer().Send(f));
  }
  SendAndTick(ccm);
  EXPECT_TRUE(Running());
  EXPECT_TRUE(PeerKnown());

  // Every frame of the burst repeats one number, so each one read after the
  // first counts one sequence error.
  Command({"clearcnt"});
  constexpr int kFrames = 5000;
  ccm.sequence = 0xABCDEF;
  for (int i = 0; i < kFrames; ++i) ASSERT_TRUE(peer().Send(ccm.wire()));
  const std::string want = std::to_string(kFrames - 1) + "\n";
  std::string errors;
  for (int i = 0; i < 50 && errors != want; ++i, std::this_thread::sleep_for(100ms)) errors = Command({"runtime", "2"});
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
    Command({"configmep", "1", "0", "1", "0", "5", "0", "1", "0", "0", "0", "100", "0", "2", enable ? "21" : "22"});
    std::this_thread::sleep_for(25ms);
    undone += Command({"runtime", "1"}) != (enable ? "Enable\n" : "Disable\n");
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
