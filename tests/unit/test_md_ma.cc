// MD and MA rows: ordering after mixed changes, capacity, RowStatus rules.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/status.h"
#include "db/md_ma.h"

namespace {

MdEntry md(uint32_t index, uint32_t row_status, const char *name = "") {
  MdEntry e{};
  e.MdIndex = index;
  e.MdLevel = 3;
  e.RowStatus = row_status;
  strncpy(e.MdName, name, sizeof e.MdName - 1);
  return e;
}

MaNetEntry ma(uint32_t md_index, uint32_t index, uint32_t row_status) {
  MaNetEntry e{};
  e.MdIndex = md_index;
  e.MaIndex = index;
  e.CcmInterval = 4;
  e.RowStatus = row_status;
  return e;
}

int set_md(uint32_t index, uint32_t row_status, const char *name = "") {
  MdEntry e = md(index, row_status, name);
  return CFM_Set_MD_Entry(&e);
}

int set_ma(uint32_t md_index, uint32_t index, uint32_t row_status) {
  MaNetEntry e = ma(md_index, index, row_status);
  return CFM_Set_MA_Net_Entry(&e);
}

std::vector<uint32_t> md_walk() {
  std::vector<uint32_t> out;
  MdEntry e{};
  while (CFM_GetNext_MD_Entry(&e) == 1) out.push_back(e.MdIndex);
  return out;
}

std::vector<uint32_t> ma_walk() {
  std::vector<uint32_t> out;
  MaNetEntry e{};
  while (CFM_GetNext_MA_Net_Entry(&e) == 1) out.push_back(e.MaIndex);
  return out;
}

class MdMaTest : public ::testing::Test {
 protected:
  void SetUp() override { CFM_MD_MA_Clear(); }
};

TEST_F(MdMaTest, EmptyTablesAndNullBuffers) {
  MdEntry e{};
  EXPECT_EQ(CFM_GetNext_MD_Entry(&e), 0);
  EXPECT_EQ(CFM_Get_MD_Entry(&e), 0);
  EXPECT_EQ(CFM_Get_MD_Entry(nullptr), 0);
  EXPECT_EQ(CFM_GetNext_MD_Entry(nullptr), 0);
  EXPECT_EQ(CFM_Set_MD_Entry(nullptr), 0);
  EXPECT_EQ(CFM_Get_MA_Net_Entry(nullptr), 0);
  EXPECT_EQ(CFM_GetNext_MA_Net_Entry(nullptr), 0);
  EXPECT_EQ(CFM_Set_MA_Net_Entry(nullptr), 0);
}

TEST_F(MdMaTest, WalkIsAscendingAfterMixedCreatesAndDeletes) {
  for (uint32_t index : {7u, 3u, 50u, 1u, 12u}) ASSERT_EQ(set_md(index, CFM_ROW_CREATE), 1);
  ASSERT_EQ(set_md(3, CFM_ROW_DELETE), 1);
  ASSERT_EQ(set_md(20, CFM_ROW_CREATE), 1);
  ASSERT_EQ(set_md(1, CFM_ROW_DELETE), 1);
  ASSERT_EQ(set_md(2, CFM_ROW_CREATE), 1);
  ASSERT_EQ(set_md(50, CFM_ROW_MODIFY, "renamed"), 1);
  EXPECT_EQ(md_walk(), (std::vector<uint32_t>{2, 7, 12, 20, 50}));

  MdEntry e = md(8, 0);
  ASSERT_EQ(CFM_GetNext_MD_Entry(&e), 1);
  EXPECT_EQ(e.MdIndex, 12u);
  e = md(50, 0);
  EXPECT_EQ(CFM_GetNext_MD_Entry(&e), 0);
  e = md(50, 0);
  ASSERT_EQ(CFM_Get_MD_Entry(&e), 1);
  EXPECT_STREQ(e.MdName, "renamed");
  EXPECT_EQ(e.RowStatus, CFM_ROW_IN_USE);
  e = md(3, 0);
  EXPECT_EQ(CFM_Get_MD_Entry(&e), 0);
}

TEST_F(MdMaTest, SixtyFifthMdFailsAndLeavesTableUnchanged) {
  for (uint32_t i = 0; i < CFM_MAX_MD; ++i) ASSERT_EQ(set_md(200 - 3 * i, CFM_ROW_CREATE), 1);
  std::vector<uint32_t> before = md_walk();
  ASSERT_EQ(before.size(), 64u);
  EXPECT_EQ(set_md(1, CFM_ROW_CREATE), 0);
  EXPECT_EQ(md_walk(), before);
  // A freed row is usable again.
  ASSERT_EQ(set_md(200, CFM_ROW_DELETE), 1);
  EXPECT_EQ(set_md(1, CFM_ROW_CREATE), 1);
  EXPECT_EQ(md_walk().front(), 1u);
}

TEST_F(MdMaTest, RowStatusRules) {
  EXPECT_EQ(set_md(4, CFM_ROW_DELETE), 0);  // absent
  EXPECT_EQ(set_md(4, CFM_ROW_MODIFY), 0);  // absent
  EXPECT_TRUE(md_walk().empty());

  MdEntry create = md(4, CFM_ROW_CREATE);
  ASSERT_EQ(CFM_Set_MD_Entry(&create), 1);
  EXPECT_EQ(create.RowStatus, CFM_ROW_IN_USE);  // the request is marked too
  ASSERT_EQ(set_md(9, CFM_ROW_CREATE), 1);
  // A create on an existing index overwrites the row with status 0: it is gone.
  EXPECT_EQ(set_md(4, CFM_ROW_CREATE), 1);
  EXPECT_EQ(md_walk(), (std::vector<uint32_t>{9}));
}

TEST_F(MdMaTest, MaIndexIsUniqueAcrossMdsAndCapacityIsEight) {
  ASSERT_EQ(set_ma(1, 5, CFM_ROW_CREATE), 1);
  EXPECT_EQ(set_ma(2, 5, CFM_ROW_CREATE), 0);
  EXPECT_EQ(set_ma(2, 5, CFM_ROW_DELETE), 0);
  MaNetEntry e = ma(9, 5, 0);
  ASSERT_EQ(CFM_Get_MA_Net_Entry(&e), 1);
  EXPECT_EQ(e.MdIndex, 1u);

  for (uint32_t index : {8u, 2u, 6u, 1u, 3u, 7u, 4u}) ASSERT_EQ(set_ma(1, index, CFM_ROW_CREATE), 1);
  EXPECT_EQ(set_ma(1, 9, CFM_ROW_CREATE), 0);
  EXPECT_EQ(ma_walk(), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7, 8}));

  ASSERT_EQ(set_ma(1, 2, CFM_ROW_DELETE), 1);
  ASSERT_EQ(set_ma(1, 6, CFM_ROW_DELETE), 1);
  ASSERT_EQ(set_ma(3, 9, CFM_ROW_CREATE), 1);
  EXPECT_EQ(ma_walk(), (std::vector<uint32_t>{1, 3, 4, 5, 7, 8, 9}));
  e = ma(0, 8, 0);
  ASSERT_EQ(CFM_GetNext_MA_Net_Entry(&e), 1);
  EXPECT_EQ(e.MaIndex, 9u);
  EXPECT_EQ(e.MdIndex, 3u);
  EXPECT_EQ(CFM_GetNext_MA_Net_Entry(&e), 0);
}

}  // namespace
