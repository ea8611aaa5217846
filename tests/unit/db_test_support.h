// Shared set-up of the database unit tests: tables emptied and marked ready
// before each case, semaphore sets removed when the test program ends.
#pragma once
#include <gtest/gtest.h>

#include "core/os.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"

class DbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CFM_MD_MA_Clear();
    CFM_MEP_MIP_Reset();
    CFM_MEP_MIP_Init();
    cfm_mep_db_Reset();
    cfm_mep_db_Init();
  }
};

class SemaphoreCleanup : public ::testing::Environment {
 public:
  void TearDown() override { CFM_OS_Remove_All_Semaphores(); }
};

inline ::testing::Environment *const g_semaphore_cleanup =
    ::testing::AddGlobalTestEnvironment(new SemaphoreCleanup);
