// The tables: MD and MA rows, MEPs in numeric key order, remote
// MEPs and linktrace replies with their capacity rules, and two threads
// hammering the MEP and remote-MEP tables at once.
#include <thread>

#include "harness.h"

// Records are built with aggregate initializers; the fields left out are zero.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using harness::DbTest;

using Row = std::vector<int64_t>;
using Rows = std::vector<Row>;

int set_md(uint32_t index, uint32_t row_status) {
  MdEntry e{index, 0, 0, 0, 0, {}, row_status};
  return CFM_Set_MD_Entry(&e);
}
int set_ma(uint32_t md_index, uint32_t index, uint32_t row_status) {
  MaNetEntry e{md_index, index, 0, {}, 0, row_status};
  return CFM_Set_MA_Net_Entry(&e);
}
Row md_walk(uint32_t from = 0) {
  Row out;
  MdEntry e{};
  for (e.MdIndex = from; CFM_GetNext_MD_Entry(&e) == 1;) out.push_back(e.MdIndex);
  return out;
}

using TableTest = DbTest;

// (Requests on absent rows are refused by the management layer's checks.)
TEST_F(TableTest, RowStatusRulesOrderAndCapacity) {
  for (uint32_t index : {7u, 3u, 50u, 1u, 12u}) ASSERT_EQ(set_md(index, CFM_ROW_CREATE), 1);
  ASSERT_EQ(set_md(3, CFM_ROW_DELETE) + set_md(20, CFM_ROW_CREATE) + set_md(50, CFM_ROW_MODIFY), 3);
  EXPECT_EQ(md_walk(2), (Row{7, 12, 20, 50}));
  // The 65th MD fails and leaves the table unchanged.
  CFM_MD_MA_Clear();
  for (uint32_t i = 0; i < CFM_MAX_MD; ++i) ASSERT_EQ(set_md(200 - 3 * i, CFM_ROW_CREATE), 1);
  EXPECT_EQ(set_md(1, CFM_ROW_CREATE), 0);
  EXPECT_EQ(md_walk().front(), 200 - 3 * (CFM_MAX_MD - 1));

  // An MA index is unique across MDs; eight MAs at most.
  ASSERT_EQ(set_ma(1, 5, CFM_ROW_CREATE), 1);
  EXPECT_EQ(set_ma(2, 5, CFM_ROW_CREATE), 0);
  for (uint32_t index : {8u, 2u, 6u, 1u, 3u, 7u, 4u}) ASSERT_EQ(set_ma(1, index, CFM_ROW_CREATE), 1);
  EXPECT_EQ(set_ma(1, 9, CFM_ROW_CREATE), 0);
  Row mas;
  for (MaNetEntry m{}; CFM_GetNext_MA_Net_Entry(&m) == 1;) mas.push_back(m.MaIndex);
  EXPECT_EQ(mas, (Row{1, 2, 3, 4, 5, 6, 7, 8}));
}

MepEntry mep(uint32_t md, uint32_t ma, uint16_t id, uint8_t port = 0, uint16_t vid = 0, uint8_t dir = 1) {
  return MepEntry{md, ma, id, port, vid, dir};
}

// Values above 255 would be misordered by a byte-wise little-endian compare.
// (MIPs share the table code; only the management request creates them. The
// threads test checks that a record's last field is stored and, with more
// keys than rows, the capacity; the commands check the longest field.)
TEST_F(TableTest, MepWalkFollowsNumericKeyOrder) {
  for (MepEntry e : {mep(1, 513, 1), mep(2, 1, 1), mep(1, 1, 2, 0, 3, 2), mep(1, 1, 2, 0, 3), mep(1, 1, 2, 0, 512),
                     mep(1, 1, 2, 1), mep(1, 1, 2), mep(1, 1, 300), mep(1, 2, 1), mep(256, 1, 1)}) {
    ASSERT_EQ(CFM_Update_MEP_Entry(&e), 1);
  }
  Rows walk;
  for (MepEntry e = mep(1, 1, 2, 0, 1); CFM_GetNext_MEP_Entry(&e) == 1;) {  // from a key between two
    walk.push_back({e.md_id, e.ma_id, e.mep_id, e.port, e.vid, e.direction});
  }
  EXPECT_EQ(walk, (Rows{{1, 1, 2, 0, 3, 1}, {1, 1, 2, 0, 3, 2}, {1, 1, 2, 0, 512, 1}, {1, 1, 2, 1, 0, 1},
                        {1, 1, 300, 0, 0, 1}, {1, 2, 1, 0, 0, 1}, {1, 513, 1, 0, 0, 1}, {2, 1, 1, 0, 0, 1},
                        {256, 1, 1, 0, 0, 1}}));
}

