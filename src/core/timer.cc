// Placeholder: replaced by the timer task.
#include "core/status.h"
#include "core/timer.h"
uint32_t CFM_Timer_Init_Tmr() { return CFM_OK; }
