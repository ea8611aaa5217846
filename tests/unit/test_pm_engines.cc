// Delay and synthetic-loss measurement driven in-process: requests in through
// the engine entry points, replies out through the transmit hook.
#include "core/startup.h"
#include "engines/dm.h"
#include "engines/pm_pdu.h"
#include "engines/pm_session.h"
#include "engines/slm.h"
#include "core/events.h"
#include "harness.h"

using namespace harness;

namespace {

const uint8_t kClass1[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x34};
const uint8_t kOther[6] = {0x02, 0x99, 0x99, 0x99, 0x99, 0x99};
int64_t g_ms = 0;  // the sessions' clock while a test sets it
int64_t test_clock() { return g_ms; }

Bytes stamp(uint32_t sec, uint32_t nsec) { return cat({be32(sec), be32(nsec)}); }
Bytes dm_body(const Bytes &tx_f, const Bytes &rx_f = Bytes(8), const Bytes &tx_b = Bytes(8)) {
  return cat({tx_f, rx_f, tx_b, Bytes(8), {0}});
}
Bytes sl_body(uint16_t src, uint16_t rsp, uint32_t test, uint32_t fcf, uint32_t fcb) {
  return cat(
      {{uint8_t(src >> 8), uint8_t(src), uint8_t(rsp >> 8), uint8_t(rsp)}, be32(test), be32(fcf), be32(fcb), {0}});
}

class Pm : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    cfm_pm_reset();
    cfm_pm_enable(true);
    cfm_pm_set_clock(test_clock);
    g_ms = 0;
    add_md(1, 4);
    add_ma(1, 1, "ma");
    down = add_mep(1, 1, 7, 1, 100, 1);
  }
  void TearDown() override {
    cfm_pm_enable(false);
    cfm_pm_set_clock(nullptr);
    EngineTest::TearDown();
  }
  static void learn(uint32_t ma, uint16_t id, const uint8_t *at) {  // a remote MEP of MD 1
    RemoteMepEntry r = {};
    r.md_id = 1, r.ma_id = ma, r.rmep_id = id, r.AgeTime = 100000, memcpy(r.src_mac, at, 6);
    CFM_MEP_DB_Store_RemEntry(&r);
  }
  // Hands a frame over as received at 1000 s + 500 ns, vid 100, priority 5.
  uint32_t run(uint32_t (*engine)(CfmPacket *), Bytes frame, uint32_t inner_vid = CFM_NO_INNER_VID) {
    CfmPacket p = packet(frame, 5, 100, inner_vid, 6);
    p.rx_time = {1000, 500};
    return engine(&p);
  }
  PmCounters counters(uint32_t ma = 1, uint16_t mep = 7) {
    PmLock lock(cfm_pm_mutex());
    PmMep *pm = cfm_pm_find(1, ma, mep, false);
    return pm != nullptr ? pm->c : PmCounters{};
  }
  PmSession session(PmKind kind, uint32_t ma = 1, uint16_t mep = 7) { return pm(ma, mep).s[kind]; }
  PmMep pm(uint32_t ma = 1, uint16_t mep = 7) {
    PmLock lock(cfm_pm_mutex());
    return *cfm_pm_find(1, ma, mep, false);
  }
  MepEntry down;
};

TEST_F(Pm, DmmIsAnsweredWithTheRequestTurnedRoundAndStamped) {
  Bytes dmm = cfm_frame(kSelf, kPeer, 4, 47, 0, 32, dm_body(stamp(7, 8)));
  ASSERT_EQ(run(CFM_DMM_Process, dmm), CFM_OK);
  ASSERT_EQ(wan_.size(), 1u);
  const Bytes &r = wan_[0];
  EXPECT_EQ(slice(r, 0, 22), cat({mac(kPeer), mac(kSelf), {0x81, 0x00, 0xA0, 100, 0x89, 0x02, 0x80, 46, 0, 32}}));
  EXPECT_EQ(slice(r, 22, 38), cat({stamp(7, 8), stamp(1000, 500)}));  // TxTimeStampf kept, receive time
  EXPECT_GT(cfm_stamp_get(r.data() + 38).sec, 1000u);  // TxTimeStampb taken from the clock when sent
  EXPECT_EQ(slice(r, 46, 55), Bytes(9));
  // Version 1 is echoed; the class 1 address of a Down MEP is answered from
  // the system MAC; a double tag is kept whole.
  Bytes v1 = dmm;
  v1[14] |= 1;
  ASSERT_EQ(run(CFM_DMM_Process, v1, 200), CFM_OK);
  EXPECT_EQ(slice(wan_[1], 12, 24), Bytes({0x81, 0x00, 0xA0, 100, 0x81, 0x00, 0xC0, 200, 0x89, 0x02, 0x81, 46}));
  EXPECT_EQ(wan_[1].size(), 64u);
  ASSERT_EQ(run(CFM_DMM_Process, cfm_frame(kClass1, kPeer, 4, 47, 0, 32, dm_body(stamp(7, 8)))), CFM_OK);
  EXPECT_EQ(slice(wan_[2], 0, 12), cat({mac(kPeer), mac(kSelf)}));
  EXPECT_EQ(std::tuple(counters().dmm_in, counters().dmr_out), std::tuple(3u, 3u));
}

