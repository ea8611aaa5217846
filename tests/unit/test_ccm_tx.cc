// CCM transmission: the frame as sent, the MAID, sequence numbers, RDI and
// the countdown per interval code.
#include "ccm_world.h"

using namespace ccmtest;

namespace {

class CcmTx : public CcmWorld {};

TEST_F(CcmTx, BuildsTheExact108ByteFrame) {
  add_md(1, 7, "md7");
  add_ma(1, 3, "ma1", 4);
  MepEntry mep = add_mep(1, 3, 0x1234, 0x123, CFM_DIRECTION_DOWN);
  mep.CcmLtmPriority = 5;
  mep.CcmSequenceNum = 0x01020304;
  Bytes frame(CFM_CCM_FRAME_LEN + 8, 0xEE);
  ASSERT_EQ(cfm_ccm_build(&mep, frame.data()), CFM_CCM_FRAME_LEN);
  EXPECT_EQ(mep.CcmSequenceNum, 0x01020305u);
  Bytes expected = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x37, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55,  // addresses
                    0x81, 0x00, 0xA1, 0x23, 0x89, 0x02,                                      // tag, type
                    0xE0, 0x01, 0x04, 70, 0x01, 0x02, 0x03, 0x05, 0x12, 0x34,                // header
                    4,    3,    'm',  'd',  '7',  2,    3,    'm',  'a',  '1'};              // MAID
  expected.resize(92, 0);
  const uint8_t tlvs[] = {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0};
  expected.insert(expected.end(), tlvs, tlvs + sizeof tlvs);
  EXPECT_EQ(Bytes(frame.begin(), frame.begin() + CFM_CCM_FRAME_LEN), expected);
  EXPECT_EQ(frame[CFM_CCM_FRAME_LEN], 0xEE);  // nothing written past the frame
}

TEST_F(CcmTx, MaidKeepsTheMdNameRuleAndNeverExceeds48Bytes) {
  struct Case {
    size_t md_len, ma_len, n, m;
  } cases[] = {{22, 10, 22, 10}, {23, 10, 21, 10}, {30, 10, 14, 10}, {44, 10, 0, 10}, {22, 45, 22, 22}, {3, 45, 3, 41}};
  for (const Case &c : cases) {
    MdEntry md{};
    MaNetEntry ma{};
    md.MdFormat = 4;
    memset(md.MdName, 'D', c.md_len < sizeof md.MdName ? c.md_len : sizeof md.MdName);
    ma.MaFormat = 0x102;
    memset(ma.MaName, 'A', c.ma_len);
    uint8_t maid[48 + 4];
    memset(maid, 0xEE, sizeof maid);
    cfm_ccm_write_maid(maid, md, ma);
    SCOPED_TRACE(c.md_len);
    EXPECT_EQ(maid[0], 4);
    EXPECT_EQ(maid[1], c.n);
    EXPECT_EQ(maid[2 + c.n], 0x02);  // low byte of the format
    EXPECT_EQ(maid[3 + c.n], c.m);
    for (size_t i = 4 + c.n + c.m; i < 48; ++i) EXPECT_EQ(maid[i], 0) << i;
    EXPECT_EQ(maid[48], 0xEE);
  }
}

TEST_F(CcmTx, EachTickSendsTheNextSequenceNumberAndCarriesRdi) {
  add_md(1, 2, "md");
  add_ma(1, 1, "ma", 4);
  MepEntry mep = add_mep(1, 1, 7, 0, CFM_DIRECTION_DOWN);
  for (uint32_t tick = 1; tick <= 3; ++tick) {
    MepEntry m = reread(mep);
    m.CcmDefect = tick == 2 ? 3 : 0;
    store(m);
    cfm_ccm_transmit_check();
    ASSERT_EQ(wan_.size(), tick);
    const Bytes &f = wan_.back();
    // VID 0: the tag is removed on the way out, the wire length kept.
    ASSERT_EQ(f.size(), CFM_CCM_FRAME_LEN);
    EXPECT_EQ(f[12], 0x89);
    EXPECT_EQ(cfm::get_be32(&f[18]), tick);
    EXPECT_EQ(f[16] & 0x80, tick == 2 ? 0x80 : 0) << tick;
    EXPECT_EQ(reread(mep).CcmSequenceNum, tick);
  }
  EXPECT_EQ(lan_.size(), 3u);  // a Down MEP also sends to the LAN
}

TEST_F(CcmTx, IntervalTableAndCountdown) {
  uint32_t p, l, t;
  const uint32_t rows[][4] = {{0, 1000, 3500, 3250},   {1, 0, 0, 0},       {2, 10, 35, 33},
                              {3, 100, 350, 330},      {5, 10000, 35000, 32500},
                              {7, 600000, 2100000, 1950000}, {8, 1000, 3500, 3250}, {63, 1000, 3500, 3250}};
  for (auto &r : rows) {
    cfm_ccm_interval_lookup(static_cast<uint8_t>(r[0]), &p, &l, &t);
    EXPECT_EQ(p, r[1]) << r[0];
    EXPECT_EQ(l, r[2]) << r[0];
    EXPECT_EQ(t, r[3]) << r[0];
  }
  add_md(1, 2, "md");
  add_ma(1, 1, "every", 1);
  add_ma(1, 2, "ten", 5);
  MepEntry fast = add_mep(1, 1, 1);
  add_mep(1, 2, 2);
  MepEntry off = add_mep(1, 2, 3);
  off.CciEnabled = 0;
  off.CcmTxTimer = 1234;
  store(off);
  size_t slow_sent = 0;
  for (int tick = 0; tick < 21; ++tick) {
    wan_.clear();
    cfm_ccm_transmit_check();
    for (const Bytes &f : wan_) slow_sent += cfm::get_be16(&f[22]) == 2;  // MEPID, untagged
    EXPECT_EQ(reread(fast).CcmSequenceNum, static_cast<uint32_t>(tick + 1));
  }
  EXPECT_EQ(slow_sent, 3u);  // ticks 0, 10 and 20
  EXPECT_EQ(reread(off).CcmTxTimer, 1234);
  EXPECT_EQ(reread(off).CcmSequenceNum, 0u);
}

TEST_F(CcmTx, DirectionAndMissingMa) {
  add_md(1, 4, "md");
  add_ma(1, 1, "ma", 4);
  MepEntry up = add_mep(1, 1, 1, 10, CFM_DIRECTION_UP);
  MepEntry orphan_down = add_mep(2, 9, 2, 10, CFM_DIRECTION_DOWN);
  MepEntry orphan_up = add_mep(2, 9, 3, 10, CFM_DIRECTION_UP);
  add_mep(1, 1, 4, 10, 3);  // unknown direction: nothing
  cfm_ccm_transmit_check();
  ASSERT_EQ(wan_.size(), 2u);
  ASSERT_EQ(lan_.size(), 2u);
  EXPECT_EQ(wan_[0][5], 0x34);
  // Without MD and MA: level 0 address, no interval, empty MAID; retried
  // every tick because the countdown is not reloaded.
  const Bytes &f = wan_[1];
  EXPECT_EQ(f[5], 0x30);
  EXPECT_EQ(f[18], 0x00);
  EXPECT_EQ(f[20], 0x00);
  for (size_t i = 28; i < 92; ++i) EXPECT_EQ(f[i], 0) << i;
  EXPECT_EQ(reread(orphan_down).CcmTxTimer, -1000);
  EXPECT_EQ(reread(orphan_up).CcmSequenceNum, 1u);  // built, not sent
  EXPECT_EQ(reread(up).CcmTxTimer, 1000);
}

}  // namespace
