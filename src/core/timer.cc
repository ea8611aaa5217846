#include "core/timer.h"

#include <cstdio>
#include <cstring>

#include "core/config_tree.h"
#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "engines/ccm_tx.h"
#include "engines/lb_initiator.h"

namespace {

constexpr uint32_t kDefaultPeriodMs = 1000;
constexpr uint32_t kTaskStackSize = 8192;
constexpr uint32_t kTaskPriority = 60;

bool g_timer_started = false;
// Read once, before the task starts, so its report precedes any command.
uint32_t g_period_ms = kDefaultPeriodMs;

void *cfm_timer_task(void *) {
  const uint32_t period = g_period_ms;
  for (;;) {
    GlobalEntry global;
    CFM_IF_Get_Global_Entry(&global);
    if (global.status == 1) cfm_timer_tick();
    CFM_OS_Sleep(period);
  }
  return nullptr;
}

}  // namespace

uint32_t cfm_timer_period_ms() {
  char text[CFM_CONFIG_VALUE_SIZE];
  memset(text, 0, sizeof text);
  ConfigTree::ConfigGet("/cfm/ccm_interval", text);
  text[sizeof text - 1] = '\0';
  uint32_t period = kDefaultPeriodMs;
  if (strcmp(text, "10ms") == 0) {
    period = 10;
    printf("CCMInterval=10");
  } else if (strcmp(text, "100ms") == 0) {
    period = 100;
    printf("CCMInterval=100");
  } else if (strcmp(text, "1s") == 0) {
    period = 1000;
    printf("CCMInterval=1000");
  } else {
    return period;
  }
  return period;
}

void cfm_timer_tick() {
  MepSycLock lock;
  CFM_CCM_TIME_CHECK();
  CFM_LBI_XMIT_Check();
}

uint32_t CFM_Timer_Init_Tmr() {
  if (g_timer_started) return CFM_ERR_FAILURE;
  g_period_ms = cfm_timer_period_ms();
  pthread_t thread;
  if (CFM_OS_Create_Task(&thread, "CFM-Tmr", cfm_timer_task, kTaskStackSize, kTaskPriority) != 1) {
    printf("\r\nCreate CFM-Tmr task failed.");
    CFM_OS_Fatal_Error_Handler();
  }
  g_timer_started = true;
  return CFM_OK;
}