TEST_F(Pm, MalformedOrForeignRequestsGetNothing) {
  Bytes good_dm = cfm_frame(kSelf, kPeer, 4, 47, 0, 32, dm_body(stamp(7, 8)));
  Bytes good_sl = cfm_frame(kSelf, kPeer, 4, 55, 0, 16, sl_body(3, 0, 9, 1, 0));
  auto with = [](Bytes f, size_t at, uint8_t v) { return f[at] = v, f; };
  // Version 2, flags, first TLV offset, level 3 (no MEP), EtherType, group source, a TLV running past the
  // end, cut before the End TLV, another unicast address, the class 1 address of another level.
  std::vector<Bytes> dms = {with(good_dm, 14, 0x82), with(good_dm, 16, 1), with(good_dm, 17, 4), with(good_dm, 14, 0x60),
                            with(good_dm, 12, 0x88), with(good_dm, 6, 0x03), cat({slice(good_dm, 0, 50), {3, 0, 9}}),
                            slice(good_dm, 0, 49), cfm_frame(kOther, kPeer, 4, 47, 0, 32, dm_body(stamp(7, 8))),
                            cfm_frame(kClass1, kPeer, 5, 47, 0, 32, dm_body(stamp(7, 8)))};
  for (const Bytes &f : dms) EXPECT_NE(run(CFM_DMM_Process, f), CFM_OK);
  EXPECT_NE(run(CFM_SLM_Process, with(good_sl, 14, 0x81)), CFM_OK);  // SLM has only version 0
  EXPECT_NE(run(CFM_SLM_Process, cfm_frame(kClass1, kPeer, 4, 55, 0, 16, sl_body(3, 0, 9, 1, 0))), CFM_OK);
  // Another VID, and an Up MEP at the class 1 address.
  Bytes f = good_dm;
  CfmPacket p = packet(f, 5, 101);
  EXPECT_NE(CFM_DMM_Process(&p), CFM_OK);
  CFM_Delete_MEP_Entry(&down);
  add_mep(1, 1, 7, 1, 100, 2);
  EXPECT_NE(run(CFM_DMM_Process, cfm_frame(kClass1, kPeer, 4, 47, 0, 32, dm_body(stamp(7, 8)))), CFM_OK);
  EXPECT_TRUE(wan_.empty());
  g_pvc_mac_table = {1, const_cast<uint8_t *>(kOther)};  // kOther as one of the router's PVC MACs (read only)
  EXPECT_EQ(run(CFM_DMM_Process, cfm_frame(kOther, kPeer, 4, 47, 0, 32, dm_body(stamp(7, 8)))), CFM_OK);
  g_pvc_mac_table = {};
}

