// MEP and MIP tables: key order, whole-record copies, capacity, readiness.
#include <cstring>
#include <vector>

#include "db_test_support.h"

namespace {

MepEntry mep(uint32_t md, uint32_t ma, uint16_t id, uint8_t port = 0, uint16_t vid = 0, uint8_t dir = 1) {
  MepEntry e{};
  e.md_id = md;
  e.ma_id = ma;
  e.mep_id = id;
  e.port = port;
  e.vid = vid;
  e.direction = dir;
  return e;
}

MipEntry mip(uint32_t md, uint32_t ma, uint16_t id, uint8_t port) {
  MipEntry e{};
  e.md_id = md;
  e.ma_id = ma;
  e.MipId = id;
  e.port = port;
  return e;
}

std::vector<MepKey> mep_walk() {
  std::vector<MepKey> out;
  MepEntry e{};
  while (CFM_GetNext_MEP_Entry(&e) == 1) {
    out.push_back({e.md_id, e.ma_id, e.mep_id, e.port, e.vid, e.direction});
  }
  return out;
}

bool same_key(const MepKey &k, const MepEntry &e) {
  return k.md_id == e.md_id && k.ma_id == e.ma_id && k.mep_id == e.mep_id && k.port == e.port &&
         k.vid == e.vid && k.direction == e.direction;
}

using MepMipTest = DbTest;

TEST_F(MepMipTest, NothingWorksBeforeInitAndNullBuffersFail) {
  CFM_MEP_MIP_Reset();
  MepEntry e = mep(1, 1, 1);
  MipEntry m = mip(1, 1, 1, 0);
  EXPECT_EQ(CFM_Update_MEP_Entry(&e), 0);
  EXPECT_EQ(CFM_Get_MEP_Entry(&e), 0);
  EXPECT_EQ(CFM_GetNext_MEP_Entry(&e), 0);
  EXPECT_EQ(CFM_Delete_MEP_Entry(&e), 0);
  EXPECT_EQ(CFM_Update_MIP_Entry(&m), 0);
  EXPECT_EQ(CFM_GetNext_MIP_Entry(&m), 0);
  CFM_MEP_MIP_Init();
  EXPECT_EQ(CFM_Get_TotalMepEntries(), 0u);
  EXPECT_EQ(CFM_Update_MEP_Entry(nullptr), 0);
  EXPECT_EQ(CFM_Get_MEP_Entry(nullptr), 0);
  EXPECT_EQ(CFM_GetNext_MEP_Entry(nullptr), 0);
  EXPECT_EQ(CFM_Delete_MEP_Entry(nullptr), 0);
  EXPECT_EQ(CFM_Update_MIP_Entry(nullptr), 0);
  EXPECT_EQ(CFM_Delete_MIP_Entry(nullptr), 0);
}

// Keys that differ in one field at a time, some above 255 so that a byte-wise
// comparison of little-endian fields would misorder them.
TEST_F(MepMipTest, WalkFollowsNumericKeyOrderAfterMixedChanges) {
  const std::vector<MepEntry> keys = {
      mep(256, 1, 1), mep(1, 2, 1),       mep(1, 1, 300),    mep(1, 1, 2),        mep(1, 1, 2, 1),
      mep(1, 1, 2, 0, 512), mep(1, 1, 2, 0, 3), mep(1, 1, 2, 0, 3, 2), mep(2, 1, 1), mep(1, 513, 1)};
  for (int i = static_cast<int>(keys.size()) - 1; i >= 0; --i) ASSERT_EQ(CFM_Update_MEP_Entry(&keys[i]), 1);
  MepEntry gone = mep(2, 1, 1);
  ASSERT_EQ(CFM_Delete_MEP_Entry(&gone), 1);
  EXPECT_EQ(CFM_Delete_MEP_Entry(&gone), 0);
  const std::vector<MepEntry> expected = {mep(1, 1, 2),       mep(1, 1, 2, 0, 3), mep(1, 1, 2, 0, 3, 2),
                                          mep(1, 1, 2, 0, 512), mep(1, 1, 2, 1),  mep(1, 1, 300),
                                          mep(1, 2, 1),       mep(1, 513, 1),     mep(256, 1, 1)};
  std::vector<MepKey> walk = mep_walk();
  ASSERT_EQ(walk.size(), expected.size());
  for (size_t i = 0; i < walk.size(); ++i) EXPECT_TRUE(same_key(walk[i], expected[i])) << "position " << i;
  EXPECT_EQ(CFM_Get_TotalMepEntries(), expected.size());

  MepEntry last = mep(256, 1, 1);
  EXPECT_EQ(CFM_GetNext_MEP_Entry(&last), 0);
  MepEntry between = mep(1, 1, 2, 0, 4);  // between vid 3 and vid 512
  ASSERT_EQ(CFM_GetNext_MEP_Entry(&between), 1);
  EXPECT_EQ(between.vid, 512);
}

TEST_F(MepMipTest, RecordsCrossAsWholeCopies) {
  MepEntry e = mep(3, 4, 5);
  e.LbmMessages = 77;
  e.LtmTtl = 9;
  e.LbrExpectedTransId = 0xdeadbeef;
  strcpy(e.LbmDataTlv, "payload");
  ASSERT_EQ(CFM_Update_MEP_Entry(&e), 1);
  e.LbmMessages = 1;  // changing the caller's copy changes nothing stored
  MepEntry got = mep(3, 4, 5);
  ASSERT_EQ(CFM_Get_MEP_Entry(&got), 1);
  EXPECT_EQ(got.LbmMessages, 77u);
  EXPECT_EQ(got.LbrExpectedTransId, 0xdeadbeefu);
  EXPECT_STREQ(got.LbmDataTlv, "payload");
  got.LbmMessages = 5;
  ASSERT_EQ(CFM_Update_MEP_Entry(&got), 1);
  MepEntry again = mep(3, 4, 5);
  ASSERT_EQ(CFM_Get_MEP_Entry(&again), 1);
  EXPECT_EQ(again.LbmMessages, 5u);
  EXPECT_EQ(CFM_Get_TotalMepEntries(), 1u);
}

TEST_F(MepMipTest, SixtyFifthMepAndMipAreRefused) {
  for (uint16_t i = 1; i <= CFM_MAX_MEP; ++i) {
    MepEntry e = mep(1, 1, i);
    ASSERT_EQ(CFM_Update_MEP_Entry(&e), 1);
    MipEntry m = mip(1, 1, i, 0);
    ASSERT_EQ(CFM_Update_MIP_Entry(&m), 1);
  }
  MepEntry extra = mep(1, 1, 65);
  EXPECT_EQ(CFM_Update_MEP_Entry(&extra), 0);
  MipEntry extra_mip = mip(1, 1, 65, 0);
  EXPECT_EQ(CFM_Update_MIP_Entry(&extra_mip), 0);
  MepEntry existing = mep(1, 1, 64);
  existing.Active = 1;
  EXPECT_EQ(CFM_Update_MEP_Entry(&existing), 1);
  EXPECT_EQ(CFM_Get_TotalMepEntries(), 64u);
  EXPECT_EQ(CFM_Get_TotalMipEntries(), 64u);
  EXPECT_EQ(CFM_Get_MEP_Entry(&extra), 0);
}

TEST_F(MepMipTest, MipKeyOrder) {
  for (MipEntry m : {mip(2, 1, 1, 0), mip(1, 1, 9, 0), mip(1, 1, 1, 8), mip(1, 1, 1, 3), mip(1, 300, 1, 0)}) {
    ASSERT_EQ(CFM_Update_MIP_Entry(&m), 1);
  }
  std::vector<std::vector<uint32_t>> walk;
  MipEntry m{};
  while (CFM_GetNext_MIP_Entry(&m) == 1) walk.push_back({m.md_id, m.ma_id, m.MipId, m.port});
  EXPECT_EQ(walk, (std::vector<std::vector<uint32_t>>{
                      {1, 1, 1, 3}, {1, 1, 1, 8}, {1, 1, 9, 0}, {1, 300, 1, 0}, {2, 1, 1, 0}}));
  MipEntry del = mip(1, 1, 9, 0);
  EXPECT_EQ(CFM_Delete_MIP_Entry(&del), 1);
  EXPECT_EQ(CFM_Get_MIP_Entry(&del), 0);
}

}  // namespace
