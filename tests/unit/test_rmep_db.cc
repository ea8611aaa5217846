// Remote-MEP and linktrace-reply databases: readiness, key order, capacity,
// ageing and the make-room rule.
#include <vector>

#include "core/status.h"
#include "db/mgmt_if.h"
#include "harness.h"

using harness::DbTest;

namespace {

using Row = std::vector<int64_t>;
using Rows = std::vector<Row>;

RemoteMepEntry rmep(uint32_t md, uint16_t id, int32_t age = 3500, uint8_t mac_last = 1) {
  RemoteMepEntry e{};
  e.md_id = md, e.ma_id = 1, e.rmep_id = id, e.AgeTime = age, e.src_mac[5] = mac_last;
  return e;
}

LtrEntry ltr(uint32_t md, uint16_t mep, uint32_t seq, uint32_t reply) {
  LtrEntry e{};
  e.md_id = md, e.ma_id = 1, e.mep_id = mep, e.sequence = seq, e.ReplyNumber = reply;
  return e;
}

Rows rmep_walk() {
  Rows out;
  for (RemoteMepEntry e{}; CFM_MEP_Get_NextRemEntry(&e) == CFM_DB_FOUND;) {
    out.push_back({e.md_id, e.rmep_id, e.AgeTime, e.src_mac[5]});
  }
  return out;
}

using RemoteMepDbTest = DbTest;

TEST_F(RemoteMepDbTest, OrderCapacityRefreshAndClear) {
  for (uint16_t id = CFM_MAX_REMOTE_MEP; id >= 1; --id) {
    RemoteMepEntry e = rmep(id == 2 ? 256 : 1, id == 3 ? 300 : id);
    ASSERT_EQ(mep_process_normal_frame(&e), CFM_DB_FOUND);
  }
  RemoteMepEntry extra = rmep(1, 65), other_mac = rmep(1, 4, 2500, 9);
  EXPECT_EQ(mep_process_normal_frame(&extra), CFM_DB_FULL);
  EXPECT_EQ(mep_process_normal_frame(&other_mac), CFM_DB_FOUND);  // a known peer still refreshes
  Rows walk = rmep_walk();
  ASSERT_EQ(walk.size(), 64u);
  EXPECT_EQ(Rows(walk.begin(), walk.begin() + 2), (Rows{{1, 1, 3500, 1}, {1, 4, 2500, 9}}));
  EXPECT_EQ(Rows(walk.end() - 2, walk.end()), (Rows{{1, 300, 3500, 1}, {256, 2, 3500, 1}}));
  EXPECT_EQ(CFM_MEP_DB_Get_RemEntry(&extra), CFM_DB_NOT_FOUND);
  EXPECT_EQ(CFM_IF_Clean_RemoteMep_Entry(), 1);
  EXPECT_EQ(CFM_MEP_DB_RemEntry_Count(), 0u);
  EXPECT_EQ(mep_process_normal_frame(&extra), CFM_DB_FOUND);
}

TEST_F(RemoteMepDbTest, AgeingLowersByOneSecondAndDeletesAtZeroOrBelow) {
  for (RemoteMepEntry e : {rmep(1, 1, 3500), rmep(1, 2, 0), rmep(1, 3, 35)}) {
    ASSERT_EQ(mep_process_normal_frame(&e), CFM_DB_FOUND);
  }
  CFM_MEP_DB_Check_RemEntries_Age();
  EXPECT_EQ(rmep_walk(), (Rows{{1, 1, 2500, 1}, {1, 3, -965, 1}}));
  for (int32_t age : {1500, 500, -500}) {
    CFM_MEP_DB_Check_RemEntries_Age();
    EXPECT_EQ(rmep_walk(), (Rows{{1, 1, age, 1}}));
  }
  CFM_MEP_DB_Check_RemEntries_Age();
  EXPECT_TRUE(rmep_walk().empty());
}

using LtrDbTest = DbTest;

TEST_F(LtrDbTest, KeyOrderAndSameKeyOverwrites) {
  LtrEntry hit = ltr(1, 1, 7, 0);
  hit.ttl = 42;
  for (LtrEntry e : {ltr(1, 1, 7, 2), ltr(1, 1, 7, 0), ltr(1, 1, 300, 0), ltr(1, 2, 1, 0), ltr(2, 1, 1, 0),
                     ltr(1, 1, 7, 1), hit}) {
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&e), CFM_DB_FOUND);
  }
  Rows walk;
  for (LtrEntry e{}; CFM_DB_GetNext_LtrEntry(&e) == CFM_DB_FOUND;) {
    walk.push_back({e.md_id, e.mep_id, e.sequence, e.ReplyNumber, e.ttl});
  }
  EXPECT_EQ(walk, (Rows{{1, 1, 7, 0, 42}, {1, 1, 7, 1, 0}, {1, 1, 7, 2, 0}, {1, 1, 300, 0, 0}, {1, 2, 1, 0, 0},
                        {2, 1, 1, 0, 0}}));
  EXPECT_EQ(CFM_IF_Clean_LtrDB_Entry(), 1);
  EXPECT_EQ(CFM_DB_Get_TotalLtrEntries(), 0u);
}

TEST_F(LtrDbTest, FullTableRefusesNewKeysAndMakeRoomDropsLowestKey) {
  for (uint32_t i = 0; i < CFM_MAX_LTR; ++i) {
    LtrEntry e = ltr(2, 1, 100 + i, 0);
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&e), CFM_DB_FOUND);
  }
  LtrEntry lowest = ltr(2, 1, 100, 0), newest = ltr(1, 1, 5, 0), second = ltr(1, 1, 6, 0);
  EXPECT_EQ(CFM_DB_Update_LtrEntry(&newest), CFM_DB_FULL);  // orders before everything stored
  EXPECT_EQ(CFM_DB_Update_LtrEntry(&lowest), CFM_DB_FOUND);
  EXPECT_EQ(CFM_DB_Update_LtrEntry_Make_Room(&newest), CFM_DB_FOUND);
  EXPECT_EQ(CFM_DB_Get_TotalLtrEntries(), 512u);
  EXPECT_EQ(CFM_DB_Get_LtrEntry(&lowest), CFM_DB_NOT_FOUND);
  EXPECT_EQ(CFM_DB_Update_LtrEntry_Make_Room(&second), CFM_DB_FOUND);
  EXPECT_EQ(CFM_DB_Get_LtrEntry(&newest), CFM_DB_NOT_FOUND);  // now it was the lowest
}

}  // namespace
