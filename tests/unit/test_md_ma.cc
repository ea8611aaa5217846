// MD and MA rows: ordering after mixed changes, capacity, RowStatus rules.
#include <gtest/gtest.h>

#include <vector>

#include "core/status.h"
#include "db/md_ma.h"

namespace {

using Walk = std::vector<uint32_t>;

int set_md(uint32_t index, uint32_t row_status) {
  MdEntry e{};
  e.MdIndex = index;
  e.RowStatus = row_status;
  return CFM_Set_MD_Entry(&e);
}

int set_ma(uint32_t md_index, uint32_t index, uint32_t row_status) {
  MaNetEntry e{};
  e.MdIndex = md_index;
  e.MaIndex = index;
  e.RowStatus = row_status;
  return CFM_Set_MA_Net_Entry(&e);
}

Walk md_walk(uint32_t from = 0) {
  Walk out;
  MdEntry e{};
  for (e.MdIndex = from; CFM_GetNext_MD_Entry(&e) == 1;) out.push_back(e.MdIndex);
  return out;
}

Walk ma_walk() {
  Walk out;
  for (MaNetEntry e{}; CFM_GetNext_MA_Net_Entry(&e) == 1;) out.push_back(e.MaIndex);
  return out;
}

class MdMaTest : public ::testing::Test {
 protected:
  void SetUp() override { CFM_MD_MA_Clear(); }
};

TEST_F(MdMaTest, MdWalkRowStatusRulesAndCapacity) {
  EXPECT_TRUE(md_walk().empty());
  EXPECT_EQ(CFM_Set_MD_Entry(nullptr), 0);
  for (uint32_t index : {7u, 3u, 50u, 1u, 12u}) ASSERT_EQ(set_md(index, CFM_ROW_CREATE), 1);
  ASSERT_EQ(set_md(3, CFM_ROW_DELETE), 1);
  ASSERT_EQ(set_md(20, CFM_ROW_CREATE), 1);
  ASSERT_EQ(set_md(50, CFM_ROW_MODIFY), 1);
  EXPECT_EQ(set_md(4, CFM_ROW_DELETE) + set_md(4, CFM_ROW_MODIFY), 0);  // absent
  // A create on an existing index copies status 0 over the row: it is freed.
  ASSERT_EQ(set_md(1, CFM_ROW_CREATE), 1);
  EXPECT_EQ(md_walk(), (Walk{7, 12, 20, 50}));
  EXPECT_EQ(md_walk(8), (Walk{12, 20, 50}));
  EXPECT_TRUE(md_walk(50).empty());
  MdEntry got{};
  got.MdIndex = 50;
  ASSERT_EQ(CFM_Get_MD_Entry(&got), 1);
  EXPECT_EQ(got.RowStatus, CFM_ROW_IN_USE);

  // The 65th MD fails and leaves the table unchanged.
  CFM_MD_MA_Clear();
  for (uint32_t i = 0; i < CFM_MAX_MD; ++i) ASSERT_EQ(set_md(200 - 3 * i, CFM_ROW_CREATE), 1);
  Walk before = md_walk();
  EXPECT_EQ(set_md(1, CFM_ROW_CREATE), 0);
  EXPECT_EQ(md_walk(), before);
  ASSERT_EQ(set_md(200, CFM_ROW_DELETE), 1);
  EXPECT_EQ(set_md(1, CFM_ROW_CREATE), 1);
  EXPECT_EQ(md_walk().front(), 1u);
}

TEST_F(MdMaTest, MaIndexIsUniqueAcrossMdsAndCapacityIsEight) {
  ASSERT_EQ(set_ma(1, 5, CFM_ROW_CREATE), 1);
  EXPECT_EQ(set_ma(2, 5, CFM_ROW_CREATE) + set_ma(2, 5, CFM_ROW_DELETE), 0);
  MaNetEntry e{};
  e.MdIndex = 9;
  e.MaIndex = 5;
  ASSERT_EQ(CFM_Get_MA_Net_Entry(&e), 1);
  EXPECT_EQ(e.MdIndex, 1u);

  for (uint32_t index : {8u, 2u, 6u, 1u, 3u, 7u, 4u}) ASSERT_EQ(set_ma(1, index, CFM_ROW_CREATE), 1);
  EXPECT_EQ(set_ma(1, 9, CFM_ROW_CREATE), 0);
  EXPECT_EQ(ma_walk(), (Walk{1, 2, 3, 4, 5, 6, 7, 8}));
  ASSERT_EQ(set_ma(1, 2, CFM_ROW_DELETE) + set_ma(1, 6, CFM_ROW_DELETE), 2);
  ASSERT_EQ(set_ma(3, 9, CFM_ROW_CREATE), 1);
  EXPECT_EQ(ma_walk(), (Walk{1, 3, 4, 5, 7, 8, 9}));
}

}  // namespace
