// Loopback and linktrace against the real daemon: the peer on the far end of
// the veth pair sends LBMs, LBRs, LTMs and LTRs and checks what comes back;
// runs are started and read back through the command socket.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <string>
#include <vector>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::kPeerMac;
using cfmlab::kWanMac;
using cfmlab::Lab;
using cfmlab::MacText;
using cfmlab::Mac;

const char kTree[] = "/var/tree";
const Mac kLbmGroup1 = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x31};
const Mac kLbmGroup2 = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x32};
const Mac kLtmGroup2 = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3A};
const Mac kStranger = {0x02, 0x00, 0x00, 0x00, 0x0c, 0x03};

Frame Cat(Frame a, const Frame &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Frame M(const Mac &m) { return Frame(m.begin(), m.end()); }

// A single-tagged CFM frame as it is on the wire.
Frame Tagged(const Mac &dst, const Mac &src, uint8_t priority, uint16_t vid, uint8_t level, uint8_t opcode,
             uint8_t flags, uint8_t first_tlv, const Frame &body) {
  Frame f = Cat(M(dst), M(src));
  f = Cat(f, {0x81, 0x00, static_cast<uint8_t>((priority << 5) | (vid >> 8)), static_cast<uint8_t>(vid), 0x89, 0x02,
              static_cast<uint8_t>(level << 5), opcode, flags, first_tlv});
  return Cat(f, body);
}

Frame Id(uint32_t id) {
  return {static_cast<uint8_t>(id >> 24), static_cast<uint8_t>(id >> 16), static_cast<uint8_t>(id >> 8),
          static_cast<uint8_t>(id)};
}

uint8_t Opcode(const Frame &f) { return f.size() > 19 ? f[19] : 0; }
std::function<bool(const Frame &)> OpcodeIs(uint8_t opcode) {
  return [opcode](const Frame &f) { return cfmlab::IsCfmFrame(f) && Opcode(f) == opcode; };
}

// LBM body: id, Sender ID TLV, Data TLV "ping", End TLV.
Frame LbmBody(uint32_t id) { return Cat(Id(id), {1, 0, 1, 0, 3, 0, 4, 'p', 'i', 'n', 'g', 0}); }
// An LBM from the peer (priority 5, VID 100), padded to 64 bytes.
Frame Lbm(const Mac &dst, uint8_t level, const Frame &body, const Mac &src = kPeerMac) {
  Frame f = Tagged(dst, src, 5, 100, level, 3, 0, 4, body);
  f.resize(std::max<size_t>(f.size(), 64), 0);
  return f;
}

class LbLt : public Lab {
 protected:
  // MD 1 at level 2, MA 1, MEP 1 on port 1, VID 100, Down (or Up).
  void Start(const std::string &direction = "1", std::vector<std::string> args = DefaultArgs()) {
    ASSERT_TRUE(StartDaemonReady(args));
    ASSERT_EQ(Command({"createmd", "1", "0", "2", "0", "dom"}), "");
    ASSERT_EQ(Command({"createma", "1", "0", "1", "0", "assoc"}), "");
    ASSERT_EQ(Command({"createmep", "1", "0", "1", "0", "1", "0", "1", "0", "100", "0", direction}), "");
    // CCMs of this MEP are not what these tests look at.
    Config({"2", "22"}, direction == "1" ? "100" : "200");
    peer().Drain();
  }
  std::string Config(const std::vector<std::string> &options, const std::string &direction = "100") {
    std::vector<std::string> words = {"configmep", "1", "0", "1", "0", "1", "0", "1", "0", "100", "0", direction, "0"};
    words.insert(words.end(), options.begin(), options.end());
    return Command(words);
  }
  void ExpectNothing(const Frame &sent, const char *what, uint8_t opcode) {
    ASSERT_TRUE(peer().Send(sent));
    auto got = peer().Receive(400, OpcodeIs(opcode));
    EXPECT_FALSE(got.has_value()) << what << ": " << cfmlab::Hex(*got);
  }
};

TEST_F(LbLt, LbmsAtLevelsOneAndTwoAndOnlyTheseComeBackAsLbrs) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Mac group_source = kPeerMac;
  group_source[0] |= 1;
  ExpectNothing(Lbm(kWanMac, 0, LbmBody(1)), "level 0", 2);
  ExpectNothing(Lbm(kWanMac, 3, LbmBody(1)), "level 3", 2);
  ExpectNothing(Lbm(kWanMac, 2, Cat(Id(1), {2, 0, 1, 2, 0})), "Port Status TLV", 2);
  ExpectNothing(Lbm(kLbmGroup2, 1, LbmBody(1)), "group of another level", 2);
  ExpectNothing(Lbm(kWanMac, 2, LbmBody(1), group_source), "group source", 2);
  // A TLV length past the end of the frame, and a frame cut inside a TLV.
  ExpectNothing(Tagged(kWanMac, kPeerMac, 5, 100, 2, 3, 0, 4, Cat(Id(1), {3, 0x05, 0xDC, 'x'})), "length", 2);
  ExpectNothing(Tagged(kWanMac, kPeerMac, 5, 100, 2, 3, 0, 4, Cat(Id(1), {1, 0})), "cut", 2);
  EXPECT_TRUE(WaitForOutput("Debug: Drop Illegal TLV packet ", 1000));

  uint32_t id = 0x10203040;
  for (auto [dst, level] : std::vector<std::pair<Mac, int>>{{kWanMac, 2}, {kLbmGroup2, 2}, {kLbmGroup1, 1}, {kWanMac, 1}}) {
    Frame lbm = Lbm(dst, uint8_t(level), LbmBody(id++));
    ASSERT_TRUE(peer().Send(lbm));
    auto lbr = peer().Receive(2000, OpcodeIs(2));
    ASSERT_TRUE(lbr.has_value()) << "level " << level;
    Frame expect = Cat(Cat(M(kPeerMac), M(kWanMac)), Frame(lbm.begin() + 12, lbm.end()));
    expect[19] = 2;
    EXPECT_EQ(*lbr, expect) << cfmlab::Hex(*lbr);
  }
  // The receiving MEP counted one reply per LBM at its level and VID.
  EXPECT_NE(Command({"showmep", "3"}).find("Total number of Transmit LBR number     : 2\r\n"), std::string::npos);
}

