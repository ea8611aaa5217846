// CCM reception: which local MEPs a CCM reaches, what is learnt or refused,
// and the per-tick checks that turn the reception flags into defects.
#include "harness.h"

using namespace harness;

namespace {

class CcmRx : public EngineTest {
 protected:
  MepEntry mep_;
  // MD "md" at level 5, MA "ma" (interval 4), MEP 1 on VID 10.
  void SetUp() override {
    EngineTest::SetUp();
    add_md(1, 5, "md");
    add_ma(1, 2, "ma", 4);
    mep_ = ccm_mep(1, 2, 1, 10);
  }
  uint32_t flags() {
    MepEntry m = read_mep(mep_);
    return m.CcmReceivedFlag * 100 + m.XconCcmFlag * 10 + m.ErrorCcmFlag;
  }
};

TEST_F(CcmRx, ValidCcmsAreLearntCountedAndAgedOut) {
  PeerCcm ccm;
  ccm.rdi = true, ccm.port_status = 9;  // the port status is kept whatever its value
  for (uint32_t seq : {1u, 3u, 3u, 4u, 0u, 0u}) {
    ccm.sequence = seq;
    deliver_ccm(ccm.untagged(), 10);
  }
  RemoteMepEntry r;
  ASSERT_TRUE(remote(1, 2, 2, &r));
  MepEntry m = read_mep(mep_);
  // The receiving MEP, the sender's address, its age, RDI, port and interface
  // status, port and VID; the MEP's flags, the received RDI as its defect, and
  // one sequence error (3 repeated; the gap and the zeros count nothing).
  std::vector<int64_t> got = {r.mep_id,   memcmp(r.src_mac, kPeer, 6), r.AgeTime, r.RdiReceived,  r.PortStatus,
                              r.InterfaceStatus, r.port, r.vlan_id, flags(), m.CcmDefect, m.CcmSequenceErrors};
  EXPECT_EQ(got, (std::vector<int64_t>{1, 0, 3500, 1, 9, 1, 1, 10, 100, 1, 1}));
  // The tick ages the silent peer out on the fifth tick.
  for (int tick = 1; tick <= 5; ++tick) {
    ASSERT_TRUE(remote(1, 2, 2)) << tick;
    CFM_CCM_TIME_CHECK();
  }
  EXPECT_FALSE(remote(1, 2, 2));
  // The loss of continuity is cleared by the fault-alarm timer within the
  // tick that raised it, so the next CCM carries no RDI.
  wan_.clear();
  CFM_CCM_TIME_CHECK();
  ASSERT_EQ(wan_.size(), 1u);
  EXPECT_EQ(wan_[0][20] & 0x80, 0);
}

TEST_F(CcmRx, WhichMepsACcmReaches) {
  // Interval mismatch: error CCM; then no MA of that name: cross-connect.
  PeerCcm ccm;
  for (auto [interval, ma, want] : {std::tuple<uint8_t, const char *, uint32_t>{3, "ma", 1}, {4, "other", 11}}) {
    ccm.interval = interval, ccm.ma_name = ma;
    deliver_ccm(ccm.untagged(), 10);
    EXPECT_EQ(flags(), want);
  }
  EXPECT_EQ(CFM_MEP_DB_RemEntry_Count(), 0u);

  MepEntry up = ccm_mep(1, 2, 3, 10, CFM_DIRECTION_UP, 4);
  MepEntry down = ccm_mep(1, 2, 4, 10, CFM_DIRECTION_DOWN, 4);
  ccm.ma_name = "ma";
  ccm.mep_id = 1;  // a local MEPID is never applied to that MEP
  deliver_ccm(ccm.untagged(), 10);
  EXPECT_EQ(Bytes({uint8_t(flags()), uint8_t(read_mep(up).CcmReceivedFlag), uint8_t(read_mep(down).CcmReceivedFlag)}),
            Bytes({11, 1, 0}));
}

TEST_F(CcmRx, MalformedFramesAndOtherLevelsChangeNothing) {
  const Bytes good = PeerCcm().untagged();
  std::vector<Bytes> bad = {PeerCcm{3}.untagged(), PeerCcm{6}.untagged()};
  // Address/level mismatch, version 1, First TLV Offset 71, Interface Status
  // TLV of length 2, Sender ID TLV past the end, MD name past the end.
  for (auto [at, value] : {std::pair<size_t, uint8_t>{5, 0x33}, {14, 0xA1}, {17, 71}, {101, 2}, {90, 200}, {25, 200}}) {
    bad.push_back(good);
    bad.back()[at] = value;
  }
  for (size_t cut = 0; cut < good.size(); ++cut) bad.emplace_back(good.begin(), good.begin() + cut);
  for (const Bytes &b : bad) deliver_ccm(b, 10);
  EXPECT_EQ(flags() + read_mep(mep_).CcmDefect + CFM_MEP_DB_RemEntry_Count(), 0u);
  CcmTlvRecord rec{};
  const uint8_t tlvs[] = {9, 0, 2, 0xAA, 0xBB, 2, 0, 1, 7, 4, 0, 1, 5, 0};
  EXPECT_EQ(cfm_ccm_read_tlvs(tlvs, sizeof tlvs, &rec, 0), CFM_OK);  // unknown type skipped
  EXPECT_EQ(rec.PortStatus * 10 + rec.InterfaceStatus, 75);
}

// Each row of the time-check tables: flag and timer before -> timer and
// defect after (the defect starts at 2; the flag always ends at 0).
TEST_F(CcmRx, DefectTimeChecks) {
  struct Check {
    uint32_t MepEntry::*flag;
    int32_t MepEntry::*timer;
    void (*run)();
    int32_t rows[4][4];
  } checks[] = {
      {&MepEntry::XconCcmFlag, &MepEntry::XconCcmTimer, cfm_ccm_xcon_check,
       {{0, -5, 0, 0}, {1, 0, 3500, 5}, {1, 2500, 1500, 5}, {0, 2500, 2500, 2}}},
      {&MepEntry::ErrorCcmFlag, &MepEntry::ErrorCcmTimer, cfm_ccm_error_check,
       {{0, 0, 0, 0}, {1, -500, 3500, 4}, {1, 500, -500, 4}, {0, 1, 1, 2}}},
      {&MepEntry::CcmReceivedFlag, &MepEntry::RemoteCcmTimer, cfm_ccm_loc_check,
       {{0, 0, 0, 3}, {1, 0, 3500, 0}, {1, 3500, 2500, 0}, {0, 2500, 2500, 2}}},
  };
  for (const Check &c : checks) {
    for (const auto &row : c.rows) {
      MepEntry m = read_mep(mep_);
      m.*c.flag = static_cast<uint32_t>(row[0]), m.*c.timer = row[1], m.CcmDefect = 2;
      CFM_Update_MEP_Entry(&m);
      c.run();
      m = read_mep(mep_);
      std::vector<int32_t> after = {int32_t(m.*c.flag), m.*c.timer, m.CcmDefect};
      EXPECT_EQ(after, (std::vector<int32_t>{0, row[2], row[3]})) << row[0] << " " << row[1];
    }
  }
  // Fault alarm: defect, timer -> timer, state (the defect always ends at 0).
  const int32_t alarm[][4] = {
      {0, 0, 2500, 1}, {0, 700, 700, 0}, {3, 2500, 1500, 0}, {3, -500, -1500, 0}, {5, 0, 10000, 0}};
  for (const auto &row : alarm) {
    MepEntry m = read_mep(mep_);
    m.CcmDefect = static_cast<uint8_t>(row[0]), m.FngTimer = row[1], m.FngState = 0;
    CFM_Update_MEP_Entry(&m);
    cfm_ccm_fault_alarm_check();
    m = read_mep(mep_);
    EXPECT_EQ(Bytes({m.FngTimer == row[2], m.FngState == row[3], m.CcmDefect == 0}), Bytes({1, 1, 1})) << row[0];
  }
}

}  // namespace
