// Management interface: validation order (the first failing check decides),
// defaults, row-status handling and the linktrace step of a MEP Set. The
// defaults that showmep prints, and the MD level limit, are checked through
// the commands.
#include <cstring>
#include <vector>

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

  // A create request for MEP 10 of MD 1, MA 2; Set fills in direction Down.
  static MepEntry request() {
    MepEntry e{};
    e.md_id = 1, e.ma_id = 2, e.mep_id = 10, e.RowStatus = CFM_ROW_CREATE;
    return e;
  }
  static MepEntry stored() {
    MepEntry e = request();
    e.direction = CFM_DIRECTION_DOWN;
    EXPECT_EQ(CFM_Get_MEP_Entry(&e), 1);
    return e;
  }
};

TEST_F(MgmtIfTest, MdAndMaValidationAndDefaults) {
  EXPECT_EQ(CFM_IF_Set_MD_Entry(nullptr), CFM_ERR_NULL_REQUEST);
  const std::pair<void (*)(MdEntry &), uint32_t> md_cases[] = {
      {[](MdEntry &e) { memset(e.MdName, 'a', sizeof e.MdName); }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.MdFormat = 5; }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.MhfCreation = 5; }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.SenderIdPermission = 6; }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.RowStatus = 3; }, CFM_ERR_OUT_OF_RANGE},
      {[](MdEntry &e) { e.RowStatus = CFM_ROW_DELETE; }, CFM_ERR_FAILURE},  // absent
      {[](MdEntry &e) { memset(e.MdName, 'a', 43); }, CFM_OK}};
  for (const auto &[change, status] : md_cases) {
    MdEntry e{4};
    change(e);
    EXPECT_EQ(CFM_IF_Set_MD_Entry(&e), status);
  }
  MdEntry md{4};
  ASSERT_EQ(CFM_IF_Get_MD_Entry(&md), 1);
  EXPECT_EQ(V({md.MdFormat, md.MhfCreation, md.SenderIdPermission}), V({1, 2, 1}));

  MaNetEntry ma{9, 3, 0, {}, 1};  // the missing MD decides before the bad interval
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_NO_MD_MA);
  ma.MdIndex = 1;
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_OUT_OF_RANGE);
  ma.CcmInterval = 0, ma.RowStatus = 7;
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_OUT_OF_RANGE);
  ma.RowStatus = CFM_ROW_CREATE;
  ASSERT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_OK);
  MaNetEntry first{0, 99};  // GetFirst ignores what the buffer held
  ASSERT_EQ(CFM_IF_GetFirst_MA_Net_Entry(&first) + CFM_IF_GetNext_MA_Net_Entry(&first), 2);
  EXPECT_EQ(V({first.MaIndex, first.CcmInterval, first.MaFormat}), V({3, 4, 1}));
}

