// Delay and loss measurement against the real daemon: a raw-socket peer's
// DMMs and SLMs get exact DMRs and SLRs only with -y, malformed ones nothing,
// and the daemon's own sessions read the peer's answers.
#include <time.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::Lab;

void Put32(Frame &f, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) f[at + i] = uint8_t(v >> (24 - 8 * i));
}
uint32_t Get32(const Frame &f, size_t at) {
  return (uint32_t(f[at]) << 24) | (uint32_t(f[at + 1]) << 16) | (uint32_t(f[at + 2]) << 8) | f[at + 3];
}
int64_t StampNs(const Frame &f, size_t at) { return int64_t(Get32(f, at)) * 1000000000 + Get32(f, at + 4); }
int64_t NowNs(clockid_t clock = CLOCK_REALTIME) {
  timespec ts;
  clock_gettime(clock, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}
// A PM frame between the peer and wan0 at level 4, VID 100: header, a zero
// body of first_tlv bytes, End TLV, padded to 64.
Frame Pm(uint8_t opcode, uint8_t first_tlv, bool to_wan = true) {
  const auto &dst = to_wan ? cfmlab::kWanMac : cfmlab::kPeerMac;
  const auto &src = to_wan ? cfmlab::kPeerMac : cfmlab::kWanMac;
  Frame f(dst.begin(), dst.end());
  f.insert(f.end(), src.begin(), src.end());
  f.insert(f.end(), {0x81, 0x00, 0x60, 100, 0x89, 0x02, 0x80, opcode, 0, first_tlv});
  f.resize(22 + first_tlv + 1, 0);
  f.resize(64, 0);
  return f;
}
auto Opcode(uint8_t op) {
  return [op](const Frame &f) { return cfmlab::IsCfmFrame(f) && f.size() > 21 && f[19] == op; };
}

class PmLab : public Lab {
 protected:
  void StartLab(bool pm, std::vector<std::string> args = DefaultArgs()) {
    if (pm) args.push_back("-y");
    ASSERT_TRUE(StartDaemonReady(args));
    for (const char *request :
         {"createmd 1 0 4 0 dom", "createma 1 0 1 0 assoc", "createmep 1 0 1 0 7 0 1 0 100 0 1"}) {
      ASSERT_EQ(Command(request), "");
    }
    peer().Drain();
  }
};

TEST_F(PmLab, AnswersDmmAndSlmExactlyOnlyWithOptionY) {
  StartLab(true);
  Frame dmm = Pm(47, 32);
  Put32(dmm, 22, 0x12345678), Put32(dmm, 26, 0x9abcdef0);
  int64_t before = NowNs();
  ASSERT_TRUE(peer().Send(dmm));
  auto dmr = peer().Receive(1000, Opcode(46));
  int64_t after = NowNs();
  ASSERT_TRUE(dmr) << Output();
  Frame expect = Pm(46, 32, false);
  Put32(expect, 22, 0x12345678), Put32(expect, 26, 0x9abcdef0);
  int64_t rx_f = StampNs(*dmr, 30), tx_b = StampNs(*dmr, 38);
  EXPECT_TRUE(before <= rx_f && rx_f <= tx_b && tx_b <= after) << before << " " << rx_f << " " << tx_b << " " << after;
  for (size_t at : {30, 34, 38, 42}) Put32(*dmr, at, 0);
  EXPECT_EQ(*dmr, expect);
  // Three SLMs of one test: TxFCb counts them, the responder is MEP 7.
  for (uint32_t n = 1; n <= 3; ++n) {
    Frame slm = Pm(55, 16);
    Put32(slm, 22, 0x00030000), Put32(slm, 26, 42), Put32(slm, 30, 100 + n);
    ASSERT_TRUE(peer().Send(slm));
    auto slr = peer().Receive(1000, Opcode(54));
    ASSERT_TRUE(slr);
    Frame want = Pm(54, 16, false);
    Put32(want, 22, 0x00030007), Put32(want, 26, 42), Put32(want, 30, 100 + n), Put32(want, 34, n);
    EXPECT_EQ(*slr, want);
  }
  // Malformed and cut frames: no answer, and the daemon keeps going.
  Frame flags = Pm(47, 32), offset = Pm(55, 16), cut = Pm(47, 32);
  flags[20] = 1, offset[21] = 12, cut.resize(40);
  for (const Frame &f : {flags, offset, cut}) ASSERT_TRUE(peer().Send(f));
  EXPECT_TRUE(peer().ReceiveAll(300, [](const Frame &f) { return Opcode(46)(f) || Opcode(54)(f); }).empty());
  EXPECT_TRUE(Running());
  EXPECT_EQ(Command("pmshow"), "\r\nPM md 1 ma 1 mep 7: DMM in 1 out 0, DMR in 0 out 1, SLM in 3 out 0, SLR in 0 out 3");
}

// The peer answers for ms every DMM (its arrival time and first tag byte
// kept; 1.5 ms spent, 1 ms of them as its residence time) and, counting per
// test ID, the SLMs; while lossy it loses SLMs 2 and 4 on the way in and the
// SLR of SLM 5 on the way out.
struct Responder {
  std::vector<int64_t> dmm_ns;
  uint8_t tci = 0;
  std::map<uint32_t, uint32_t> count;
  std::atomic<bool> lossy{true};
  void Serve(cfmlab::Peer &peer, int ms) {
    for (int64_t end = NowNs(CLOCK_MONOTONIC) + ms * 1000000LL; NowNs(CLOCK_MONOTONIC) < end;) {
      auto f = peer.Receive(20, [](const Frame &f) { return Opcode(47)(f) || Opcode(55)(f); });
      bool dmm = f && (*f)[19] == 47;
      uint32_t n = f ? Get32(*f, 30) : 0;
      if (!f || (!dmm && lossy && (n == 2 || n == 4))) continue;
      Frame reply = dmm ? Pm(46, 32) : Pm(54, 16);
      std::copy(f->begin() + 22, f->begin() + 38, reply.begin() + 22);  // DMR: RxTimeStampf = TxTimeStampb
      if (dmm) dmm_ns.push_back(NowNs(CLOCK_MONOTONIC)), tci = (*f)[14], Put32(reply, 42, 1000000), usleep(1500);
      if (!dmm) reply[25] = 3, Put32(reply, 34, ++count[Get32(*f, 26)]);  // responder MEP 3, TxFCb
      if (dmm || !lossy || n != 5) peer.Send(reply);
    }
  }
};

TEST_F(PmLab, SessionsSendOnTimeAndCountRepliesForTheirOwnMep) {
  WriteFile("/var/tree/cfm/ccm_interval", "1s\n");  // the tick does not pace the sessions
  StartLab(true, {"-i", "wan0", "-e", "-t", "/var/tree"});
  // MEP 8 of MA 2 on MEP 7's VID and level; the sessions are MEP 8's.
  for (const char *r : {"createma 1 0 2 0 other", "createmep 1 0 2 0 8 0 1 0 100 0 1"}) ASSERT_EQ(Command(r), "");
  int status = 0;
  // An unknown option, an option without its value: nothing sent.
  EXPECT_EQ((RunCfmctl({"pm", "dm", "start", "1", "2", "8", "02:00:00:00:0b:02", "--counts", "1"}, &status), status), 2);
  EXPECT_EQ((RunCfmctl({"pm", "dm", "start", "1", "2", "8", "02:00:00:00:0b:02", "--count"}, &status), status), 2);
  Responder peer_side;
  std::thread serve([&] { peer_side.Serve(peer(), 12500); });
  auto start = [&](const char *kind, const char *count) {
    EXPECT_EQ(RunCfmctl({"pm", kind, "start", "1", "2", "8", "02:00:00:00:0b:02", "--count", count, "--period", "100",
                         "--priority", "5"}, &status), "");
  };
  start("dm", "100"), start("slm", "6");
  usleep(3000000);
  // Between its first and last SLR, 2 of 5 SLMs and 1 of 3 SLRs were lost.
  EXPECT_NE(Command("pmshow json").find("\"near_loss\":0.3333,\"far_loss\":0.4000,\"near_lost\":1,\"far_lost\":2"),
            std::string::npos);
  peer_side.lossy = false;
  start("slm", "6");
  serve.join();
  ASSERT_EQ(peer_side.dmm_ns.size(), 100u);
  // How far each gap is from 100 ms: most within 5 ms, none beyond 50 ms (on a loaded machine a send can be
  // a few ms late; a tick that sends a burst puts gaps of 0 and of a second).
  std::vector<int64_t> off_us;
  for (size_t i = 1; i < 100; ++i) off_us.push_back(std::abs((peer_side.dmm_ns[i] - peer_side.dmm_ns[i - 1]) / 1000 - 100000));
  std::sort(off_us.begin(), off_us.end());
  EXPECT_LE(off_us[49], 5000);
  EXPECT_LE(off_us.back(), 50000);
  EXPECT_EQ(peer_side.tci, 0xA0);  // priority 5
  // The text, and with -t the rows of the tree after it.
  std::string text = RunCfmctl({"-t", "/var/tree", "pm", "show"}, &status);
  for (const char *want : {"PM md 1 ma 2 mep 8: DMM in 0 out 100, DMR in 100 out 0, SLM in 0 out 12, SLR in 9 out 0\r\n"
                           "PM DM  md 1 ma 2 mep 8 finished: sent 100 received 100 lost 0, delay min/avg/max",
                           "invalid=0 lost=0 ma=2 md=1 mep=8 received=100 sent=100 state=finished\n"})
    EXPECT_NE(text.find(want), std::string::npos) << want << "\n" << text;
  // Twelve seconds of sessions cost the daemon little CPU time: its task sleeps until a frame is due.
  std::string stat = ReadFile("/proc/" + std::to_string(pid()) + "/stat");
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));  // from the state on: utime and stime are 12th, 13th
  std::vector<long> f(std::istream_iterator<long>(fields >> stat), {});
  EXPECT_LT(f.at(10) + f.at(11), 2 * sysconf(_SC_CLK_TCK));
  EXPECT_EQ(peer_side.count.size(), 2u);  // each loss session a test ID of its own
  // One JSON document, with -t too; the lossless session replaced the lossy one.
  std::string json = RunCfmctl({"-t", "/var/tree", "pm", "show", "--json"}, &status);
  EXPECT_EQ(SchemaErrors(json, "pm"), "") << json;  // a second document would not parse
  for (const char *want : {"\"mep\":8,\"state\":\"finished\",\"test_id\":null,\"target_mac\":\"02:00:00:00:0b:02\","
                           "\"target_rmep\":null,\"period_ms\":100,\"count\":100,\"sent\":100,\"received\":100,\"lost\":0,\"invalid\":0,",
                           "\"sent\":6,\"received\":6,\"lost\":0,\"invalid\":0,\"near_loss\":0.0000,\"far_loss\":0.0000"})
    EXPECT_NE(json.find(want), std::string::npos) << want << "\n" << json;
  EXPECT_EQ(json.find("\"mep\":7"), std::string::npos) << json;  // nothing landed on MEP 7
}

TEST_F(PmLab, WithoutOptionYNothingAnswers) {
  StartLab(false);
  ASSERT_TRUE(peer().Send(Pm(47, 32)));
  ASSERT_TRUE(peer().Send(Pm(55, 16)));
  EXPECT_TRUE(peer().ReceiveAll(500, [](const Frame &f) { return Opcode(46)(f) || Opcode(54)(f); }).empty());
  EXPECT_EQ(Command("pmshow"), "\r\nError!! Performance monitoring is off (start with -y)");
}

}  // namespace
