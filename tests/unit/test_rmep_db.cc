// Remote-MEP and linktrace-reply databases: readiness, key order, capacity,
// ageing and the make-room rule.
#include <cstring>
#include <vector>

#include "core/status.h"
#include "db/ltr_db.h"
#include "db/mgmt_if.h"
#include "db_test_support.h"

namespace {

RemoteMepEntry rmep(uint32_t md, uint32_t ma, uint16_t id, int32_t age = 3500, uint8_t mac_last = 1) {
  RemoteMepEntry e{};
  e.md_id = md;
  e.ma_id = ma;
  e.rmep_id = id;
  e.AgeTime = age;
  e.src_mac[5] = mac_last;
  return e;
}

LtrEntry ltr(uint32_t md, uint32_t ma, uint16_t mep, uint32_t seq, uint32_t reply) {
  LtrEntry e{};
  e.md_id = md;
  e.ma_id = ma;
  e.mep_id = mep;
  e.sequence = seq;
  e.ReplyNumber = reply;
  return e;
}

std::vector<std::vector<uint32_t>> rmep_walk() {
  std::vector<std::vector<uint32_t>> out;
  RemoteMepEntry e{};
  while (CFM_MEP_Get_NextRemEntry(&e) == CFM_DB_FOUND) {
    out.push_back({e.md_id, e.ma_id, e.rmep_id, static_cast<uint32_t>(e.AgeTime)});
  }
  return out;
}

using RemoteMepDbTest = DbTest;
using LtrDbTest = DbTest;

TEST_F(RemoteMepDbTest, NotReadyAndNullArgumentCodes) {
  cfm_mep_db_Reset();
  RemoteMepEntry e = rmep(1, 1, 1);
  LtrEntry l = ltr(1, 1, 1, 1, 0);
  for (uint32_t status : {CFM_MEP_DB_Get_RemEntry(&e), CFM_MEP_Get_NextRemEntry(&e), CFM_MEP_Del_RemEntry(&e),
                          CFM_MEP_DB_Store_RemEntry(&e), mep_process_normal_frame(&e),
                          CFM_MEP_DB_Check_RemEntries_Age(), CFM_DB_Get_LtrEntry(&l), CFM_DB_GetNext_LtrEntry(&l),
                          CFM_DB_Update_LtrEntry(&l), CFM_DB_Del_LtrEntry(&l)}) {
    EXPECT_EQ(status, CFM_DB_NOT_READY);
  }
  cfm_mep_db_Init();
  EXPECT_TRUE(cfm_mep_db_ready());
  for (uint32_t status : {CFM_MEP_DB_Get_RemEntry(nullptr), CFM_MEP_Get_NextRemEntry(nullptr),
                          CFM_MEP_Del_RemEntry(nullptr), CFM_MEP_DB_Store_RemEntry(nullptr),
                          mep_process_normal_frame(nullptr), CFM_DB_Get_LtrEntry(nullptr),
                          CFM_DB_GetNext_LtrEntry(nullptr), CFM_DB_Update_LtrEntry(nullptr),
                          CFM_DB_Del_LtrEntry(nullptr)}) {
    EXPECT_EQ(status, CFM_DB_NULL_ARG);
  }
  EXPECT_EQ(CFM_MEP_DB_RemEntry_Count(), 0u);
}

TEST_F(RemoteMepDbTest, NumericKeyOrderAndOneEntryPerPeer) {
  for (RemoteMepEntry e : {rmep(256, 1, 1), rmep(1, 2, 1), rmep(1, 1, 300), rmep(1, 1, 2)}) {
    ASSERT_EQ(mep_process_normal_frame(&e), CFM_DB_FOUND);
  }
  RemoteMepEntry other_mac = rmep(1, 1, 2, 2500, 9);
  ASSERT_EQ(mep_process_normal_frame(&other_mac), CFM_DB_FOUND);
  EXPECT_EQ(rmep_walk(), (std::vector<std::vector<uint32_t>>{
                             {1, 1, 2, 2500}, {1, 1, 300, 3500}, {1, 2, 1, 3500}, {256, 1, 1, 3500}}));
  RemoteMepEntry got = rmep(1, 1, 2, 0, 0);
  ASSERT_EQ(CFM_MEP_DB_Get_RemEntry(&got), CFM_DB_FOUND);
  EXPECT_EQ(got.src_mac[5], 9);
  RemoteMepEntry last = rmep(256, 1, 1);
  EXPECT_EQ(CFM_MEP_Get_NextRemEntry(&last), CFM_DB_NOT_FOUND);
  EXPECT_EQ(CFM_MEP_Del_RemEntry(&got), CFM_DB_FOUND);
  EXPECT_EQ(CFM_MEP_Del_RemEntry(&got), CFM_DB_NOT_FOUND);
}

TEST_F(RemoteMepDbTest, SixtyFifthPeerIsNotStoredButKnownPeersRefresh) {
  for (uint16_t i = 1; i <= CFM_MAX_REMOTE_MEP; ++i) {
    RemoteMepEntry e = rmep(1, 1, i);
    ASSERT_EQ(mep_process_normal_frame(&e), CFM_DB_FOUND);
  }
  RemoteMepEntry extra = rmep(1, 1, 65);
  EXPECT_EQ(mep_process_normal_frame(&extra), CFM_DB_FULL);
  EXPECT_EQ(CFM_MEP_DB_Get_RemEntry(&extra), CFM_DB_NOT_FOUND);
  RemoteMepEntry known = rmep(1, 1, 64, 35000, 7);
  EXPECT_EQ(mep_process_normal_frame(&known), CFM_DB_FOUND);
  RemoteMepEntry got = rmep(1, 1, 64);
  ASSERT_EQ(CFM_MEP_DB_Get_RemEntry(&got), CFM_DB_FOUND);
  EXPECT_EQ(got.AgeTime, 35000);
  EXPECT_EQ(CFM_MEP_DB_RemEntry_Count(), 64u);

  // Cleared, the table learns peers anew.
  EXPECT_EQ(CFM_IF_Clean_RemoteMep_Entry(), 1);
  EXPECT_EQ(CFM_MEP_DB_RemEntry_Count(), 0u);
  EXPECT_EQ(mep_process_normal_frame(&extra), CFM_DB_FOUND);
  EXPECT_EQ(CFM_MEP_DB_RemEntry_Count(), 1u);
}

TEST_F(RemoteMepDbTest, AgeingLowersByOneSecondAndDeletesAtZeroOrBelow) {
  RemoteMepEntry slow = rmep(1, 1, 1, 3500);
  RemoteMepEntry fastest = rmep(1, 1, 2, 0);
  RemoteMepEntry ten_ms = rmep(1, 1, 3, 35);
  for (RemoteMepEntry *e : {&slow, &fastest, &ten_ms}) ASSERT_EQ(mep_process_normal_frame(e), CFM_DB_FOUND);

  CFM_MEP_DB_Check_RemEntries_Age();
  EXPECT_EQ(rmep_walk(), (std::vector<std::vector<uint32_t>>{{1, 1, 1, 2500}, {1, 1, 3, static_cast<uint32_t>(-965)}}));
  CFM_MEP_DB_Check_RemEntries_Age();
  EXPECT_EQ(rmep_walk(), (std::vector<std::vector<uint32_t>>{{1, 1, 1, 1500}}));
  CFM_MEP_DB_Check_RemEntries_Age();
  EXPECT_EQ(rmep_walk(), (std::vector<std::vector<uint32_t>>{{1, 1, 1, 500}}));
  CFM_MEP_DB_Check_RemEntries_Age();  // finds 500, stores -500
  EXPECT_EQ(rmep_walk().size(), 1u);
  CFM_MEP_DB_Check_RemEntries_Age();
  EXPECT_TRUE(rmep_walk().empty());
}

TEST_F(LtrDbTest, KeyOrderAndSameKeyOverwrites) {
  for (LtrEntry e : {ltr(1, 1, 1, 7, 2), ltr(1, 1, 1, 7, 0), ltr(1, 1, 1, 300, 0), ltr(1, 1, 2, 1, 0),
                     ltr(1, 2, 1, 1, 0), ltr(2, 1, 1, 1, 0), ltr(1, 1, 1, 7, 1)}) {
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&e), CFM_DB_FOUND);
  }
  LtrEntry hit = ltr(1, 1, 1, 7, 0);
  hit.ttl = 42;
  ASSERT_EQ(CFM_DB_Update_LtrEntry(&hit), CFM_DB_FOUND);
  std::vector<std::vector<uint32_t>> walk;
  LtrEntry e{};
  while (CFM_DB_GetNext_LtrEntry(&e) == CFM_DB_FOUND) walk.push_back({e.md_id, e.ma_id, e.mep_id, e.sequence, e.ReplyNumber});
  EXPECT_EQ(walk, (std::vector<std::vector<uint32_t>>{{1, 1, 1, 7, 0}, {1, 1, 1, 7, 1}, {1, 1, 1, 7, 2},
                                                     {1, 1, 1, 300, 0}, {1, 1, 2, 1, 0}, {1, 2, 1, 1, 0},
                                                     {2, 1, 1, 1, 0}}));
  LtrEntry got = ltr(1, 1, 1, 7, 0);
  ASSERT_EQ(CFM_DB_Get_LtrEntry(&got), CFM_DB_FOUND);
  EXPECT_EQ(got.ttl, 42u);
  EXPECT_EQ(CFM_DB_Get_TotalLtrEntries(), 7u);
  LtrEntry last = ltr(2, 1, 1, 1, 0);
  EXPECT_EQ(CFM_DB_GetNext_LtrEntry(&last), CFM_DB_NOT_FOUND);
  EXPECT_EQ(CFM_IF_Clean_LtrDB_Entry(), 1);
  EXPECT_EQ(CFM_DB_Get_TotalLtrEntries(), 0u);
}

