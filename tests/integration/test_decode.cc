// An independent decoder reads what the daemon sends: every kind of frame it
// builds (CCM, LBM, LBR, LTM, LTR, DMM, DMR, 1DM, SLM, SLR) is captured on
// the peer, written to a pcap file and decoded by tshark, which must find
// nothing malformed and read back the fields the test set.
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::Lab;

Frame ToWan(uint8_t opcode, uint8_t flags, uint8_t first_tlv, const Frame &body, uint8_t level = 4) {
  Frame f(cfmlab::kWanMac.begin(), cfmlab::kWanMac.end());
  f.insert(f.end(), cfmlab::kPeerMac.begin(), cfmlab::kPeerMac.end());
  f.insert(f.end(), {0x81, 0x00, 0x60, 100, 0x89, 0x02, uint8_t(level << 5), opcode, flags, first_tlv});
  f.insert(f.end(), body.begin(), body.end());
  f.resize(std::max<size_t>(f.size(), 64), 0);
  return f;
}

void WritePcap(const std::string &path, const std::vector<Frame> &frames) {
  FILE *f = fopen(path.c_str(), "wb");
  const uint32_t head[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
  fwrite(head, sizeof head, 1, f);
  for (const Frame &frame : frames) {
    const uint32_t rec[4] = {0, 0, uint32_t(frame.size()), uint32_t(frame.size())};
    fwrite(rec, sizeof rec, 1, f);
    fwrite(frame.data(), frame.size(), 1, f);
  }
  fclose(f);
}

TEST_F(Lab, TsharkDecodesEveryFrameTheDaemonSends) {
  if (Shell("command -v tshark >/dev/null") != 0) GTEST_SKIP() << "tshark is not installed";
  ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-e", "-y"}));
  const std::string mep = "1 md 1 ma 7 port 1 vid 100 dir 100 o ";
  for (const std::string &request : std::vector<std::string>{
           "createmd 1 level 4 name dom", "createma 1 ma 1 name assoc", "createmep 1 md 1 ma 7 port 1 vid 100 dir 1",
           "configmep " + mep + "2 21", "configmep " + mep + "5 51 7 1 6 02:00:00:00:0b:02 15 data",
           "configmep " + mep + "10 02:00:00:00:0b:02 12 121", "pmstart dm 1 1 7 02:00:00:00:0b:02 1 100 5",
           "pmstart slm 1 1 7 02:00:00:00:0b:02 1 100 5 42", "pmstart 1dm 1 1 7 02:00:00:00:0b:02 1 100 5"}) {
    ASSERT_EQ(Command(request), "") << request;
  }
  const Frame stamp = {0x6b, 0x05, 0xd3, 0x8b, 0x07, 0x5b, 0xcd, 0x15};
  Frame dmm_body = stamp;
  dmm_body.resize(33, 0);
  const uint8_t *pm = cfmlab::kPeerMac.data(), *wan = cfmlab::kWanMac.data();
  Frame ltm_body = {0, 0, 0, 9, 16};
  ltm_body.insert(ltm_body.end(), pm, pm + 6);
  ltm_body.insert(ltm_body.end(), wan, wan + 6);
  ltm_body.insert(ltm_body.end(), {7, 0, 8, 0, 100});
  ltm_body.insert(ltm_body.end(), pm, pm + 6);
  ltm_body.push_back(0);
  for (const Frame &f : {ToWan(3, 0, 4, {0, 0, 0, 5, 0}, 2), ToWan(5, 0x80, 17, ltm_body), ToWan(47, 0, 32, dmm_body),
                         ToWan(55, 0, 16, {0, 3, 0, 0, 0, 0, 0, 9, 0, 0, 0, 1, 0, 0, 0, 0, 0})}) {
    ASSERT_TRUE(peer().Send(f));
  }
  std::vector<Frame> frames = peer().ReceiveAll(2500);
  const std::string pcap = "/var/lab/sent.pcap";
  WritePcap(pcap, frames);
  std::string out_file = "/var/lab/decoded.txt";
  ASSERT_EQ(Shell("tshark -r " + pcap + " -T fields -E 'separator=|' -e cfm.opcode -e cfm.md.level -e _ws.malformed " +
                  "-e _ws.expert.severity -e cfm.odm.dmm.dmr.txtimestampf -e cfm.slm.src_mep_id -e " +
                  "cfm.slr.rsp_mep_id -e cfm.slm.test_id -e cfm.slm.txfcf -e cfm.slr.txfcb -e cfm.lb.transaction.id" +
                  " > " + out_file + " 2>/dev/null"),
            0);
  std::map<std::string, std::string> by_opcode;
  std::istringstream lines(ReadFile(out_file));
  for (std::string line; std::getline(lines, line);) {
    std::string opcode = line.substr(0, line.find('|'));
    // Level 4 (2 for the LBR), nothing malformed, no expert note.
    EXPECT_EQ(line.substr(opcode.size(), 5), opcode == "2" ? "|2|||" : "|4|||") << line;
    by_opcode[opcode] = line.size() > opcode.size() + 5 ? line.substr(opcode.size() + 5) : line;
  }
  std::set<std::string> seen;
  for (const auto &entry : by_opcode) seen.insert(entry.first);
  EXPECT_EQ(seen, (std::set<std::string>{"1", "2", "3", "4", "5", "45", "46", "47", "54", "55"}));
  EXPECT_EQ(by_opcode["46"], "6b05d38b075bcd15||||||");  // the DMM's TxTimestampf, echoed
  EXPECT_EQ(by_opcode["55"], "|7|0|0000002a|1|0|");        // the daemon's SLM: MEP 7, test 42, first
  EXPECT_EQ(by_opcode["54"], "|3|7|00000009|1|1|");      // its SLR to the peer's test 9
  EXPECT_EQ(by_opcode["2"], "||||||5");                  // the LBR keeps the transaction identifier
}

}  // namespace
