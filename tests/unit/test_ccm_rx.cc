// CCM reception: which local MEPs a CCM reaches, what is learnt, what is
// dropped, and the per-tick time checks that turn flags into defects.
#include "ccm_world.h"

using namespace ccmtest;

namespace {

class CcmRx : public CcmWorld {
 protected:
  MepEntry mep_;
  void SetUp() override {
    CcmWorld::SetUp();
    add_md(1, 5, "md");
    add_ma(1, 2, "ma", 4);
    mep_ = add_mep(1, 2, 1, 10);
  }
};

TEST_F(CcmRx, ValidCcmLearnsTheRemoteMep) {
  PeerCcm ccm;
  ccm.sequence = 77;
  ccm.rdi = true;
  ccm.port_status = 9;  // kept whatever its value
  deliver(ccm.untagged(), 10);
  RemoteMepEntry r;
  ASSERT_TRUE(remote(1, 2, 2, &r));
  EXPECT_EQ(r.mep_id, 1u);
  EXPECT_EQ(memcmp(r.src_mac, kPeerMac, 6), 0);
  EXPECT_EQ(r.SequenceNum, 77u);
  EXPECT_EQ(r.AgeTime, 3500);
  EXPECT_EQ(r.RdiReceived, 1u);
  EXPECT_EQ(r.PortStatus, 9);
  EXPECT_EQ(r.InterfaceStatus, 1);
  EXPECT_EQ(r.port, 1);
  EXPECT_EQ(r.vlan_id, 10);
  MepEntry m = reread(mep_);
  EXPECT_EQ(m.CcmReceivedFlag, 1u);
  EXPECT_EQ(m.CcmDefect, 1);  // the received RDI
  EXPECT_EQ(m.CcmSequenceErrors, 0u);
}

TEST_F(CcmRx, RepeatedSequenceNumberIsOneErrorAndAGapNone) {
  PeerCcm ccm;
  for (uint32_t seq : {1u, 3u, 3u, 4u, 0u, 0u}) {
    ccm.sequence = seq;
    deliver(ccm.untagged(), 10);
  }
  EXPECT_EQ(reread(mep_).CcmSequenceErrors, 1u);
}

TEST_F(CcmRx, MismatchesAreFlaggedNotLearnt) {
  PeerCcm ccm;
  ccm.interval = 3;
  deliver(ccm.untagged(), 10);
  EXPECT_EQ(reread(mep_).ErrorCcmFlag, 1u);
  ccm.interval = 4;
  ccm.ma_name = "other";
  deliver(ccm.untagged(), 10);
  EXPECT_EQ(reread(mep_).XconCcmFlag, 1u);
  EXPECT_EQ(reread(mep_).CcmReceivedFlag, 0u);
  EXPECT_EQ(remote_count(), 0u);
}

TEST_F(CcmRx, WhichMepsACcmReaches) {
  MepEntry up = add_mep(1, 2, 3, 10, CFM_DIRECTION_UP, 4);   // case B
  MepEntry down = add_mep(1, 2, 4, 10, CFM_DIRECTION_DOWN, 4);  // neither
  PeerCcm ccm;
  deliver(ccm.untagged(), 10);
  EXPECT_EQ(reread(mep_).CcmReceivedFlag, 1u);
  EXPECT_EQ(reread(up).CcmReceivedFlag, 1u);
  EXPECT_EQ(reread(down).CcmReceivedFlag, 0u);

  // A CCM carrying a local MEPID is never applied to that MEP.
  clear_tables();
  add_md(1, 5, "md");
  add_ma(1, 2, "ma", 4);
  mep_ = add_mep(1, 2, 1, 10);
  ccm.mep_id = 1;
  deliver(ccm.untagged(), 10);
  EXPECT_EQ(reread(mep_).CcmReceivedFlag, 0u);
  EXPECT_EQ(reread(mep_).ErrorCcmFlag, 0u);

  // No MEP on the VID: the remote MEP is recorded without checks.
  ccm.mep_id = 2;
  deliver(ccm.untagged(), 99);
  RemoteMepEntry r;
  ASSERT_TRUE(remote(1, 2, 2, &r));
  EXPECT_EQ(r.mep_id, 0u);
  EXPECT_EQ(reread(mep_).CcmReceivedFlag, 0u);
}

TEST_F(CcmRx, LevelRules) {
  PeerCcm ccm;
  ccm.level = 3;  // below the local MD: no effect on MEPs of real MDs
  deliver(ccm.untagged(), 10);
  ccm.level = 6;
  deliver(ccm.untagged(), 10);
  clear_tables();
  add_md(1, 5, "md", CFM_MHF_CREATION_NONE);  // defmhfnone: not a level hit
  add_ma(1, 2, "ma", 4);
  mep_ = add_mep(1, 2, 1, 10);
  ccm.level = 5;
  deliver(ccm.untagged(), 10);
  MepEntry m = reread(mep_);
  EXPECT_EQ(m.CcmReceivedFlag + m.XconCcmFlag + m.ErrorCcmFlag, 0u);
  EXPECT_EQ(remote_count(), 0u);
}

TEST_F(CcmRx, MalformedFramesChangeNothing) {
  PeerCcm good;
  std::vector<Bytes> bad;
  Bytes f = good.untagged();
  f[5] = 0x33;  // address says level 3, header says 5
  bad.push_back(f);
  f = good.untagged();
  f[14] |= 0x01;  // version 1
  bad.push_back(f);
  f = good.untagged();
  f[17] = 71;
  bad.push_back(f);
  f = good.untagged();
  f[88 + 7 + 4 + 2] = 2;  // Interface Status TLV of length 2
  bad.push_back(f);
  f = good.untagged();
  f[88 + 2] = 200;  // Sender ID TLV running past the frame
  bad.push_back(f);
  f = good.untagged();
  f[25] = 200;  // MD name longer than the frame
  bad.push_back(f);
  f = good.untagged();
  f.pop_back();  // no End TLV
  bad.push_back(f);
  for (size_t cut = 0; cut < good.untagged().size() - 1; ++cut) {
    Bytes t = good.untagged();
    t.resize(cut);
    bad.push_back(t);
  }
  for (const Bytes &b : bad) deliver(b, 10);
  MepEntry m = reread(mep_);
  EXPECT_EQ(m.CcmReceivedFlag + m.XconCcmFlag + m.ErrorCcmFlag + m.CcmDefect, 0u);
  EXPECT_EQ(remote_count(), 0u);
  deliver(good.untagged(), 10);  // and the good one still works
  EXPECT_EQ(remote_count(), 1u);
}

TEST_F(CcmRx, TlvReaderSkipsUnknownTypesWithinTheFrame) {
  const uint8_t tlvs[] = {9, 0, 2, 0xAA, 0xBB, 2, 0, 1, 7, 4, 0, 1, 5, 0};
  CcmTlvRecord rec{};
  EXPECT_EQ(cfm_ccm_read_tlvs(tlvs, sizeof tlvs, &rec, 0), CFM_OK);
  EXPECT_EQ(rec.PortStatus, 7);
  EXPECT_EQ(rec.InterfaceStatus, 5);
  EXPECT_NE(cfm_ccm_read_tlvs(tlvs, sizeof tlvs - 1, &rec, 0), CFM_OK);
  EXPECT_NE(cfm_ccm_read_tlvs(tlvs, 4, &rec, 0), CFM_OK);
}

// Each row of the time-check tables: flag, timer -> flag, timer, defect.
TEST_F(CcmRx, DefectTimeChecks) {
  struct Row {
    uint32_t flag;
    int32_t timer;
    int32_t timer_after;
    uint8_t defect_after;  // starting from defect 2
  };
  struct Check {
    uint32_t MepEntry::*flag;
    int32_t MepEntry::*timer;
    void (*run)();
    std::vector<Row> rows;
  } checks[] = {
      {&MepEntry::XconCcmFlag, &MepEntry::XconCcmTimer, cfm_ccm_xcon_check,
       {{0, -5, 0, 0}, {1, 0, 3500, 5}, {1, 2500, 1500, 5}, {0, 2500, 2500, 2}}},
      {&MepEntry::ErrorCcmFlag, &MepEntry::ErrorCcmTimer, cfm_ccm_error_check,
       {{0, 0, 0, 0}, {1, -500, 3500, 4}, {1, 500, -500, 4}, {0, 1, 1, 2}}},
      {&MepEntry::CcmReceivedFlag, &MepEntry::RemoteCcmTimer, cfm_ccm_loc_check,
       {{0, 0, 0, 3}, {1, 0, 3500, 0}, {1, 3500, 2500, 0}, {0, 2500, 2500, 2}}},
  };
  for (const Check &c : checks) {
    for (const Row &row : c.rows) {
      MepEntry m = reread(mep_);
      m.*c.flag = row.flag;
      m.*c.timer = row.timer;
      m.CcmDefect = 2;
      store(m);
      c.run();
      m = reread(mep_);
      SCOPED_TRACE(testing::Message() << "flag " << row.flag << " timer " << row.timer);
      EXPECT_EQ(m.*c.flag, 0u);
      EXPECT_EQ(m.*c.timer, row.timer_after);
      EXPECT_EQ(m.CcmDefect, row.defect_after);
    }
  }
}

TEST_F(CcmRx, FaultAlarmTimer) {
  struct Row {
    uint8_t defect;
    int32_t timer;
    int32_t timer_after;
    uint8_t state_after;
  } rows[] = {{0, 0, 2500, 1}, {0, 700, 700, 0}, {3, 2500, 1500, 0}, {3, -500, -1500, 0}, {5, 0, 10000, 0}};
  for (const Row &row : rows) {
    MepEntry m = reread(mep_);
    m.CcmDefect = row.defect;
    m.FngTimer = row.timer;
    m.FngState = 0;
    store(m);
    cfm_ccm_fault_alarm_check();
    m = reread(mep_);
    EXPECT_EQ(m.FngTimer, row.timer_after) << int(row.defect) << " " << row.timer;
    EXPECT_EQ(m.FngState, row.state_after);
    EXPECT_EQ(m.CcmDefect, 0);
  }
}

TEST_F(CcmRx, TickAgesASilentPeerOutOnTheFifthTick) {
  deliver(PeerCcm().untagged(), 10);
  for (int tick = 1; tick <= 5; ++tick) {
    ASSERT_TRUE(remote(1, 2, 2)) << tick;
    CFM_CCM_TIME_CHECK();
  }
  EXPECT_FALSE(remote(1, 2, 2));
  // The fault-alarm timer clears the loss-of-continuity defect within the
  // tick that raised it, so the next CCM carries no RDI.
  wan_.clear();
  CFM_CCM_TIME_CHECK();
  ASSERT_EQ(wan_.size(), 1u);
  EXPECT_EQ(wan_[0][20] & 0x80, 0);
  EXPECT_EQ(reread(mep_).CcmDefect, 0);
}

}  // namespace
