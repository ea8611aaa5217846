// Two threads hammer the MEP and remote-MEP tables at once; afterwards both
// must be ordered, within capacity, counted right and hold only whole records.
#include <thread>

#include "core/status.h"
#include "harness.h"

using harness::DbTest;

namespace {

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

}  // namespace