TEST_F(Pm, SlrCountsSlmsPerSourceAndTestWithBoundedMemory) {
  auto slm = [&](uint16_t src, uint32_t test, uint32_t fcf) {
    EXPECT_EQ(run(CFM_SLM_Process, cfm_frame(kSelf, kPeer, 4, 55, 0, 16, sl_body(src, 0, test, fcf, 0))), CFM_OK);
    return wan_.back();
  };
  Bytes r = slm(3, 9, 41);
  EXPECT_EQ(slice(r, 0, 22), cat({mac(kPeer), mac(kSelf), {0x81, 0x00, 0xA0, 100, 0x89, 0x02, 0x80, 54, 0, 16}}));
  EXPECT_EQ(slice(r, 22, 39), sl_body(3, 7, 9, 41, 1));
  EXPECT_EQ(slice(slm(3, 9, 42), 34, 38), be32(2));
  EXPECT_EQ(slice(slm(4, 9, 1), 34, 38), be32(1));  // another source
  EXPECT_EQ(slice(slm(3, 10, 1), 34, 38), be32(1));  // another test
  // A further CFM_PM_MAX_TESTS tests push out the one heard from longest ago.
  slm(3, 10, 2);
  for (uint32_t t = 100; t < 100 + CFM_PM_MAX_TESTS - 1; ++t) slm(5, t, 1);
  EXPECT_EQ(slice(slm(3, 10, 3), 34, 38), be32(3));
  EXPECT_EQ(slice(slm(3, 9, 43), 34, 38), be32(1));
  EXPECT_EQ(counters().slm_in, counters().slr_out);
}

TEST_F(Pm, DelaySessionTakesTheResponderTimeOut) {
  PmStartRequest req = {kPmDm, 1, 1, 7, {}, 0, false, 2, 100, 3, 0, false};
  memcpy(req.target_mac, kPeer, 6);
  EXPECT_NE(cfm_pm_start({kPmDm, 1, 1, 8, {}, 0, false, 2, 100, 3, 0, false}), CFM_OK);  // no such MEP
  EXPECT_NE(cfm_pm_start({kPmDm, 1, 1, 7, {}, 0, false, 2, 50, 3, 0, false}), CFM_OK);   // period
  EXPECT_NE(cfm_pm_start({kPmKinds, 1, 1, 7, {}, 0, false, 2, 100, 3, 0, false}), CFM_OK);  // kind
  ASSERT_EQ(cfm_pm_start(req), CFM_OK);
  CFM_PM_XMIT_Check();
  ASSERT_EQ(wan_.size(), 1u);
  EXPECT_EQ(slice(wan_[0], 0, 22), cat({mac(kPeer), mac(kSelf), {0x81, 0x00, 0x60, 100, 0x89, 0x02, 0x80, 47, 0, 32}}));
  EXPECT_GT(cfm_stamp_get(wan_[0].data() + 22).sec, 1000u);
  auto dmr = [&](const Bytes &tx_f) {
    return run(CFM_DMR_Process, cfm_frame(kSelf, kPeer, 4, 46, 0, 32, dm_body(tx_f, stamp(50, 0), stamp(50, 200))));
  };
  // Received at 1000 s + 500 ns, 200 ns spent in the responder: 300 ns, then 500.
  EXPECT_EQ(dmr(stamp(1000, 0)), CFM_OK);
  EXPECT_NE(dmr(stamp(1000, 0)), CFM_OK);  // more replies than requests
  g_ms += 110;
  CFM_PM_XMIT_Check();
  EXPECT_EQ(dmr(stamp(999, 999999800)), CFM_OK);
  CFM_PM_XMIT_Check();
  EXPECT_EQ(wan_.size(), 2u);  // the count is reached
  PmResult r = cfm_pm_result(pm(), kPmDm);
  EXPECT_EQ(std::tuple(r.sent, r.received, r.delay_min_ns, r.delay_avg_ns, r.delay_median_ns, r.delay_max_ns),
            std::tuple(2u, 2u, 300, 400, 500, 500));
  EXPECT_EQ(std::tuple(r.dv_max_ns, r.dv_avg_ns), std::tuple(200, 200));
  EXPECT_EQ(counters().dmr_in, 3u);
  static std::string done;  // the session's end as an event, with its figures
  cfm_events_add_sink([](const CfmEvent &e) { done = cfm_event_json(e); });
  EXPECT_EQ(cfm_pm_stop(kPmDm, 1, 1, 7), CFM_OK);
  EXPECT_NE(cfm_pm_stop(kPmDm, 1, 1, 7), CFM_OK);
  cfm_events_deliver();
  EXPECT_EQ(done.substr(done.find("\"pm\"")), "\"pm\":\"dm\",\"result\":\"stopped\",\"sent\":2,\"replies\":2,\"lost\":0,"
            "\"invalid\":0,\"delay_min_ns\":300,\"delay_avg_ns\":400,\"delay_max_ns\":500}");
}