RemoteMepEntry rmep(uint32_t md, uint16_t id, int32_t age = 3500, uint8_t mac_last = 1) {
  return {.md_id = md, .ma_id = 1, .rmep_id = id, .src_mac = {0, 0, 0, 0, 0, mac_last}, .AgeTime = age};
}

LtrEntry ltr(uint32_t md, uint16_t mep, uint32_t seq, uint32_t reply, uint32_t ttl = 0) {
  return {.md_id = md, .ma_id = 1, .mep_id = mep, .sequence = seq, .ReplyNumber = reply, .ttl = ttl};
}

// (Clearing the remote MEPs is checked through the commands; making room in
// a full reply table through the linktrace engine.)
TEST_F(TableTest, PeerTablesKeyOrderCapacityAndRefresh) {
  for (uint16_t id = CFM_MAX_REMOTE_MEP; id >= 1; --id) {
    RemoteMepEntry e = rmep(id == 2 ? 256 : 1, id == 3 ? 300 : id);
    ASSERT_EQ(mep_process_normal_frame(&e), CFM_DB_FOUND);
  }
  RemoteMepEntry extra = rmep(1, 65), other_mac = rmep(1, 4, 2500, 9);
  EXPECT_EQ(mep_process_normal_frame(&extra), CFM_DB_FULL);
  EXPECT_EQ(mep_process_normal_frame(&other_mac), CFM_DB_FOUND);  // a known peer still refreshes
  Rows walk;
  for (RemoteMepEntry e{}; CFM_MEP_Get_NextRemEntry(&e) == CFM_DB_FOUND;) {
    walk.push_back({e.md_id, e.rmep_id, e.AgeTime, e.src_mac[5]});
  }
  ASSERT_EQ(walk.size(), 64u);
  EXPECT_EQ(Rows(walk.begin(), walk.begin() + 2), (Rows{{1, 1, 3500, 1}, {1, 4, 2500, 9}}));
  EXPECT_EQ(Rows(walk.end() - 2, walk.end()), (Rows{{1, 300, 3500, 1}, {256, 2, 3500, 1}}));

  // Linktrace replies: a stored key is overwritten in place.
  for (LtrEntry e : {ltr(1, 1, 7, 2), ltr(1, 1, 7, 0), ltr(1, 1, 300, 0), ltr(1, 2, 1, 0), ltr(2, 1, 1, 0),
                     ltr(1, 1, 7, 1), ltr(1, 1, 7, 0, 42)}) {
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&e), CFM_DB_FOUND);
  }
  walk.clear();
  for (LtrEntry e{}; CFM_DB_GetNext_LtrEntry(&e) == CFM_DB_FOUND;) {
    walk.push_back({e.md_id, e.mep_id, e.sequence, e.ReplyNumber, e.ttl});
  }
  EXPECT_EQ(walk, (Rows{{1, 1, 7, 0, 42}, {1, 1, 7, 1, 0}, {1, 1, 7, 2, 0}, {1, 1, 300, 0, 0}, {1, 2, 1, 0, 0},
                        {2, 1, 1, 0, 0}}));
  // A full table refuses new keys but updates stored ones.
  for (uint32_t i = 0; i < CFM_MAX_LTR - 6; ++i) {
    LtrEntry e = ltr(3, 1, i, 0);
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&e), CFM_DB_FOUND);
  }
  LtrEntry stored = ltr(2, 1, 1, 0), fresh = ltr(1, 1, 5, 0);
  EXPECT_EQ(CFM_DB_Update_LtrEntry(&fresh), CFM_DB_FULL);
  EXPECT_EQ(CFM_DB_Update_LtrEntry(&stored), CFM_DB_FOUND);
  EXPECT_EQ(CFM_IF_Clean_LtrDB_Entry(), 1);
  EXPECT_EQ(CFM_DB_Get_TotalLtrEntries(), 0u);
}

