// Timer task: the period read from the configuration tree, and a single start.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "core/config_tree.h"
#include "core/status.h"
#include "core/timer.h"

namespace {

TEST(Timer, PeriodComesFromTheCcmIntervalKey) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(cfm_timer_period_ms(), 1000u);  // inert tree: no message
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  char dir[] = "/tmp/ccm_tree_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string base(dir);
  if (!ConfigTree::attachDirectory(base)) GTEST_SKIP() << "configuration tree cannot be backed by a directory";
  ASSERT_EQ(system(("mkdir -p " + base + "/cfm").c_str()), 0);
  struct Case {
    const char *text;
    uint32_t period;
    const char *printed;
  } cases[] = {{"10ms", 10, "CCMInterval=10"}, {"100ms", 100, "CCMInterval=100"}, {"1s", 1000, "CCMInterval=1000"},
               {"5ms", 1000, ""}, {"", 1000, ""}};
  for (const Case &c : cases) {
    std::ofstream(base + "/cfm/ccm_interval") << c.text << "\n";
    testing::internal::CaptureStdout();
    EXPECT_EQ(cfm_timer_period_ms(), c.period) << c.text;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
  }
  ConfigTree::detach();
  EXPECT_EQ(system(("rm -rf " + base).c_str()), 0);
}

TEST(Timer, StartsOnce) {
  EXPECT_EQ(CFM_Timer_Init_Tmr(), CFM_OK);
  EXPECT_EQ(CFM_Timer_Init_Tmr(), CFM_ERR_FAILURE);
}

}  // namespace