// Each request breaks the checks named; the status must be that of the
// earliest check, and nothing may be stored.
TEST_F(MgmtIfTest, MepValidationOrderFirstFailureDecides) {
  struct Case { const char *what; void (*change)(MepEntry &); uint32_t status; };
  const Case cases[] = {
      {"missing MD before bad MEPID", [](MepEntry &e) { e.md_id = 9; e.mep_id = 0; }, CFM_ERR_NO_MD_MA},
      {"missing MA", [](MepEntry &e) { e.ma_id = 3; }, CFM_ERR_NO_MD_MA},
      {"MEPID 0", [](MepEntry &e) { e.mep_id = 0; }, CFM_ERR_OUT_OF_RANGE},
      {"MEPID 8192", [](MepEntry &e) { e.mep_id = 8192; }, CFM_ERR_OUT_OF_RANGE},
      {"port 9", [](MepEntry &e) { e.port = 9; }, CFM_ERR_OUT_OF_RANGE},
      {"direction 3", [](MepEntry &e) { e.direction = 3; }, CFM_ERR_OUT_OF_RANGE},
      {"alarm priority 7", [](MepEntry &e) { e.LowestAlarmPriority = 7; }, CFM_ERR_OUT_OF_RANGE},
      {"alarm time 249", [](MepEntry &e) { e.FngAlarmTime = 249; }, CFM_ERR_OUT_OF_RANGE},
      {"reset time 1001", [](MepEntry &e) { e.FngResetTime = 1001; }, CFM_ERR_OUT_OF_RANGE},
      {"1025 LBMs", [](MepEntry &e) { e.LbmMessages = 1025; }, CFM_ERR_OUT_OF_RANGE},
      {"priority before LBM running", [](MepEntry &e) { e.CcmLtmPriority = 8, e.LbmRunning = 1; }, CFM_ERR_OUT_OF_RANGE},
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
  s.LbmMessages = 1000, s.Active = 5, s.LbmDropEnable = 2, s.LtmSeqNumber = 41;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  s = stored();
  EXPECT_EQ(V({s.LbmMessages, s.Active, s.LbmDropEnable, s.FngState, s.FngAlarmTime, s.FngResetTime,
               s.LtmNextSeqNumber, s.RowStatus}),
            V({10, 0, 0, 1, 250, 1000, 42, CFM_ROW_IN_USE}));
  EXPECT_EQ(g_sent, 0);

  s.RowStatus = CFM_ROW_MODIFY;
  s.CciEnabled = 0, s.LbmMessages = 1024, s.LtmSeqNumber = 7;
  s.CcmLtmPriority = 0;  // priority 0 cannot be stored: it becomes 7
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  s = stored();
  EXPECT_EQ(V({s.CciEnabled, s.LbmMessages, s.LtmNextSeqNumber, s.CcmLtmPriority}), V({0, 1024, 8, 7}));
  s.LbmRunning = 1;  // a run in progress: nothing changes
  s.LbmMessages = 3;
  EXPECT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_ERR_LBM_RUNNING);
  EXPECT_EQ(stored().LbmMessages, 1024u);
}

TEST_F(MgmtIfTest, LinktraceStep) {
  MepEntry e = request();
  e.LtmTransmitStatus = 1, e.LtmTargetIsMepId = 1, e.LtmTargetMepId = 20, e.LtmSeqNumber = 99;
  MepEntry retry = e;
  EXPECT_EQ(CFM_IF_Set_MEP_Entry(&e), CFM_DB_NOT_FOUND);  // unknown remote MEP
  EXPECT_EQ(g_sent + CFM_Get_TotalMepEntries(), 0u);

  RemoteMepEntry peer{1, 2, 20};
  peer.src_mac[5] = 0x55;
  ASSERT_EQ(mep_process_normal_frame(&peer), CFM_DB_FOUND);
  retry.vid = 300, retry.LtmFlags = 0x80;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&retry), CFM_OK);
  ASSERT_EQ(g_sent, 1);
  const LtmRequest &r = g_last_request;
  EXPECT_EQ(V({r.trans_id, r.md_level, r.priority, r.ttl, r.flags, r.vid, r.target_mac[5]}),
            V({100, 5, 7, 64, 0x80, 300, 0x55}));
  MepEntry s = retry;
  ASSERT_EQ(CFM_Get_MEP_Entry(&s), 1);
  EXPECT_EQ(V({s.LtmResult, s.LtmTransmitStatus, s.LtmSeqNumber, s.LtmNextSeqNumber, s.LtmTargetMac[5]}),
            V({1, 0, 100, 101, 0x55}));

  // A failed send keeps the sequence numbers; no transmitter counts as failed.
  for (CfmLtmTransmitFn transmitter : {fake_transmit, static_cast<CfmLtmTransmitFn>(nullptr)}) {
    CFM_IF_Set_LTM_Transmitter(transmitter);
    g_send_result = 0;
    s.RowStatus = CFM_ROW_MODIFY, s.LtmTransmitStatus = 1, s.LtmTargetIsMepId = 0;
    ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
    ASSERT_EQ(CFM_Get_MEP_Entry(&s), 1);
    EXPECT_EQ(V({s.LtmResult, s.LtmSeqNumber, s.LtmNextSeqNumber}), V({0, 100, 101}));
  }
  // The linktrace goes out before the row status is looked at.
  CFM_IF_Set_LTM_Transmitter(fake_transmit);
  g_sent = 0;
  s.RowStatus = CFM_ROW_DELETE;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  EXPECT_EQ(g_sent, 1);
  EXPECT_EQ(CFM_Get_TotalMepEntries(), 0u);
}

}  // namespace