void hammer(uint32_t state) {
  for (int i = 0; i < 20000; ++i) {
    state = state * 1103515245u + 12345u;
    const uint32_t n = (state >> 8) % 80;  // more keys than capacity
    // Payload tied to the key: a torn copy would show.
    MepEntry e{};
    e.md_id = 1 + n % 3, e.mep_id = static_cast<uint16_t>(n), e.LbmMessages = n * 3, e.LbrExpectedTransId = n * 5;
    RemoteMepEntry r{};
    r.md_id = 1 + n % 2, r.rmep_id = static_cast<uint16_t>(n), r.SequenceNum = n * 7, r.AgeTime = int32_t(n * 1000);
    switch ((state >> 20) % 4) {
      case 0:
        CFM_Update_MEP_Entry(&e);
        mep_process_normal_frame(&r);
        break;
      case 1:
        CFM_Delete_MEP_Entry(&e);
        CFM_MEP_Del_RemEntry(&r);
        break;
      case 2:
        for (int step = 0; step < 8 && CFM_GetNext_MEP_Entry(&e) == 1; ++step) continue;
        for (int step = 0; step < 8 && CFM_MEP_Get_NextRemEntry(&r) == CFM_DB_FOUND; ++step) continue;
        break;
      default:
        if (n % 16 == 0) CFM_MEP_DB_Check_RemEntries_Age();
    }
  }
}

using DbConcurrencyTest = DbTest;

TEST_F(DbConcurrencyTest, TablesStayConsistentUnderTwoWriters) {
  std::thread a(hammer, 1u), b(hammer, 2u);
  a.join();
  b.join();
  uint32_t meps = 0, peers = 0;
  MepEntry prev{};
  for (MepEntry e{}; CFM_GetNext_MEP_Entry(&e) == 1; prev = e, ++meps) {
    EXPECT_TRUE(meps == 0 || cfm_mep_key_compare(&prev, &e, nullptr) < 0);
    EXPECT_EQ(e.LbmMessages, e.mep_id * 3u);
    EXPECT_EQ(e.LbrExpectedTransId, e.mep_id * 5u);
  }
  RemoteMepEntry prev_r{};
  for (RemoteMepEntry r{}; CFM_MEP_Get_NextRemEntry(&r) == CFM_DB_FOUND; prev_r = r, ++peers) {
    EXPECT_TRUE(peers == 0 || prev_r.md_id < r.md_id || (prev_r.md_id == r.md_id && prev_r.rmep_id < r.rmep_id));
    EXPECT_EQ(r.SequenceNum, r.rmep_id * 7u);
    EXPECT_EQ(r.AgeTime % 1000, 0);  // whole ageing steps only
  }
  EXPECT_EQ(meps, CFM_Get_TotalMepEntries());
  EXPECT_EQ(peers, CFM_MEP_DB_RemEntry_Count());
  EXPECT_LE(meps, static_cast<uint32_t>(CFM_MAX_MEP));
  EXPECT_LE(peers, static_cast<uint32_t>(CFM_MAX_REMOTE_MEP));
  EXPECT_GT(meps + peers, 0u);
}

// The tick and the engines read MD rows under MEP_SYC while commands add
// rows (each sorting in front of the others) and delete them.
TEST_F(DbConcurrencyTest, TickSeesWholeMdRowsWhileCommandsChangeThem) {
  CFM_Create_MEP_SYC_Sem();
  std::atomic<bool> done{false};
  std::thread commands([&] {
    for (int round = 0; round < 1000; ++round) {
      for (int md = 60; md >= 1; --md) {
        cfm_cli_run_line(("createmd " + std::to_string(md) + " 0 " + std::to_string(md % 8) + " 0 md" +
                          std::to_string(md)).c_str());
      }
      for (int md = 1; md <= 60; ++md) cfm_cli_run_line(("deletemd " + std::to_string(md)).c_str());
    }
    done = true;
  });
  int torn = 0;
  while (!done) {
    MepSycLock tick;
    for (MdEntry md{}; CFM_GetNext_MD_Entry(&md) == 1;) {
      torn += md.MdName != "md" + std::to_string(md.MdIndex) || md.MdLevel != md.MdIndex % 8;
    }
  }
  commands.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