TEST_F(LbLt, LoopbackRunSendsCountsAndReports) {
  ASSERT_NO_FATAL_FAILURE(Start());
  auto t0 = std::chrono::steady_clock::now();
  auto seconds = [&t0] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(); };
  // LBM and LBR of the run: Sender ID TLV, Data TLV "pin" + `last`, End TLV.
  auto pdu = [](const Mac &dst, const Mac &src, uint8_t opcode, uint32_t id, uint8_t last) {
    Frame f = Tagged(dst, src, 7, 100, 2, opcode, 0, 4,
                     Cat(Id(id), {1, 0, 4, 0, 0, 0, 0, 31, 0, 3, 0x0A, 0, 0, 3, 0, 4, 'p', 'i', 'n', last, 0}));
    f.resize(64, 0);
    return f;
  };
  EXPECT_EQ(Config({"5", "51", "7", "3", "6", MacText(kPeerMac), "15", "ping"}), "");
  std::vector<double> at;
  for (uint32_t i = 0; i < 3; ++i) {
    auto lbm = peer().Receive(3000, OpcodeIs(3));
    ASSERT_TRUE(lbm.has_value()) << i;
    at.push_back(seconds());
    EXPECT_EQ(*lbm, pdu(kPeerMac, kWanMac, 3, i, 'g')) << cfmlab::Hex(*lbm);
  }
  EXPECT_GT(at[1] - at[0], 0.5);  // one tick apart
  EXPECT_GT(at[2] - at[1], 0.5);
  // Replies: 0 in order, 2 out of order (1 expected), 2 again with bad data.
  for (auto [id, last] : {std::pair<uint32_t, uint8_t>{0, 'g'}, {2, 'g'}, {2, 'x'}}) {
    ASSERT_TRUE(peer().Send(pdu(kWanMac, kPeerMac, 2, id, last)));
  }
  EXPECT_NE(Command({"showmep", "3"}).find("LBM is still Transmiting "), std::string::npos);
  std::string report;
  for (int i = 0; i < 80; ++i) {
    usleep(100 * 1000);
    report = Command({"showmep", "3"});
    if (report.find("LBM Transmit Finished") != std::string::npos) break;
  }
  for (const char *line : {"\r\n LBM Transmit Finished", "\r\n LBM Transmit Result    : Success",
                           "\r\n LBM Transmit first sequence number      : 0",
                           "\r\n LBM Transmit Next Lbm TransId           : 3",
                           "\r\n Total number of valid LBR In            : 2",
                           "\r\n Total number of valid LBR InOutOfOrder  : 1",
                           "\r\n Total number of Bad LBR Msdu            : 1"}) {
    EXPECT_NE(report.find(line), std::string::npos) << line << "\n" << report;
  }
  EXPECT_GT(seconds() - at[2], 3.5);  // five ticks of waiting after the last LBM
  EXPECT_TRUE(peer().ReceiveAll(300, OpcodeIs(3)).empty());

  // A target given by MEPID is reached through the level's group address.
  EXPECT_EQ(Config({"5", "51", "7", "1", "13", "2", "14", "1"}), "");
  auto lbm = peer().Receive(3000, OpcodeIs(3));
  ASSERT_TRUE(lbm.has_value());
  EXPECT_EQ(Frame(lbm->begin(), lbm->begin() + 6), M(kLbmGroup2));
}

