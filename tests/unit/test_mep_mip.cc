// MEP and MIP tables: numeric key order, whole-record copies, capacity.
#include <vector>

#include "harness.h"

using harness::DbTest;

namespace {

MepEntry mep(uint32_t md, uint32_t ma, uint16_t id, uint8_t port = 0, uint16_t vid = 0, uint8_t dir = 1) {
  MepEntry e{};
  e.md_id = md, e.ma_id = ma, e.mep_id = id, e.port = port, e.vid = vid, e.direction = dir;
  return e;
}

using Keys = std::vector<std::vector<uint32_t>>;
using MepMipTest = DbTest;

// Values above 255 would be misordered by a byte-wise little-endian compare.
TEST_F(MepMipTest, WalksFollowNumericKeyOrderAfterMixedChanges) {
  for (MepEntry e : {mep(1, 513, 1), mep(2, 1, 1), mep(1, 1, 2, 0, 3, 2), mep(1, 1, 2, 0, 3), mep(1, 1, 2, 0, 512),
                     mep(1, 1, 2, 1), mep(1, 1, 2), mep(1, 1, 300), mep(1, 2, 1), mep(256, 1, 1)}) {
    ASSERT_EQ(CFM_Update_MEP_Entry(&e), 1);
  }
  MepEntry gone = mep(2, 1, 1);
  ASSERT_EQ(CFM_Delete_MEP_Entry(&gone), 1);
  EXPECT_EQ(CFM_Delete_MEP_Entry(&gone), 0);
  Keys walk;
  for (MepEntry e{}; CFM_GetNext_MEP_Entry(&e) == 1;) {
    walk.push_back({e.md_id, e.ma_id, e.mep_id, e.port, e.vid, e.direction});
  }
  EXPECT_EQ(walk, (Keys{{1, 1, 2, 0, 0, 1}, {1, 1, 2, 0, 3, 1}, {1, 1, 2, 0, 3, 2}, {1, 1, 2, 0, 512, 1},
                        {1, 1, 2, 1, 0, 1}, {1, 1, 300, 0, 0, 1}, {1, 2, 1, 0, 0, 1}, {1, 513, 1, 0, 0, 1},
                        {256, 1, 1, 0, 0, 1}}));
  EXPECT_EQ(CFM_Get_TotalMepEntries(), walk.size());
  MepEntry between = mep(1, 1, 2, 0, 4);
  ASSERT_EQ(CFM_GetNext_MEP_Entry(&between), 1);
  EXPECT_EQ(between.vid, 512);

  for (MipEntry m : std::vector<MipEntry>{{2, 1, 1, 0, 1}, {1, 1, 9, 0, 1}, {1, 1, 1, 8, 1}, {1, 300, 1, 0, 1}}) {
    ASSERT_EQ(CFM_Update_MIP_Entry(&m), 1);
  }
  walk.clear();
  for (MipEntry m{}; CFM_GetNext_MIP_Entry(&m) == 1;) walk.push_back({m.md_id, m.ma_id, m.MipId, m.port});
  EXPECT_EQ(walk, (Keys{{1, 1, 1, 8}, {1, 1, 9, 0}, {1, 300, 1, 0}, {2, 1, 1, 0}}));
}

TEST_F(MepMipTest, FullTablesAndWholeRecordUpdates) {
  for (uint16_t i = 1; i <= CFM_MAX_MEP; ++i) {
    MepEntry e = mep(1, 1, i);
    MipEntry m{1, 1, i, 0, 1};
    ASSERT_EQ(CFM_Update_MEP_Entry(&e) + CFM_Update_MIP_Entry(&m), 2);
  }
  MepEntry extra = mep(1, 1, 65);
  MipEntry extra_mip{1, 1, 65, 0, 1};
  EXPECT_EQ(CFM_Update_MEP_Entry(&extra) + CFM_Update_MIP_Entry(&extra_mip) + CFM_Get_MEP_Entry(&extra), 0);

  MepEntry existing = mep(1, 1, 64);
  existing.LbrExpectedTransId = 0xdeadbeef;  // a field at the record's end
  existing.LbmDataTlv[CFM_LBM_DATA_TLV_SIZE - 1] = 'x';
  EXPECT_EQ(CFM_Update_MEP_Entry(&existing), 1);
  MepEntry got = mep(1, 1, 64);
  ASSERT_EQ(CFM_Get_MEP_Entry(&got), 1);
  EXPECT_EQ(got.LbrExpectedTransId, 0xdeadbeefu);
  EXPECT_EQ(got.LbmDataTlv[CFM_LBM_DATA_TLV_SIZE - 1], 'x');
  EXPECT_EQ(CFM_Get_TotalMepEntries(), 64u);
  EXPECT_EQ(CFM_Get_TotalMipEntries(), 64u);
}

}  // namespace
