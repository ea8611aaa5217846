// Management interface: validation order (the first failing check decides),
// defaults, row-status handling and the linktrace step of a MEP Set.
#include <cstring>
#include <string>

#include "core/status.h"
#include "db/mgmt_if.h"
#include "db_test_support.h"

namespace {

int g_sent = 0;
LtmRequest g_last_request{};
int g_send_result = 1;

int fake_transmit(const LtmRequest *request) {
  ++g_sent;
  g_last_request = *request;
  return g_send_result;
}

class MgmtIfTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    g_sent = 0;
    g_send_result = 1;
    CFM_IF_Set_LTM_Transmitter(fake_transmit);
    MdEntry md{};
    md.MdIndex = 1;
    md.MdLevel = 5;
    ASSERT_EQ(CFM_IF_Set_MD_Entry(&md), CFM_OK);
    MaNetEntry ma{};
    ma.MdIndex = 1;
    ma.MaIndex = 2;
    ASSERT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_OK);
  }
  void TearDown() override { CFM_IF_Set_LTM_Transmitter(nullptr); }

  static MepEntry request(uint16_t mep_id = 10, uint32_t row_status = CFM_ROW_CREATE) {
    MepEntry e{};
    e.md_id = 1;
    e.ma_id = 2;
    e.mep_id = mep_id;
    e.RowStatus = row_status;
    return e;
  }
  static bool stored(MepEntry *out) {
    *out = request();
    out->direction = CFM_DIRECTION_DOWN;  // the default filled in on Set
    return CFM_Get_MEP_Entry(out) == 1;
  }
};

TEST_F(MgmtIfTest, MdAndMaValidationAndDefaults) {
  EXPECT_EQ(CFM_IF_Set_MD_Entry(nullptr), CFM_ERR_NULL_REQUEST);
  MdEntry md{};
  md.MdIndex = 3;
  memset(md.MdName, 'a', 43);
  ASSERT_EQ(CFM_IF_Set_MD_Entry(&md), CFM_OK);
  MdEntry got{};
  got.MdIndex = 3;
  ASSERT_EQ(CFM_IF_Get_MD_Entry(&got), 1);
  EXPECT_EQ(got.MdFormat, 1);
  EXPECT_EQ(got.MhfCreation, 2);
  EXPECT_EQ(got.SenderIdPermission, 1);
  EXPECT_EQ(std::string(got.MdName).size(), 43u);

  auto md_status = [](void (*change)(MdEntry &)) {
    MdEntry e{};
    e.MdIndex = 4;
    change(e);
    return CFM_IF_Set_MD_Entry(&e);
  };
  EXPECT_EQ(md_status([](MdEntry &e) { memset(e.MdName, 'a', sizeof e.MdName); }), CFM_ERR_OUT_OF_RANGE);
  EXPECT_EQ(md_status([](MdEntry &e) { e.MdFormat = 5; }), CFM_ERR_OUT_OF_RANGE);
  EXPECT_EQ(md_status([](MdEntry &e) { e.MdLevel = 8; }), CFM_ERR_OUT_OF_RANGE);
  EXPECT_EQ(md_status([](MdEntry &e) { e.MhfCreation = 5; }), CFM_ERR_OUT_OF_RANGE);
  EXPECT_EQ(md_status([](MdEntry &e) { e.SenderIdPermission = 6; }), CFM_ERR_OUT_OF_RANGE);
  EXPECT_EQ(md_status([](MdEntry &e) { e.RowStatus = 3; }), CFM_ERR_OUT_OF_RANGE);
  EXPECT_EQ(md_status([](MdEntry &e) { e.RowStatus = CFM_ROW_DELETE; }), CFM_ERR_FAILURE);  // absent
  EXPECT_EQ(CFM_IF_GetFirst_MD_Entry(&got), 1);
  EXPECT_EQ(got.MdIndex, 1u);
  EXPECT_EQ(CFM_IF_GetNext_MD_Entry(&got), 1);
  EXPECT_EQ(got.MdIndex, 3u);
  EXPECT_EQ(CFM_IF_GetNext_MD_Entry(&got), 0);  // no MD 4 was stored

  MaNetEntry ma{};
  ma.MdIndex = 9;  // missing MD decides before the bad interval
  ma.MaIndex = 3;
  ma.CcmInterval = 1;
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_NO_MD_MA);
  ma.MdIndex = 1;
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_OUT_OF_RANGE);
  ma.CcmInterval = 8;
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_OUT_OF_RANGE);
  ma.CcmInterval = 0;
  ma.RowStatus = 7;
  EXPECT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_ERR_OUT_OF_RANGE);
  ma.RowStatus = CFM_ROW_CREATE;
  ASSERT_EQ(CFM_IF_Set_MA_Net_Entry(&ma), CFM_OK);
  MaNetEntry first{};
  first.MaIndex = 99;
  ASSERT_EQ(CFM_IF_GetFirst_MA_Net_Entry(&first), 1);
  EXPECT_EQ(first.MaIndex, 2u);
  ASSERT_EQ(CFM_IF_GetNext_MA_Net_Entry(&first), 1);
  EXPECT_EQ(first.MaIndex, 3u);
  EXPECT_EQ(first.CcmInterval, 4);
  EXPECT_EQ(first.MaFormat, 1u);
}