TEST_F(Pm, LossSessionReportsEachDirection) {
  learn(1, 3, kPeer);
  ASSERT_EQ(cfm_pm_start({kPmSlm, 1, 1, 7, {}, 3, true, 0, 100, 0, 77, true}), CFM_OK);
  for (int i = 0; i < 10; ++i, g_ms += 100) CFM_PM_XMIT_Check();
  ASSERT_EQ(wan_.size(), 10u);
  EXPECT_EQ(slice(wan_[9], 0, 6), mac(kPeer));
  EXPECT_EQ(slice(wan_[9], 22, 39), sl_body(7, 0, 77, 10, 0));
  // Between the first SLR (TxFCf 1, TxFCb 1) and the last (10, 8) the peer
  // got 7 of 9 SLMs; 5 of its 7 replies came back. The responder's count
  // goes on from an earlier session (+1000): only differences count.
  auto slr = [&](uint32_t test, uint32_t fcf, uint32_t fcb, uint16_t rsp = 3) {
    return run(CFM_SLR_Process, cfm_frame(kSelf, kPeer, 4, 54, 0, 16, sl_body(7, rsp, test, fcf, fcb + 1000)));
  };
  // Another test, another responder; then two invalid: never sent, and 0.
  for (auto [test, fcf, rsp] : {std::tuple{78, 1, 3}, {77, 1, 4}, {77, 11, 3}, {77, 0, 3}}) EXPECT_NE(slr(test, fcf, 1, rsp), CFM_OK);
  PmResult r = cfm_pm_result(pm(), kPmSlm);
  EXPECT_FALSE(r.has_far || r.has_near);
  for (auto [fcf, fcb] : {std::pair{2, 2}, {4, 3}, {5, 4}, {1, 1}, {10, 8}, {7, 5}}) EXPECT_EQ(slr(77, fcf, fcb), CFM_OK);
  r = cfm_pm_result(pm(), kPmSlm);
  EXPECT_EQ(std::tuple(r.far_lost, r.near_lost, r.far_ratio, r.near_ratio, r.lost, r.invalid),
            std::tuple(2u, 2u, 2.0 / 9, 2.0 / 7, 2u, 2u));
  EXPECT_EQ(slr(77, 3, 2) + slr(77, 6, 4), 2 * CFM_OK);
  EXPECT_NE(slr(77, 8, 6), CFM_OK);  // more replies than requests
  EXPECT_EQ(counters().slr_in, 13u);
}

TEST_F(Pm, OnlyOptionYDispatchesAndCommands) {
  Bytes dmm = cfm_frame(kSelf, kPeer, 4, 47, 0, 32, dm_body(stamp(7, 8)));
  for (bool on : {false, true}) {
    cfm_pm_enable(on);
    CfmPacket p = packet(dmm, 5, 100);
    cfm_dispatch_packet(&p);
    EXPECT_EQ(wan_.size(), on ? 1u : 0u);
    if (!on) { EXPECT_EQ(Cli("pmshow"), "\r\nError!! Performance monitoring is off (start with -y)"); }
  }
  EXPECT_NE(Cli("showmep").find("\r\nPM md 1 ma 1 mep 7: DMM in 1 out 0, DMR in 0 out 1, SLM in 0"), std::string::npos);
  for (const char *bad : {"pmstart dm 1 1 7 02:11:22:33:44:55 1 10000 8", "pmstart slm 1 1 7 03:11:22:33:44:55 1 10000 1"})
    EXPECT_EQ(Cli(bad), "\r\nError!! Usage: pmstart dm|slm|1dm MD MA MEP TARGET COUNT PERIOD PRIORITY [TESTID]");
  EXPECT_EQ(Cli("pmstart slm 1 1 7 02:11:22:33:44:55 0 10000 1 5 more"), "");  // a word beyond is not read
  EXPECT_EQ(session(kPmSlm).test_id, 5u);
  EXPECT_EQ(Cli("pmstop slm 1 1 7"), "");
  EXPECT_EQ(Cli("pmshow json"),
            "{\"meps\":[{\"md\":1,\"ma\":1,\"mep\":7,\"dmm_in\":1,\"dmm_out\":0,\"dmr_in\":0,\"dmr_out\":1,\"slm_in\":0,"
            "\"slm_out\":0,\"slr_in\":0,\"slr_out\":0,\"one_dm_in\":0,\"one_dm_out\":0,\"one_dm\":null}],\"sessions\":[{"
            "\"kind\":\"slm\",\"md\":1,\"ma\":1,\"mep\":7,\"state\":\"finished\",\"test_id\":5,\"target_mac\":"
            "\"02:11:22:33:44:55\",\"target_rmep\":null,\"period_ms\":10000,\"count\":0,\"sent\":0,\"received\":0,"
            "\"lost\":0,\"invalid\":0,\"near_loss\":null,\"far_loss\":null,\"near_lost\":null,\"far_lost\":null}]}\n");
  // A remote MEPID the MA has not learnt is refused and the session before stays.
  EXPECT_EQ(Cli("pmstart slm 1 1 7 3 0 100 1"), "\r\nError!! Cannot start: remote MEP 3 is unknown in the MEP's MA");
  EXPECT_EQ(std::tuple(session(kPmSlm).test_id, session(kPmSlm).state), std::tuple(5u, 2u));
}

