// Management interface: validation order (the first failing check decides),
// defaults, row-status handling and the linktrace step of a MEP Set. The
// defaults that showmep prints, the MD level limit and the refusals the
// commands print are checked through the commands.
#include "harness.h"

// Records are built with aggregate initializers; the fields left out are zero.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using V = std::vector<uint32_t>;
int g_sent = 0, g_send_result = 1;
LtmRequest g_last_request{};
int fake_transmit(const LtmRequest *request) {
  g_last_request = *request;
  return ++g_sent, g_send_result;
}

class MgmtIfTest : public harness::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    g_sent = 0, g_send_result = 1;
    CFM_IF_Set_LTM_Transmitter(fake_transmit);
    MdEntry md{1, 0, 5};
    MaNetEntry ma{1, 2};
    ASSERT_EQ(CFM_IF_Set_MD_Entry(&md), CFM_OK);
    ASSERT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_OK);
  }
  void TearDown() override { CFM_IF_Set_LTM_Transmitter(nullptr); }

  // A create request for MEP 10 (Down) of MD 1, MA 2.
  static MepEntry request() {
    return {.md_id = 1, .ma_id = 2, .mep_id = 10, .direction = 1, .RowStatus = CFM_ROW_CREATE};
  }
};

TEST_F(MgmtIfTest, MdAndMaValidation) {
  EXPECT_EQ(CFM_IF_Set_MD_Entry(nullptr), CFM_ERR_NULL_REQUEST);
  const std::pair<void (*)(MdEntry &), uint32_t> md_cases[] = {
      {[](MdEntry &e) { memset(e.MdName, 'a', sizeof e.MdName); }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.MdFormat = 5; }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.MhfCreation = 5; }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.SenderIdPermission = 6; }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.RowStatus = 3; }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.RowStatus = CFM_ROW_DELETE; }, CFM_ERR_FAILURE}};  // absent
  for (const auto &[change, status] : md_cases) {
    MdEntry e{4};
    change(e);
    EXPECT_EQ(CFM_IF_Set_MD_Entry(&e), status);
  }
  MaNetEntry ma{9, 3, 0, {}, 1};  // the missing MD decides before the bad interval
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_NO_MD_MA);
  ma.MdIndex = 1;
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_OUT_OF_RANGE);
}

// Each request breaks the checks named; the status must be that of the
// earliest check, and nothing may be stored.
TEST_F(MgmtIfTest, MepValidationOrderFirstFailureDecides) {
  struct Case { const char *what; void (*change)(MepEntry &); uint32_t status; };
  const Case cases[] = {
      {"missing MD before bad MEPID", [](MepEntry &e) { e.md_id = 9; e.mep_id = 0; }, CFM_ERR_NO_MD_MA},
      {"missing MA", [](MepEntry &e) { e.ma_id = 3; }, CFM_ERR_NO_MD_MA},
      {"MEPID 0", [](MepEntry &e) { e.mep_id = 0; }, CFM_ERR_OUT_OF_RANGE},
      {"port 9", [](MepEntry &e) { e.port = 9; }, CFM_ERR_OUT_OF_RANGE},
      {"direction 3", [](MepEntry &e) { e.direction = 3; }, CFM_ERR_OUT_OF_RANGE},
      {"alarm priority 7", [](MepEntry &e) { e.LowestAlarmPriority = 7; }, CFM_ERR_OUT_OF_RANGE},
      {"alarm time 249", [](MepEntry &e) { e.FngAlarmTime = 249; }, CFM_ERR_OUT_OF_RANGE},
      {"reset time 1001", [](MepEntry &e) { e.FngResetTime = 1001; }, CFM_ERR_OUT_OF_RANGE},
      {"1025 LBMs", [](MepEntry &e) { e.LbmMessages = 1025; }, CFM_ERR_OUT_OF_RANGE},
      {"priority before running", [](MepEntry &e) { e.CcmLtmPriority = 8, e.LbmRunning = 1; }, CFM_ERR_OUT_OF_RANGE},
      {"LBM running before priority", [](MepEntry &e) { e.LbmRunning = 1, e.LbmPriority = 8; }, CFM_ERR_LBM_RUNNING},
      {"LBM priority 8", [](MepEntry &e) { e.LbmPriority = 8; }, CFM_ERR_OUT_OF_RANGE},
      {"LTM flags before row status", [](MepEntry &e) { e.LtmFlags = 0x40, e.RowStatus = 5; }, CFM_ERR_OUT_OF_RANGE},
      {"unknown row status", [](MepEntry &e) { e.RowStatus = 5; }, CFM_ERR_UNKNOWN_ROW_STATUS},
      {"delete of an absent MEP", [](MepEntry &e) { e.RowStatus = CFM_ROW_DELETE; }, CFM_ERR_FAILURE},
  };
  for (const Case &c : cases) {
    MepEntry e = request();
    c.change(e);
    EXPECT_EQ(CFM_IF_Set_MEP_Entry(&e), c.status) << c.what;
    EXPECT_EQ(CFM_Get_TotalMepEntries(), 0u) << c.what;
  }
  EXPECT_EQ(CFM_IF_Set_MEP_Entry(nullptr), CFM_ERR_NULL_REQUEST);
}

