// Two threads hammer the MEP and remote-MEP tables at once; afterwards both
// tables must still be ordered, within capacity, counted right, and hold only
// records that were written whole.
#include <thread>
#include <vector>

#include "core/status.h"
#include "db_test_support.h"

namespace {

constexpr int kIterations = 20000;
constexpr uint32_t kKeySpace = 80;  // above capacity, so the limits are hit

uint32_t next_random(uint32_t &state) {
  state = state * 1103515245u + 12345u;
  return state >> 8;
}

MepEntry mep_record(uint32_t n) {
  MepEntry e{};
  e.md_id = 1 + n % 3;
  e.ma_id = 1 + n % 2;
  e.mep_id = static_cast<uint16_t>(n);
  e.direction = 1;
  e.LbmMessages = n * 3;  // tied to the key: a torn copy would show
  e.LtmSeqNumber = n * 5;
  return e;
}

RemoteMepEntry rmep_record(uint32_t n) {
  RemoteMepEntry e{};
  e.md_id = 1 + n % 2;
  e.ma_id = 1;
  e.rmep_id = static_cast<uint16_t>(n);
  e.SequenceNum = n * 7;
  e.AgeTime = static_cast<int32_t>(1000 + n * 1000);
  return e;
}

void hammer(uint32_t seed) {
  uint32_t state = seed;
  for (int i = 0; i < kIterations; ++i) {
    uint32_t n = next_random(state) % kKeySpace;
    switch (next_random(state) % 4) {
      case 0: {
        MepEntry e = mep_record(n);
        CFM_Update_MEP_Entry(&e);
        RemoteMepEntry r = rmep_record(n);
        mep_process_normal_frame(&r);
        break;
      }
      case 1: {
        MepEntry e = mep_record(n);
        CFM_Delete_MEP_Entry(&e);
        RemoteMepEntry r = rmep_record(n);
        CFM_MEP_Del_RemEntry(&r);
        break;
      }
      case 2: {
        MepEntry e{};
        for (int step = 0; step < 8 && CFM_GetNext_MEP_Entry(&e) == 1; ++step) {
        }
        RemoteMepEntry r{};
        for (int step = 0; step < 8 && CFM_MEP_Get_NextRemEntry(&r) == CFM_DB_FOUND; ++step) {
        }
        break;
      }
      default:
        if (n % 16 == 0) CFM_MEP_DB_Check_RemEntries_Age();
        break;
    }
  }
}

using DbConcurrencyTest = DbTest;

TEST_F(DbConcurrencyTest, TablesStayConsistentUnderTwoWriters) {
  std::thread a(hammer, 1u);
  std::thread b(hammer, 2u);
  a.join();
  b.join();

  uint32_t meps = 0;
  MepEntry prev{};
  MepEntry e{};
  while (CFM_GetNext_MEP_Entry(&e) == 1) {
    if (meps > 0) {
      EXPECT_LT(cfm_mep_key_compare(&prev, &e, nullptr), 0);
    }
    uint32_t n = e.mep_id;
    EXPECT_EQ(e.md_id, 1 + n % 3);
    EXPECT_EQ(e.LbmMessages, n * 3);
    EXPECT_EQ(e.LtmSeqNumber, n * 5);
    prev = e;
    ++meps;
  }
  EXPECT_EQ(meps, CFM_Get_TotalMepEntries());
  EXPECT_LE(meps, static_cast<uint32_t>(CFM_MAX_MEP));

  uint32_t peers = 0;
  RemoteMepEntry prev_r{};
  RemoteMepEntry r{};
  while (CFM_MEP_Get_NextRemEntry(&r) == CFM_DB_FOUND) {
    if (peers > 0) {
      bool ascending = prev_r.md_id < r.md_id || (prev_r.md_id == r.md_id && prev_r.rmep_id < r.rmep_id);
      EXPECT_TRUE(ascending);
    }
    EXPECT_EQ(r.SequenceNum, r.rmep_id * 7u);
    EXPECT_EQ(r.AgeTime % 1000, 0);  // whole ageing steps only
    prev_r = r;
    ++peers;
  }
  EXPECT_EQ(peers, CFM_MEP_DB_RemEntry_Count());
  EXPECT_LE(peers, static_cast<uint32_t>(CFM_MAX_REMOTE_MEP));
  EXPECT_GT(meps + peers, 0u);
}

}  // namespace