TEST_F(Pm, ForgedDmrsAreInvalidAndNoSumOverflows) {
  ASSERT_EQ(Cli("pmstart dm 1 1 7 02:11:22:33:44:55 0 100 0"), "");
  for (int i = 0; i < 11; ++i, g_ms += 100) CFM_PM_XMIT_Check();
  // Received at 1000 s + 500 ns; TxTimeStampf, RxTimeStampf, TxTimeStampb as seconds, nanoseconds. Invalid:
  // all ones (the attack), a residence far below zero, nanoseconds of 10^9 in each stamp, a residence of
  // -1 ns and of 10 s + 1 ns, a delay of 10 s + 1 ns and of -1 ns. Valid: 10 s in a 10 s residence, and 0.
  const uint32_t forged[][6] = {
      {1000, 0, ~0u, ~0u, 0, 0},         {1000, 0, ~0u, 999999999, 0, 0},     {999, 1000000500, 50, 0, 50, 0},
      {1000, 500, 50, 1000000000, 51, 0}, {1000, 500, 51, 0, 50, 1000000000}, {1000, 500, 50, 1, 50, 0},
      {980, 499, 50, 0, 60, 1},          {980, 499, 50, 0, 60, 0},            {1000, 501, 50, 0, 50, 0},
      {980, 500, 50, 0, 60, 0},          {1000, 500, 7, 0, 7, 0},             {1000, 500, 7, 0, 7, 0}};
  for (const uint32_t *t : forged) {
    Bytes body = dm_body(stamp(t[0], t[1]), stamp(t[2], t[3]), stamp(t[4], t[5]));
    bool valid = t == forged[9] || t == forged[10];  // the last: every DMM was answered
    EXPECT_EQ(run(CFM_DMR_Process, cfm_frame(kSelf, kPeer, 4, 46, 0, 32, body)) == CFM_OK, valid) << t - forged[0];
  }
  PmResult r = cfm_pm_result(pm(), kPmDm);
  EXPECT_EQ(std::tuple(r.invalid, r.received, r.lost, r.delay_avg_ns, r.dv_avg_ns, r.delay_median_ns),
            std::tuple(9u, 2u, 0u, 5000000000, 10000000000, 10000000000));
  EXPECT_NE(Cli("pmshow").find("invalid 9"), std::string::npos);
  // 1DMs of 500 ns and 1 s; one with nanoseconds of 10^9 is counted in but not taken.
  for (auto [sec, ns] : {std::pair{1000u, 0u}, {999u, 500u}, {999u, 1000000000u}})
    run(CFM_1DM_Process, cfm_frame(kSelf, kPeer, 4, 45, 0, 16, cat({stamp(sec, ns), Bytes(8), {0}})));
  PmMep m = pm();
  EXPECT_EQ(std::tuple(m.c.one_dm_in, m.one_dm_count, m.one_dm_last_ns, m.one_dm_min_ns, m.one_dm_max_ns),
            std::tuple(3u, 2u, 1000000000, 500, 1000000000));
  // Four thousand million samples of 10 s, and carries of the nanoseconds.
  EXPECT_EQ(cfm_pm_sum_mean({uint64_t(UINT32_MAX) * 10, 0}, UINT32_MAX), 10000000000);
  PmSum sum = {};
  for (int64_t ns : {int64_t(1999999999), int64_t(500000001), int64_t(1)}) cfm_pm_sum_add(&sum, ns);
  EXPECT_EQ(std::tuple(sum.sec, sum.ns, cfm_pm_sum_mean(sum, 3)), std::tuple(2u, 500000001u, 833333333));
}