TEST_F(MgmtIfTest, MepCreateFillsDefaultsAndModifyKeepsValues) {
  MepEntry s = request();
  s.Active = 5, s.LbmDropEnable = 2, s.LtmSeqNumber = 41;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  ASSERT_EQ(CFM_Get_MEP_Entry(&s), 1);
  EXPECT_EQ(V({s.Active, s.LbmDropEnable, s.FngState, s.FngAlarmTime, s.FngResetTime, s.LtmNextSeqNumber, s.RowStatus}),
            V({0, 0, 1, 250, 1000, 42, CFM_ROW_IN_USE}));

  s.RowStatus = CFM_ROW_MODIFY;
  s.CciEnabled = 0, s.LbmMessages = 1024, s.LtmSeqNumber = 7;
  s.CcmLtmPriority = 0;  // priority 0 cannot be stored: it becomes 7
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  ASSERT_EQ(CFM_Get_MEP_Entry(&s), 1);
  EXPECT_EQ(V({s.CciEnabled, s.LbmMessages, s.LtmNextSeqNumber, s.CcmLtmPriority}), V({0, 1024, 8, 7}));
}

TEST_F(MgmtIfTest, LinktraceStep) {
  MepEntry e = request();
  e.LtmTransmitStatus = 1, e.LtmTargetIsMepId = 1, e.LtmTargetMepId = 20, e.LtmSeqNumber = 99;
  EXPECT_EQ(CFM_IF_Set_MEP_Entry(&e), CFM_DB_NOT_FOUND);  // unknown remote MEP
  EXPECT_EQ(g_sent + CFM_Get_TotalMepEntries(), 0u);

  RemoteMepEntry peer{.md_id = 1, .ma_id = 2, .rmep_id = 20, .src_mac = {0, 0, 0, 0, 0, 0x55}};
  ASSERT_EQ(mep_process_normal_frame(&peer), CFM_DB_FOUND);
  e.vid = 300, e.LtmFlags = 0x80;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&e), CFM_OK);
  ASSERT_EQ(g_sent, 1);
  const LtmRequest &r = g_last_request;
  EXPECT_EQ(V({r.trans_id, r.md_level, r.priority, r.ttl, r.flags, r.vid, r.target_mac[5]}),
            V({100, 5, 7, 64, 0x80, 300, 0x55}));
  ASSERT_EQ(CFM_Get_MEP_Entry(&e), 1);
  EXPECT_EQ(V({e.LtmResult, e.LtmTransmitStatus, e.LtmSeqNumber, e.LtmNextSeqNumber, e.LtmTargetMac[5], e.LtmRuns}),
            V({1, 0, 100, 101, 0x55, 1}));

  g_send_result = 0;  // a failed send keeps the sequence numbers
  e.RowStatus = CFM_ROW_MODIFY, e.LtmTransmitStatus = 1, e.LtmTargetIsMepId = 0;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&e), CFM_OK);
  ASSERT_EQ(CFM_Get_MEP_Entry(&e), 1);
  EXPECT_EQ(V({e.LtmResult, e.LtmSeqNumber, e.LtmNextSeqNumber, e.LtmRuns}), V({0, 100, 101, 2}));  // tried: a run
}

}  // namespace