TEST_F(LbLt, UpMepSendsNoLinktrace) {
  ASSERT_NO_FATAL_FAILURE(Start("2"));
  EXPECT_EQ(Config({"10", MacText(kPeerMac), "12", "121"}, "200"), "");
  EXPECT_FALSE(peer().Receive(800, OpcodeIs(5)).has_value());
  EXPECT_EQ(Command({"showltr"}), "");
  EXPECT_NE(Command({"showmep", "2"}).find("\r\n Result: Fail"), std::string::npos);
}

// LTM from the peer: id 77, TTL `ttl`, original MAC the peer, `target`,
// LTM Egress Identifier (VID 100, peer MAC), End TLV.
Frame Ltm(const Mac &dst, const Mac &target, uint8_t level = 2, uint8_t ttl = 9) {
  Frame body = Cat(Cat(Cat(Id(77), {ttl}), M(kPeerMac)), M(target));
  body = Cat(Cat(body, {7, 0, 8, 0, 100}), Cat(M(kPeerMac), {0}));
  return Tagged(dst, kPeerMac, 6, 100, level, 5, 0x80, 17, body);
}

TEST_F(LbLt, OnlyAnLtmAimedAtTheRouterGetsExactlyOneLtr) {
  ASSERT_NO_FATAL_FAILURE(Start());
  ExpectNothing(Ltm(kLtmGroup2, kStranger), "target elsewhere", 4);
  ExpectNothing(Ltm(kLtmGroup2, kWanMac, 2, 0), "TTL 0", 4);
  ExpectNothing(Ltm({0x01, 0x80, 0xC2, 0x00, 0x00, 0x39}, kWanMac, 1), "level without MEP", 4);
  Frame no_egress = Ltm(kLtmGroup2, kWanMac);
  no_egress[39] = 1;  // a Sender ID TLV instead
  ExpectNothing(no_egress, "no egress identifier", 4);
  Frame long_tlv = Ltm(kLtmGroup2, kWanMac);
  long_tlv[41] = 0xFF;
  ExpectNothing(long_tlv, "TLV length past the frame", 4);

  Frame expect = Tagged(kPeerMac, kWanMac, 6, 100, 2, 4, 0xA0, 6, Cat(Id(77), {8, 1}));
  expect = Cat(Cat(expect, {8, 0, 16, 0, 100}), Cat(M(kPeerMac), {0, 100}));
  expect = Cat(Cat(Cat(expect, M(kWanMac)), {5, 0, 7, 1}), Cat(M(kWanMac), {0}));
  expect.resize(64, 0);
  for (const Mac &dst : {kLtmGroup2, kWanMac}) {
    ASSERT_TRUE(peer().Send(Ltm(dst, kWanMac)));
    auto all = peer().ReceiveAll(800, OpcodeIs(4));
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0], expect) << cfmlab::Hex(all[0]);
  }
}