TEST_F(Pm, EachFrameLeavesAtItsOwnTimeAndASessionEndsAfterItsReplies) {
  ASSERT_EQ(Cli("pmstart 1dm 1 1 7 02:11:22:33:44:55 5 100 0"), "");
  // A late wake sends one frame, keeps the period's times when less than a
  // period late, and starts them anew from now when more.
  const std::pair<int64_t, size_t> steps[] = {{0, 1},   {50, 1},  {103, 2}, {199, 2},  {200, 3},
                                              {650, 4}, {749, 4}, {750, 5}, {2749, 5}, {2750, 5}};
  for (auto [ms, frames] : steps) {
    g_ms = ms, CFM_PM_XMIT_Check();
    EXPECT_EQ(std::tuple(wan_.size(), session(kPm1Dm).state), std::tuple(frames, ms < 2750 ? 1u : 2u)) << ms;
  }
}

TEST_F(Pm, RepliesAndRequestsGoToTheMepTheyAreFor) {
  // MEP 8 of MA 2 shares MEP 7's VID and level; only MEP 8 runs sessions,
  // and the peer is a remote MEP of MA 2.
  add_ma(1, 2, "mb");
  add_mep(1, 2, 8, 1, 100, 1);
  learn(2, 3, kPeer);
  for (const char *start : {"dm 1 2 8 3", "slm 1 2 8 3", "dm 1 1 7 02:99:99:99:99:99"})
    ASSERT_EQ(Cli(std::string("pmstart ") + start + " 0 100 0"), "");
  CFM_PM_XMIT_Check();
  uint32_t test = session(kPmSlm, 2, 8).test_id;
  EXPECT_EQ(run(CFM_DMR_Process, cfm_frame(kSelf, kPeer, 4, 46, 0, 32, dm_body(stamp(1000, 0)))), CFM_OK);
  EXPECT_EQ(run(CFM_SLR_Process, cfm_frame(kSelf, kPeer, 4, 54, 0, 16, sl_body(8, 3, test, 1, 1))), CFM_OK);
  for (const uint8_t *from : {kPeer, kPeer, kOther})
    EXPECT_EQ(run(CFM_DMM_Process, cfm_frame(kSelf, from, 4, 47, 0, 32, dm_body(stamp(7, 8)))), CFM_OK);
  // A stranger's DMM goes to the first MEP, nothing else to MEP 7.
  EXPECT_EQ(std::tuple(session(kPmDm, 2, 8).received, session(kPmSlm, 2, 8).received, counters(2, 8).dmm_in),
            std::tuple(1u, 1u, 2u));
  EXPECT_EQ(std::tuple(counters().dmm_in, counters().dmr_in, counters().slr_in), std::tuple(1u, 0u, 0u));
  // A second loss session gets a test ID of its own.
  ASSERT_EQ(Cli("pmstart slm 1 1 7 02:11:22:33:44:55 0 100 0 " + std::to_string(test + 1)), "");
  ASSERT_EQ(Cli("pmstart slm 1 2 8 3 0 100 0"), "");
  EXPECT_EQ(session(kPmSlm, 2, 8).test_id, test + 2);  // test + 1 is MEP 7's
}

TEST_F(Pm, AFullTableReusesTheRecordOfADeletedMep) {
  auto start = [](int id) { return Cli("pmstart dm 1 1 " + std::to_string(id) + " 02:11:22:33:44:55 0 100 0"); };
  std::vector<MepEntry> meps = {down};
  for (uint16_t id = 8; id < 7 + CFM_PM_MAX_MEP; ++id) meps.push_back(add_mep(1, 1, id, 1, 100, 1));
  for (const MepEntry &m : meps) ASSERT_EQ(start(m.mep_id), "");
  CFM_Delete_MEP_Entry(&meps[1]);  // MEP 8: its record, the second, stays
  add_mep(1, 1, 200, 1, 100, 1);
  EXPECT_EQ(start(200), "");
  PmLock lock(cfm_pm_mutex());
  EXPECT_TRUE(cfm_pm_find(1, 1, 7, false) != nullptr && cfm_pm_find(1, 1, 8, false) == nullptr && cfm_pm_at(1)->mep_id == 200);
}

}  // namespace
