// CCM transmission: the frame as sent, the MAID bounds, sequence numbers,
// RDI, and the countdown per interval code and direction.
#include "harness.h"

using namespace harness;

namespace {

using CcmTx = EngineTest;

TEST_F(CcmTx, FrameBytesAndMaidBounds) {
  add_md(1, 7, "md7");
  add_ma(1, 3, "ma1", 4);
  MepEntry mep = ccm_mep(1, 3, 0x1234, 0x123);
  mep.CcmLtmPriority = 5, mep.CcmSequenceNum = 0x01020304, mep.CcmDefect = 3;
  Bytes frame(CFM_CCM_FRAME_LEN + 1, 0xEE);
  ASSERT_EQ(cfm_ccm_build(&mep, frame.data()), CFM_CCM_FRAME_LEN);
  EXPECT_EQ(frame, cat({{0x01, 0x80, 0xC2, 0x00, 0x00, 0x37}, mac(kSelf), {0x81, 0x00, 0xA1, 0x23, 0x89, 0x02, 0xE0, 1},
                        {0x84, 70, 1, 2, 3, 5, 0x12, 0x34, 4, 3, 'm', 'd', '7', 2, 3, 'm', 'a', '1'}, Bytes(54),
                        {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0, 0xEE}}));

  // The MAID keeps the MD name rule and never exceeds 48 bytes.
  // MD name length, MA name length -> n and m as sent.
  const size_t cases[][4] = {{22, 10, 22, 10}, {23, 10, 21, 10}, {30, 10, 14, 10}, {44, 10, 0, 10}, {3, 45, 3, 41}};
  for (const auto &c : cases) {
    MdEntry md{};
    MaNetEntry ma{};
    memset(md.MdName, 'D', std::min(c[0], sizeof md.MdName));  // 44: no terminating NUL
    memset(ma.MaName, 'A', c[1]);
    Bytes maid(49, 0xEE);
    cfm_ccm_write_maid(maid.data(), md, ma);
    Bytes lengths = {maid[1], maid[2 + c[2]], maid[3 + c[2]], maid[48]};
    EXPECT_EQ(lengths, Bytes({uint8_t(c[2]), 0, uint8_t(c[3]), 0xEE})) << c[0];
  }
}

TEST_F(CcmTx, IntervalCodesDecideHowOftenAMepSends) {
  add_md(1, 2, "md");
  for (uint8_t code : {1, 5, 0}) add_ma(1, code + 1u, std::to_string(code).c_str(), code);  // key: code + 1
  MepEntry every = ccm_mep(1, 2, 1), ten = ccm_mep(1, 6, 2), zero = ccm_mep(1, 1, 3), off = ccm_mep(1, 6, 4);
  off.CciEnabled = 0;
  CFM_Update_MEP_Entry(&off);
  for (int tick = 0; tick < 21; ++tick) cfm_ccm_transmit_check();
  // Code 0 acts as one second; ten seconds sends on ticks 0, 10 and 20.
  std::vector<uint32_t> seq;
  for (const MepEntry &m : {every, zero, ten, off}) seq.push_back(read_mep(m).CcmSequenceNum);
  EXPECT_EQ(seq, (std::vector<uint32_t>{21, 21, 3, 0}));
}

TEST_F(CcmTx, DirectionAndMissingMa) {
  add_md(1, 4, "md");
  add_ma(1, 1, "ma", 4);
  ccm_mep(1, 1, 1, 10, CFM_DIRECTION_UP);
  ccm_mep(2, 9, 2, 10, CFM_DIRECTION_DOWN);
  ccm_mep(2, 9, 3, 10, CFM_DIRECTION_UP);  // built, not sent
  cfm_ccm_transmit_check();
  ASSERT_EQ(wan_.size(), 2u);
  EXPECT_EQ(lan_.size(), 2u);  // both sides for both directions
  // Without MD and MA: level 0 address, no interval, empty MAID.
  EXPECT_EQ(Bytes({wan_[0][5], wan_[1][5]}), Bytes({0x34, 0x30}));
  EXPECT_EQ(std::count(wan_[1].begin() + 18, wan_[1].begin() + 92, 0), 74 - 4);  // opcode 1, 70, seq 1, MEPID 2
}

}  // namespace