// LTR from the peer for transaction `id`.
Frame Ltr(uint32_t id, uint8_t relay, uint8_t flags, const Frame &tlvs) {
  return Tagged(kWanMac, kPeerMac, 6, 100, 2, 4, flags, 6, Cat(Cat(Id(id), {63, relay}), tlvs));
}

TEST_F(LbLt, LinktraceSendsOneLtmAndListsTheReplies) {
  std::vector<std::string> args = DefaultArgs();
  args.insert(args.end(), {"-t", kTree});
  ASSERT_NO_FATAL_FAILURE(Start("1", args));
  EXPECT_EQ(Config({"10", MacText(kPeerMac), "12", "121"}), "");
  auto ltm = peer().Receive(2000, OpcodeIs(5));
  ASSERT_TRUE(ltm.has_value()) << Output() << Command({"showmep", "2"});
  Frame expect = Tagged(kLtmGroup2, kWanMac, 7, 100, 2, 5, 0, 17, Cat(Id(1), {64}));
  expect = Cat(Cat(Cat(expect, M(kWanMac)), M(kPeerMac)), Cat({7, 0, 8, 0, 100}, M(kWanMac)));
  ASSERT_EQ(expect.size(), 50u);
  expect.resize(64, 0);
  EXPECT_EQ(*ltm, expect) << cfmlab::Hex(*ltm);
  EXPECT_TRUE(peer().ReceiveAll(300, OpcodeIs(5)).empty());
  const std::string key = "\r\n MdID  : 1\r\n MaID  : 1\r\n MepID : 1\r\n Sequence Number  : 1\r\n LTR TTL : ";
  const std::string no_ids = "\r\n Last Egress ID : 00:00:00:00:00:00\r\n Next Egress ID : 00:00:00:00:00:00\r\n";
  EXPECT_EQ(Command({"showltr"}), key + "0\r\n Forward: No\r\n Terminal: non-MEP" + no_ids);  // the placeholder
  EXPECT_NE(Command({"showmep", "2"}).find("\r\n Result: Success"), std::string::npos);

  // Replies: a Hit replacing the placeholder, two more numbered 1 and 2.
  Frame tlvs = Cat(Cat({8, 0, 16, 0, 100}, M(kWanMac)), Cat({0, 100}, M(kPeerMac)));
  tlvs = Cat(Cat(tlvs, {5, 0, 15, 1}), Cat(M(kPeerMac), {6, 7, 'p', 'o', 'r', 't', '9', '9'}));
  tlvs = Cat(Cat(tlvs, {6, 0, 7, 2}), Cat(M(kStranger), {0}));
  ASSERT_TRUE(peer().Send(Ltr(1, 1, 0x20, tlvs)));
  ASSERT_TRUE(peer().Send(Ltr(1, 2, 0x40, {0})));
  ASSERT_TRUE(peer().Send(Ltr(1, 2, 0x40, {0})));
  ASSERT_TRUE(peer().Send(Ltr(42, 1, 0x20, {0})));  // no LTM of ours has id 42
  usleep(300 * 1000);
  std::string fdb = key + "63\r\n Forward: Yes\r\n Terminal: non-MEP" + no_ids + " Relay action: FDB\r\n";
  EXPECT_EQ(Command({"showltr"}), key + "63\r\n Forward: No\r\n Terminal: MEP\r\n Last Egress ID : " +
                                      MacText(kWanMac) + "\r\n Next Egress ID : " + MacText(kPeerMac) +
                                      "\r\n Relay action: Hit\r\n" + fdb + fdb);
  EXPECT_EQ(Command({"runtime", "15"}), "1\n");

  Command({"update", "2"}, 10000);
  const std::pair<const char *, std::string> files[] = {
      {"ltr:1/mac", MacText(kPeerMac)},      {"ltr:1/ttl", "63"},
      {"ltr:1/terminal", "MEP"},             {"ltr:1/relay", "Hit"},
      {"ltr:1/reply_ingress_mac", MacText(kPeerMac)}, {"ltr:1/reply_ingress_port", "por"},
      {"ltr:1/reply_egress_mac", MacText(kStranger)}, {"ltr:3/relay", "FDB"}};
  for (const auto &[key, value] : files) EXPECT_EQ(ReadFile(std::string(kTree) + "/runtime/cfm/" + key), value + "\n");
  int status = -1;
  std::string table = RunCfmctl({"-t", kTree, "--export", "ltr"}, &status, 10000);
  EXPECT_EQ(status, 0);
  EXPECT_NE(table.find("por"), std::string::npos) << table;
}