// Each request breaks the checks named; the status must be that of the
// earliest check, and nothing may be stored.
TEST_F(MgmtIfTest, MepValidationOrderFirstFailureDecides) {
  struct Case {
    const char *what;
    void (*change)(MepEntry &);
    uint32_t status;
  };
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
      {"bad priority before running LBM", [](MepEntry &e) { e.CcmLtmPriority = 8; e.LbmRunning = 1; },
       CFM_ERR_OUT_OF_RANGE},
      {"running LBM before bad LBM priority", [](MepEntry &e) { e.LbmRunning = 1; e.LbmPriority = 8; },
       CFM_ERR_LBM_RUNNING},
      {"LBM priority 8", [](MepEntry &e) { e.LbmPriority = 8; }, CFM_ERR_OUT_OF_RANGE},
      {"LTM flags 0x40 before unknown row status", [](MepEntry &e) { e.LtmFlags = 0x40; e.RowStatus = 5; },
       CFM_ERR_OUT_OF_RANGE},
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
  MepEntry e = request();
  e.LbmMessages = 1000;
  e.CciEnabled = 0;
  e.Active = 5;
  e.LbmDropEnable = 2;
  e.LtmSeqNumber = 41;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&e), CFM_OK);
  MepEntry s{};
  ASSERT_TRUE(stored(&s));
  EXPECT_EQ(s.CcmLtmPriority, 7);
  EXPECT_EQ(s.CciEnabled, 1u);
  EXPECT_EQ(s.LbmMessages, 10u);
  EXPECT_EQ(s.Active, 0u);
  EXPECT_EQ(s.LbmDropEnable, 0u);
  EXPECT_EQ(s.direction, CFM_DIRECTION_DOWN);
  EXPECT_EQ(s.FngState, 1);
  EXPECT_EQ(s.FngAlarmTime, 250);
  EXPECT_EQ(s.FngResetTime, 1000);
  EXPECT_EQ(s.LowestAlarmPriority, 2);
  EXPECT_EQ(s.CcmDefect, 1);
  EXPECT_EQ(s.LbmPriority, 7);
  EXPECT_EQ(s.LtmTtl, 64);
  EXPECT_EQ(s.LtmNextSeqNumber, 42u);
  EXPECT_EQ(s.RowStatus, CFM_ROW_IN_USE);
  EXPECT_EQ(g_sent, 0);

  s.RowStatus = CFM_ROW_MODIFY;
  s.CciEnabled = 0;
  s.LbmMessages = 1024;
  s.LtmSeqNumber = 7;
  s.CcmLtmPriority = 0;  // priority 0 cannot be stored: becomes 7
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  ASSERT_TRUE(stored(&s));
  EXPECT_EQ(s.CciEnabled, 0u);
  EXPECT_EQ(s.LbmMessages, 1024u);
  EXPECT_EQ(s.LtmNextSeqNumber, 8u);
  EXPECT_EQ(s.CcmLtmPriority, 7);

  // A Set while the request says an LBM run is in progress changes nothing.
  s.LbmRunning = 1;
  s.LbmMessages = 3;
  EXPECT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_ERR_LBM_RUNNING);
  ASSERT_TRUE(stored(&s));
  EXPECT_EQ(s.LbmMessages, 1024u);

  s.RowStatus = CFM_ROW_DELETE;
  EXPECT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  EXPECT_FALSE(stored(&s));
}

