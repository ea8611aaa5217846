// Delay and loss measurement against the real daemon: a raw-socket peer's
// DMMs and SLMs get exact DMRs and SLRs only with -y, malformed ones nothing,
// and the daemon's own delay session reads the peer's answers.
#include <time.h>

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
int64_t NowNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
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
  void StartLab(bool pm) {
    std::vector<std::string> args = DefaultArgs();
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
  EXPECT_GE(rx_f, before);
  EXPECT_LE(rx_f, tx_b);
  EXPECT_LE(tx_b, after);
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
  flags[20] = 1, offset[21] = 12;
  cut.resize(40);
  for (const Frame &f : {flags, offset, cut}) ASSERT_TRUE(peer().Send(f));
  EXPECT_TRUE(peer().ReceiveAll(300, [](const Frame &f) { return Opcode(46)(f) || Opcode(54)(f); }).empty());
  EXPECT_TRUE(Running());

  // The daemon's own delay session: one DMM to the peer, whose DMR (with 1 ms
  // spent in the peer) is taken into the results.
  ASSERT_EQ(Command("pmstart dm 1 1 7 02:00:00:00:0b:02 1 100 5"), "");
  auto out = peer().Receive(3000, Opcode(47));
  ASSERT_TRUE(out);
  EXPECT_EQ((*out)[14], 0xA0);
  Frame reply = Pm(46, 32);
  std::copy(out->begin() + 22, out->begin() + 30, reply.begin() + 22);
  Put32(reply, 30, 10), Put32(reply, 34, 0), Put32(reply, 38, 10), Put32(reply, 42, 1000000);
  ASSERT_TRUE(peer().Send(reply));
  std::string shown;
  for (int i = 0; i < 20 && shown.find("received 1") == std::string::npos; ++i) {
    usleep(50000);
    shown = Command("pmshow");
  }
  EXPECT_NE(shown.find("PM DM  md 1 ma 1 mep 7"), std::string::npos) << shown;
  EXPECT_NE(shown.find("sent 1 received 1 lost 0"), std::string::npos) << shown;
  EXPECT_NE(shown.find("DMM in 1 out 1, DMR in 1 out 1, SLM in 3 out 0, SLR in 0 out 3"), std::string::npos) << shown;
}

TEST_F(PmLab, WithoutOptionYNothingAnswers) {
  StartLab(false);
  ASSERT_TRUE(peer().Send(Pm(47, 32)));
  ASSERT_TRUE(peer().Send(Pm(55, 16)));
  EXPECT_TRUE(peer().ReceiveAll(500, [](const Frame &f) { return Opcode(46)(f) || Opcode(54)(f); }).empty());
  EXPECT_EQ(Command("pmshow"), "\r\nError!! Performance monitoring is off (start with -y)");
}

}  // namespace