TEST_F(LtrDbTest, FullTableRefusesNewKeysAndMakeRoomDropsLowestKey) {
  for (uint32_t i = 0; i < CFM_MAX_LTR; ++i) {
    LtrEntry e = ltr(2, 1, 1, 100 + i, 0);
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&e), CFM_DB_FOUND);
  }
  LtrEntry newest = ltr(1, 1, 1, 5, 0);  // lower than everything stored
  EXPECT_EQ(CFM_DB_Update_LtrEntry(&newest), CFM_DB_FULL);
  LtrEntry existing = ltr(2, 1, 1, 100, 0);
  existing.ttl = 3;
  EXPECT_EQ(CFM_DB_Update_LtrEntry(&existing), CFM_DB_FOUND);

  EXPECT_EQ(CFM_DB_Update_LtrEntry_Make_Room(&newest), CFM_DB_FOUND);
  EXPECT_EQ(CFM_DB_Get_TotalLtrEntries(), 512u);
  EXPECT_EQ(CFM_DB_Get_LtrEntry(&existing), CFM_DB_NOT_FOUND);  // the lowest key went
  EXPECT_EQ(CFM_DB_Get_LtrEntry(&newest), CFM_DB_FOUND);
  LtrEntry second = ltr(1, 1, 1, 6, 0);
  EXPECT_EQ(CFM_DB_Update_LtrEntry_Make_Room(&second), CFM_DB_FOUND);
  EXPECT_EQ(CFM_DB_Get_LtrEntry(&newest), CFM_DB_NOT_FOUND);  // now the lowest
}

}  // namespace