// Thousands of LBMs from one peer, back to back as fast as it can send
// them: one LBR for each, none lost while the daemon works through them.
TEST_F(LbLt, FloodOfLbmsIsAnsweredOneForOne) {
  ASSERT_NO_FATAL_FAILURE(Start());
  constexpr uint32_t kCount = 5000;
  auto t0 = std::chrono::steady_clock::now();
  for (uint32_t id = 0; id < kCount; ++id) ASSERT_TRUE(peer().Send(Lbm(kWanMac, 2, LbmBody(id))));
  double sent_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::vector<bool> seen(kCount);  // each transaction id counted once
  uint32_t lbrs = 0;
  for (int i = 0; i < 100 && lbrs < kCount; ++i) {
    for (const Frame &f : peer().ReceiveAll(50, OpcodeIs(2))) {
      uint32_t id = (uint32_t(f[22]) << 24) | (f[23] << 16) | (f[24] << 8) | f[25];
      if (id < kCount && !seen[id]) seen[id] = true, ++lbrs;
    }
  }
  double all_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  printf("flood: %u LBMs sent in %.3f s (%.0f/s), %u LBRs back after %.3f s\n", kCount, sent_s, kCount / sent_s, lbrs,
         all_s);
  EXPECT_EQ(lbrs, kCount);
  EXPECT_EQ(Command({"runtime", "13"}), std::to_string(kCount) + "\n");  // LbrOut of the MEP
}

// The "lbr" rows are counted in memory and bounded: with 4,096 rows present
// and 1,000 LBRs a second arriving, LBMs are still answered within 10 ms,
// no row beyond the bound is written, and clearlbr removes them all.
TEST_F(LbLt, LbrRowsAreBoundedAndStallNothing) {
  WriteFile(std::string(kTree) + "/runtime/cfm/clear", "0\n");
  for (int n = 1; n <= 4096; ++n) mkdir((std::string(kTree) + "/runtime/cfm/lbr:" + std::to_string(n)).c_str(), 0755);
  ASSERT_NO_FATAL_FAILURE(Start("1", {"-i", "wan0", "-e", "-t", kTree}));
  std::atomic<bool> done{false};
  std::thread lbrs([&] {
    for (uint32_t id = 0; !done; ++id, std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
      Frame lbr = Tagged(kWanMac, kPeerMac, 5, 100, 2, 2, 0, 4, LbmBody(id));
      lbr.resize(64, 0);
      peer().Send(lbr);
    }
  });
  std::vector<double> rtt_ms;
  for (uint32_t id = 1000000; id < 1000020; ++id, std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_TRUE(peer().Send(Lbm(kWanMac, 2, LbmBody(id))));
    auto reply = peer().Receive(1000, [id](const Frame &f) { return Opcode(f) == 2 && f.size() > 25 && f[25] == (id & 0xFF); });
    if (reply) rtt_ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
  }
  done = true;
  lbrs.join();
  ASSERT_EQ(rtt_ms.size(), 20u);
  std::sort(rtt_ms.begin(), rtt_ms.end());
  EXPECT_LE(rtt_ms[10], 10.0) << "median LBM round trip, ms";
  EXPECT_EQ(ReadFile(std::string(kTree) + "/runtime/cfm/lbr:4097/transID"), "");
  EXPECT_EQ(Command({"clearlbr"}), "");
  EXPECT_EQ(access((std::string(kTree) + "/runtime/cfm/lbr:1").c_str(), F_OK), -1);
}

}  // namespace
