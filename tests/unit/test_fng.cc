// Fault notification: the generator as a table of defects over time, and the
// defects the fault layer derives from CCMs, with a fake clock.
#include "core/events.h"
#include "db/ltr_db.h"
#include "engines/fng.h"
#include "engines/lt_done.h"
#include "harness.h"

using namespace harness;

namespace {

// (time ms, defect present) -> what the generator says; alarm 2500, reset 10000.
struct Step {  // out: '-' nothing, 'A' alarm, 'C' cleared
  int64_t at; uint8_t defect; char out; uint8_t reported;
};

TEST(Fng, StateMachine) {
  const std::vector<std::vector<Step>> cases = {
      // A defect for less than the alarm time raises nothing; exactly that long raises once.
      {{0, 3, '-', 0}, {2499, 3, '-', 0}, {2500, 3, 'A', 3}, {2600, 3, '-', 3}},
      // A short defect, gone before the alarm time, starts the wait anew.
      {{0, 3, '-', 0}, {2000, 0, '-', 0}, {2100, 3, '-', 0}, {4599, 3, '-', 0}, {4600, 3, 'A', 3}},
      // A higher defect while raised raises again at once; a lower one does not.
      {{0, 2, '-', 0}, {2500, 2, 'A', 2}, {2600, 1, '-', 2}, {2700, 5, 'A', 5}, {2800, 4, '-', 5}},
      // No defect for the reset time clears once; a defect meanwhile keeps it raised.
      {{0, 3, '-', 0}, {2500, 3, 'A', 3}, {3000, 0, '-', 3}, {12999, 0, '-', 3}, {13000, 0, 'C', 0},
       {20000, 0, '-', 0}},
      {{0, 3, '-', 0}, {2500, 3, 'A', 3}, {3000, 0, '-', 3}, {9000, 3, '-', 3}, {9100, 0, '-', 3},
       {19099, 0, '-', 3}, {19100, 0, 'C', 0}},
      // A higher defect while clearing raises again.
      {{0, 1, '-', 0}, {2500, 1, 'A', 1}, {2600, 0, '-', 1}, {2700, 4, 'A', 4}},
  };
  for (size_t c = 0; c < cases.size(); ++c) {
    FngMachine m;
    for (const Step &s : cases[c]) {
      FngOutput out = cfm_fng_step(&m, s.defect, s.at, 2500, 10000);
      char got = out == FngOutput::Alarm ? 'A' : out == FngOutput::Cleared ? 'C' : '-';
      EXPECT_EQ(got, s.out) << "case " << c << " at " << s.at;
      EXPECT_EQ(m.reported, s.reported) << "case " << c << " at " << s.at;
    }
  }
  // With no alarm time the first defect raises at once.
  FngMachine m;
  EXPECT_EQ(cfm_fng_step(&m, 3, 0, 0, 0), FngOutput::Alarm);
  EXPECT_EQ(cfm_fng_step(&m, 0, 1, 0, 0), FngOutput::Cleared);
}

int64_t g_now = 0;
std::vector<CfmEvent> g_events;

class Faults : public EngineTest {
 protected:
  MepEntry mep_, other_;
  void SetUp() override {
    EngineTest::SetUp();
    [[maybe_unused]] static bool once = (cfm_events_add_sink([](const CfmEvent &e) { g_events.push_back(e); }), true);
    g_now = 100000;
    cfm_fault_set_clock([] { return g_now; });
    add_md(1, 5, "md");
    add_ma(1, 2, "ma", 4);
    mep_ = ccm_mep(1, 2, 1, 10);
    other_ = ccm_mep(1, 2, 3, 20);  // hears nothing: its own state
    cfm_events_deliver(), g_events.clear();  // what an earlier case left
  }
  // Ticks every 100 ms until `ms` have passed; the events in that time.
  std::string run(int64_t ms, const PeerCcm *ccm = nullptr) {
    for (int64_t t = 0; t < ms; t += 100, g_now += 100) {
      if (ccm != nullptr && t % 1000 == 0) deliver_ccm(ccm->untagged(), 10);
      cfm_ccm_fault_alarm_check();
    }
    cfm_events_deliver();
    std::string kinds;
    for (const CfmEvent &e : std::exchange(g_events, {})) kinds += cfm_event_kind_name(e.kind) + std::to_string(e.defect + e.replies) + " ";
    return kinds;
  }
};

TEST_F(Faults, DefectsOfReceivedCcmsRaiseAndClear) {
  // A MEP that hears nothing: loss of continuity after 3.5 intervals, then
  // the alarm time; a peer's CCMs clear it after the reset time.
  EXPECT_EQ(run(3500 + 2400), "");
  EXPECT_EQ(run(200), "fault-alarm3 fault-alarm3 ");
  CFM_Delete_MEP_Entry(&other_);  // its state goes, the first MEP's stays
  PeerCcm ccm;
  EXPECT_EQ(run(9900, &ccm), "rmep-up0 ");
  EXPECT_EQ(run(200, &ccm), "fault-cleared3 ");
  // Each received defect as the highest one while it lasts: 3.5 intervals
  // of the bad CCM (the peer's RDI and port status until it sends again).
  const std::vector<std::tuple<void (*)(PeerCcm &), uint8_t, int64_t>> cases = {
      {[](PeerCcm &c) { c.rdi = true; }, 1, 0}, {[](PeerCcm &c) { c.port_status = 1; }, 2, 0},
      {[](PeerCcm &c) { c.interval = 3; }, 4, 350}, {[](PeerCcm &c) { c.ma_name = "other"; }, 5, 3500}};
  for (auto [bad, defect, hold] : cases) {
    bad(ccm);
    deliver_ccm(ccm.untagged(), 10);
    EXPECT_EQ(cfm_fault_highest_defect(read_mep(mep_)), defect);
    g_now += hold;
    deliver_ccm(PeerCcm{}.untagged(), 10);
    EXPECT_EQ(cfm_fault_highest_defect(read_mep(mep_)), 0) << int(defect);
    ccm = PeerCcm{};
  }
  // The 65th remote MEP of one MEP is not kept apart (the database holds 64 in all).
  for (ccm.mep_id = 100; ccm.mep_id <= 100 + CFM_MAX_REMOTE_MEP; ++ccm.mep_id) deliver_ccm(ccm.untagged(), 10);
  std::string learnt;
  for (int i = 1; i < CFM_MAX_REMOTE_MEP; ++i) learnt += "rmep-up0 ";
  EXPECT_EQ(run(100), learnt);
  // A linktrace is reported 5 s after its LTM, with the replies of its transaction.
  LtrEntry reply = {};
  reply.md_id = 1, reply.ma_id = 2, reply.mep_id = 1, reply.sequence = 7, reply.ReplyNumber = 1;
  CFM_DB_Update_LtrEntry(&reply), reply.sequence = 8, CFM_DB_Update_LtrEntry(&reply);  // and another transaction's
  cfm_lt_done_started(1, 2, 1, 10, 7, true, g_now);
  EXPECT_EQ(run(4900), "");
  EXPECT_EQ(run(200), "lt-done1 ");
}

TEST_F(Faults, QueueKeepsItsBoundAndCountsTheRest) {
  uint64_t before = cfm_events_dropped();
  CfmEvent event = cfm_event_make(CfmEventKind::Config, 1, 2, 1, 10);
  for (size_t i = 0; i < CFM_EVENT_QUEUE_MAX + 3; ++i) cfm_event_post(event);
  EXPECT_EQ(cfm_events_deliver(), CFM_EVENT_QUEUE_MAX);
  EXPECT_EQ(cfm_events_dropped() - before, 3u);
  add_md(2, 3, std::string(43, 'd').c_str()), add_ma(2, 9, std::string(45, 'a').c_str());  // the longest names
  CfmEvent named = cfm_event_make(CfmEventKind::Config, 2, 9, 0, 0);
  EXPECT_EQ(std::string(named.md_name) + named.ma_name, std::string(43, 'd') + std::string(45, 'a'));
}

}  // namespace
