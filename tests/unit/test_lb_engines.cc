// Loopback responder and initiator driven in-process: frames in through the
// engine entry points, frames out through the transmit hook, ticks by call.
#include "core/status.h"
#include "harness.h"
#include "engines/lb_responder.h"

using namespace harness;

namespace {

const uint8_t kGroup1[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x31};
const uint8_t kGroup2[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x32};

// LBM body: transaction id 0x11223344, Data TLV "hi", End TLV.
const Bytes kLbmBody = {0x11, 0x22, 0x33, 0x44, 0x03, 0x00, 0x02, 'h', 'i', 0x00};

Bytes lbm(const uint8_t *dst, uint8_t level, const Bytes &body = kLbmBody, const uint8_t *src = kPeer) {
  return cfm_frame(dst, src, level, 3, 0, 4, body);
}

class Responder : public EngineTest {
 protected:
  uint32_t process(Bytes frame, uint32_t vid = 100, uint32_t inner_vid = CFM_NO_INNER_VID) {
    CfmPacket p = packet(frame, 5, vid, inner_vid, 6);
    return CFM_LBM_Process(&p, 1);
  }
};

TEST_F(Responder, AnswersLevelsOneAndTwoWithTheLbmSwappedAndCountsLbrOut) {
  add_md(1, 2);
  MepEntry mep = add_mep(1, 1, 1, 1, 100, 1);
  add_mep(1, 1, 2, 3, 100, 1);  // another port: not the receiving MEP
  ASSERT_EQ(process(lbm(kSelf, 2)), CFM_OK);
  // To the group address of level 1, with no MD of that level: answered
  // from the system MAC, and not counted.
  ASSERT_EQ(process(lbm(kGroup1, 1)), CFM_OK);
  EXPECT_EQ(read_mep(mep).LbrOut, 1u);
  // Double tag: both tags kept, and the length of the untagged LBM + 4 (32),
  // so its last 4 bytes are not sent.
  ASSERT_EQ(process(lbm(kSelf, 2), 100, 200), CFM_OK);
  // "8023": the 802.3 length and LLC/SNAP header are copied.
  setFrameType(CFM_FRAME_TYPE_8023);
  Bytes f = cat({mac(kSelf), mac(kPeer),
                 {0x00, 0x30, 0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00, 0x89, 0x02, 0x20, 0x03, 0x00, 0x04, 0, 0, 0, 7, 0}});
  ASSERT_EQ(process(f), CFM_OK);
  ASSERT_EQ(wan_.size(), 4u);
  const Bytes head = {0x81, 0x00, 0xA0, 0x64, 0x89, 0x02, 0x40, 0x02, 0x00, 0x04};
  EXPECT_EQ(wan_[0], pad64(cat({mac(kPeer), mac(kSelf), head, kLbmBody})));
  EXPECT_EQ(slice(wan_[1], 6, 12), mac(kSelf));
  EXPECT_EQ(wan_[2], pad64(cat({mac(kPeer), mac(kSelf), {0x81, 0x00, 0xA0, 100, 0x81, 0x00, 0xC0, 200},
                                {0x89, 0x02, 0x40, 0x02, 0x00, 0x04}, slice(kLbmBody, 0, 6)})));
  EXPECT_EQ(wan_[3][27], 2);
  EXPECT_EQ(slice(wan_[3], 16, 26), slice(f, 12, 22));
}

TEST_F(Responder, HeaderChecksDropAndRepliesOnlyWhenAllowed) {
  const uint8_t group_src[6] = {0x03, 1, 2, 3, 4, 5};
  std::vector<Bytes> bad = {lbm(kSelf, 0), lbm(kSelf, 3), lbm(kGroup2, 1), lbm(kSelf, 1, kLbmBody, group_src),
                            slice(lbm(kSelf, 2), 0, 21)};
  // EtherType 0x8903, version 1, flags 1, first TLV offset 3.
  for (auto [at, value] : {std::pair<size_t, uint8_t>{13, 0x03}, {14, 0x41}, {16, 1}, {17, 3}}) {
    bad.push_back(lbm(kSelf, 2));
    bad.back()[at] = value;
  }
  for (const Bytes &f : bad) EXPECT_EQ(process(f), CFM_ERR_FAILURE);

  set_status(0);
  add_md(1, 2);
  add_mep(1, 1, 4, 1, 301, 1);  // the receiving port, another VID: not allowed
  EXPECT_EQ(process(lbm(kSelf, 2), 300), CFM_OK);
  EXPECT_TRUE(sent.empty());  // disabled, no MEP of the VID
  EXPECT_EQ(process(lbm(kSelf, 2), 101), CFM_OK);
  EXPECT_EQ(sent.size(), 1u);  // the fixed VIDs are always answered
  add_mep(1, 1, 5, 7, 300, 2);
  EXPECT_EQ(process(lbm(kSelf, 2), 300), CFM_OK);
  EXPECT_EQ(sent.size(), 2u);  // an Up MEP on any port takes it
}

TEST_F(Responder, TlvWalkOutcomes) {
  // Sender ID, org, type 64 and End; a length past the frame (reported);
  // Port Status; exactly one byte after the last TLV, which stands for the
  // End TLV; a length of 0xFFFF; a header cut after the type; no TLV at all.
  const std::pair<Bytes, uint32_t> cases[] = {
      {{1, 0, 1, 9, 31, 0, 3, 0, 0, 0, 64, 0, 0, 0}, CFM_OK}, {{3, 0, 40, 'x', 0}, CFM_ERR_TLV},
      {{2, 0, 1, 2, 0}, CFM_ERR_TLV}, {{3, 0, 1, 'x', 0x55}, CFM_OK}, {{3, 0xFF, 0xFF, 0}, CFM_ERR_TLV},
      {{1, 0, 0, 3, 0}, CFM_ERR_TLV}, {{}, CFM_ERR_TLV}};
  for (const auto &[tlvs, expected] : cases) {
    uint32_t result = 0;
    // Exact-size buffer, so a read past the frame shows under ASan.
    std::string out = stdout_of([&, &tlvs = tlvs] { result = process(lbm(kSelf, 1, cat({{0, 0, 0, 1}, tlvs}))); });
    EXPECT_EQ(result, expected) << testing::PrintToString(tlvs);
    EXPECT_TRUE(&tlvs != &cases[1].first || out == "Debug: Drop Illegal TLV packet ") << out;
  }
}

class Initiator : public EngineTest {
 protected:
  MepEntry start_run(uint32_t messages, const uint8_t *target, const char *data, uint32_t first_id = 7) {
    add_md(1, 2);
    MepEntry mep = add_mep(1, 1, 1, 1, 100, 1);
    mep.LbmTransmitStatus = 1, mep.LbmMessages = messages, mep.LbmPriority = 6, mep.NextLbmTransId = first_id;
    if (target != nullptr) memcpy(mep.LbmTargetMac, target, 6);
    snprintf(mep.LbmDataTlv, sizeof mep.LbmDataTlv, "%s", data);
    CFM_Update_MEP_Entry(&mep);
    return mep;
  }
  uint32_t lbr(Bytes f) {
    CfmPacket p = packet(f, 6, 100);
    return CFM_LBR_Process(&p);
  }
  uint32_t lbr(uint32_t id, const Bytes &data_tlv) {
    return lbr(cfm_frame(kSelf, kPeer, 2, 2, 0, 4, cat({be32(id), data_tlv, {0}})));
  }
  Bytes dst(size_t i) { return slice(sent.at(i).frame, 0, 6); }
};

TEST_F(Initiator, RunOfThreeSendsOnePerTickAndEndsFiveTicksLater) {
  MepEntry mep = start_run(3, kPeer, "abc");
  for (size_t tick = 1; tick <= 7; ++tick) {
    CFM_LBI_XMIT_Check();
    EXPECT_EQ(std::make_pair(sent.size(), read_mep(mep).LbmRunning), std::make_pair(std::min<size_t>(tick, 3), 1u));
  }
  EXPECT_EQ(sent[1].frame, pad64(cat({mac(kPeer), mac(kSelf),
                                      {0x81, 0x00, 0xC0, 0x64, 0x89, 0x02, 0x40, 0x03, 0x00, 0x04, 0, 0, 0, 8, 1, 0, 4,
                                       0, 0, 0, 0, 31, 0, 3, 0x0A, 0, 0, 3, 0, 3, 'a', 'b', 'c', 0}})));
  CFM_LBI_XMIT_Check();
  MepEntry done = read_mep(mep);
  EXPECT_EQ(Bytes({uint8_t(done.LbmRunning), uint8_t(done.NextLbmTransId), uint8_t(done.LbmSeqNumber),
                   uint8_t(done.LbmResultOk), uint8_t(done.LbmTransmitStatus), uint8_t(sent.size()), uint8_t(done.LbmRuns)}),
            Bytes({0, 10, 7, 1, 0, 3, 1}));
}

TEST_F(Initiator, TargetResolutionAndFailedSend) {
  // By MEPID: the level's multicast address, and no Data TLV for an empty text.
  MepEntry mep = start_run(1, nullptr, "");
  mep.LbmTargetIsMepId = 1, mep.LbmTargetMepId = 2;
  CFM_Update_MEP_Entry(&mep);
  CFM_LBI_XMIT_Check();
  EXPECT_EQ(dst(0), mac(kGroup2));
  EXPECT_EQ(sent[0].frame[39], 0);

  // The router's own MAC, and its MAC plus 2 (as an integer: FE does not
  // wrap to 00), are local targets addressed with the router's own MAC.
  const std::tuple<uint8_t, uint8_t, bool> cases[] = {{0xEE, 0xEE, true}, {0xEE, 0xF0, true}, {0xFE, 0x00, false}};
  for (auto [own, target, local] : cases) {
    Bytes self = mac(kSelf), to = mac(kSelf);
    self[5] = own, to[5] = target;
    cfm_set_system_mac(self.data());
    CFM_LB_Init();
    clear_tables();
    start_run(1, to.data(), "");
    CFM_LBI_XMIT_Check();
    EXPECT_EQ(dst(sent.size() - 1), local ? self : to) << int(target);
  }
  // A failed send is reported and spends no transaction id.
  clear_tables();
  mep = start_run(1, kPeer, "", 40);
  tx_ok = false;
  EXPECT_NE(stdout_of(CFM_LBI_XMIT_Check).find("\r\n Send CFM LB packet failed!!"), std::string::npos);
  EXPECT_EQ(read_mep(mep).NextLbmTransId, 40u);
}

// Rows: only for a reply that passed the checks and answers a running run,
// and bounded.
TEST_F(Initiator, LbrDropsCountingAndRows) {
  const Bytes good = {3, 0, 3, 'a', 'b', 'c'};
  MepEntry mep = start_run(3, kPeer, "abc", 20);
  EXPECT_EQ(lbr(20, good), CFM_OK);  // the run has not started
  CFM_LBI_XMIT_Check();
  // Dropped, and counted nowhere (the counts below would show it).
  const Bytes lbm_opcode = cfm_frame(kSelf, kPeer, 2, 3, 0, 4, {0, 0, 0, 20, 0});
  EXPECT_EQ(lbr(20, {3, 0, 9, 'a', 'b', 'c'}), CFM_ERR_TLV);  // data past the frame
  EXPECT_EQ(lbr(20, {2, 0, 1, 1}), CFM_ERR_TLV);              // Port Status TLV
  EXPECT_EQ(lbr(cfm_frame(kSelf, kPeer, 2, 2, 0, 4, {0, 0, 0, 20, 3, 0, 1, 'a'})), CFM_ERR_TLV);  // no End TLV
  EXPECT_EQ(lbr(cfm_frame(kPeer, kPeer, 2, 2, 0, 4, {0, 0, 0, 20, 0})), CFM_ERR_FAILURE);       // not for us
  EXPECT_EQ(lbr(lbm_opcode), CFM_ERR_FAILURE);
  EXPECT_EQ(lbr(slice(lbm_opcode, 0, 20)), CFM_ERR_FAILURE);
  EXPECT_EQ(lbr(20, good), CFM_OK);
  EXPECT_EQ(lbr(22, good), CFM_OK);  // 21 expected: out of order, expects 22
  EXPECT_EQ(lbr(22, good), CFM_OK);  // now in order
  EXPECT_EQ(lbr(23, {3, 0, 3, 'a', 'b', 'd'}), CFM_OK);
  EXPECT_EQ(lbr(24, {}), CFM_OK);  // data missing
  MepEntry m = read_mep(mep);
  EXPECT_EQ(Bytes({uint8_t(m.LbrIn), uint8_t(m.LbrInOutOfOrder), uint8_t(m.LbrBadMsdu), uint8_t(m.LbrExpectedTransId)}),
            Bytes({4, 1, 2, 25}));
  // A run adds as many rows as it has messages, counted afresh; the table holds 1024.
  EXPECT_EQ(std::make_pair(cfm_lbr_rows(), cfm_lbr_rows_unwritten()), std::make_pair(3u, 2u));
  uint32_t id = 25;
  for (uint32_t messages : {2u, 1024u}) {
    m.LbmTransmitStatus = 1, m.LbmMessages = messages;
    CFM_Update_MEP_Entry(&m), CFM_LBI_XMIT_Check();
    for (uint32_t end = id + (messages == 2 ? 3 : 1020); id < end;) lbr(id++, good);
  }
  EXPECT_EQ(std::make_pair(cfm_lbr_rows(), cfm_lbr_rows_unwritten()), std::make_pair(CFM_MAX_LBR_ROWS, 4u));
}

// configmep refuses a running run only; lbstart also one waiting for its
// tick (which configmep would replace). lbstop ends a run, running or
// waiting, at once: its counters stay and it reads as stopped until the next
// start.
TEST_F(Initiator, LbstartRefusesABusyMepAndLbstopEndsTheRun) {
  MepEntry mep = start_run(5, kPeer, "abc", 20);
  add_ma(1, 1, "ma");
  const std::string key = " 1 0 1 0 1 0 1 0 100 0 100 0", busy = "\r\n LBM is still transmiting !\r\n";
  const std::string start = "lbstart" + key + " 7 3 5 51", stop = "lbstop" + key, state = "runtime 6";
  ExpectCli({{start, busy}});
  CFM_LBI_XMIT_Check();
  EXPECT_EQ(lbr(20, {3, 0, 3, 'a', 'b', 'c'}), CFM_OK);
  ExpectCli({{start, busy}, {"configmep" + key + " 7 3", busy}, {stop, ""},
             {"lbstop 1 0 1 0 1 0 1 0 100 0 2", "\r\n This MEP is not exist!\r\n"},
             {state, "LBM Transmit Stopped\n"}, {start, ""}, {state, "LBM Transmit Finished\n"}});
  CFM_LBI_XMIT_Check();
  ExpectCli({{state, "LBM is still Transmiting\n"}, {stop, ""}, {"configmep" + key + " 5 51", ""}, {stop, ""}});
  for (int i = 0; i < 6; ++i) CFM_LBI_XMIT_Check();
  MepEntry m = read_mep(mep);
  EXPECT_EQ(Bytes({uint8_t(sent.size()), uint8_t(m.LbrIn), uint8_t(m.LbmTransmitStatus)}), Bytes({2, 1, 0}));
  ExpectCli({{state, "LBM Transmit Stopped\n"}, {stop, ""}, {"configmep" + key + " 5 52", ""}});
  EXPECT_NE(Cli("showmep 3").find("\r\n LBM Transmit Stopped\r\n LBM Transmit Result    : Success"), std::string::npos);
}

}  // namespace