TEST_F(MgmtIfTest, LinktraceByMepIdResolvesThroughRemoteMeps) {
  MepEntry e = request();
  e.LtmTransmitStatus = 1;
  e.LtmTargetIsMepId = 1;
  e.LtmTargetMepId = 20;
  e.LtmSeqNumber = 99;
  EXPECT_EQ(CFM_IF_Set_MEP_Entry(&e), CFM_DB_NOT_FOUND);
  EXPECT_EQ(g_sent, 0);
  EXPECT_EQ(CFM_Get_TotalMepEntries(), 0u);

  RemoteMepEntry peer{};
  peer.md_id = 1;
  peer.ma_id = 2;
  peer.rmep_id = 20;
  peer.AgeTime = 3500;
  const uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
  memcpy(peer.src_mac, mac, 6);
  ASSERT_EQ(mep_process_normal_frame(&peer), CFM_DB_FOUND);

  e = request();
  e.port = 2;
  e.vid = 300;
  e.LtmFlags = 0x80;
  e.LtmTransmitStatus = 1;
  e.LtmTargetIsMepId = 1;
  e.LtmTargetMepId = 20;
  e.LtmSeqNumber = 99;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&e), CFM_OK);
  ASSERT_EQ(g_sent, 1);
  EXPECT_EQ(memcmp(g_last_request.target_mac, mac, 6), 0);
  EXPECT_EQ(g_last_request.trans_id, 100u);
  EXPECT_EQ(g_last_request.md_level, 5u);
  EXPECT_EQ(g_last_request.priority, 7);
  EXPECT_EQ(g_last_request.ttl, 64);
  EXPECT_EQ(g_last_request.flags, 0x80u);
  EXPECT_EQ(g_last_request.vid, 300);
  EXPECT_EQ(g_last_request.port, 2);
  EXPECT_EQ(g_last_request.direction, CFM_DIRECTION_DOWN);
  MepEntry s{};
  s = e;
  ASSERT_EQ(CFM_Get_MEP_Entry(&s), 1);
  EXPECT_EQ(s.LtmResult, 1u);
  EXPECT_EQ(s.LtmTransmitStatus, 0u);
  EXPECT_EQ(s.LtmSeqNumber, 100u);
  EXPECT_EQ(s.LtmNextSeqNumber, 101u);
  EXPECT_EQ(memcmp(s.LtmTargetMac, mac, 6), 0);
}

TEST_F(MgmtIfTest, FailedOrMissingTransmitterAndDeleteStillSends) {
  MepEntry e = request();
  e.LtmTransmitStatus = 1;
  e.LtmTargetMac[5] = 0x42;
  e.LtmSeqNumber = 5;
  g_send_result = 0;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&e), CFM_OK);
  EXPECT_EQ(g_last_request.target_mac[5], 0x42);
  MepEntry s{};
  ASSERT_TRUE(stored(&s));
  EXPECT_EQ(s.LtmResult, 0u);
  EXPECT_EQ(s.LtmSeqNumber, 5u);
  EXPECT_EQ(s.LtmNextSeqNumber, 6u);

  CFM_IF_Set_LTM_Transmitter(nullptr);
  s.RowStatus = CFM_ROW_MODIFY;
  s.LtmResult = 1;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  ASSERT_TRUE(stored(&s));
  EXPECT_EQ(s.LtmResult, 0u);

  CFM_IF_Set_LTM_Transmitter(fake_transmit);
  g_send_result = 1;
  g_sent = 0;
  s.RowStatus = CFM_ROW_DELETE;
  s.LtmTransmitStatus = 1;
  ASSERT_EQ(CFM_IF_Set_MEP_Entry(&s), CFM_OK);
  EXPECT_EQ(g_sent, 1);
  EXPECT_FALSE(stored(&s));
}

TEST_F(MgmtIfTest, MipRequests) {
  MipEntry m{};
  m.md_id = 1;
  m.ma_id = 2;
  m.MipId = 8191;
  m.port = 8;
  EXPECT_EQ(CFM_IF_Set_MIP_Entry(nullptr), CFM_ERR_NULL_REQUEST);
  m.RowStatus = 3;
  EXPECT_EQ(CFM_IF_Set_MIP_Entry(&m), CFM_ERR_UNKNOWN_ROW_STATUS);
  m.RowStatus = CFM_ROW_CREATE;
  m.port = 9;
  EXPECT_EQ(CFM_IF_Set_MIP_Entry(&m), CFM_ERR_OUT_OF_RANGE);
  m.port = 8;
  m.ma_id = 7;
  EXPECT_EQ(CFM_IF_Set_MIP_Entry(&m), CFM_ERR_NO_MD_MA);
  m.ma_id = 2;
  EXPECT_EQ(CFM_Get_TotalMipEntries(), 0u);
  ASSERT_EQ(CFM_IF_Set_MIP_Entry(&m), CFM_OK);
  MipEntry first{};
  ASSERT_EQ(CFM_IF_GetFirst_MIP_Entry(&first), 1);
  EXPECT_EQ(first.MipId, 8191);
  EXPECT_EQ(first.RowStatus, CFM_ROW_IN_USE);
  m.RowStatus = CFM_ROW_DELETE;
  EXPECT_EQ(CFM_IF_Set_MIP_Entry(&m), CFM_OK);
  EXPECT_EQ(CFM_IF_Set_MIP_Entry(&m), CFM_ERR_FAILURE);
}

}  // namespace
