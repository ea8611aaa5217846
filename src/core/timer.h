// Timer task "CFM-Tmr": runs the CCM timing work and pending loopback
// transmissions once per tick under MEP_SYC.
#pragma once
#include <cstdint>

uint32_t CFM_Timer_Init_Tmr();
// Period chosen from "/cfm/ccm_interval" ("10ms", "100ms", "1s"; else 1000).
uint32_t cfm_timer_period_ms();
// One tick's work (what the task does while CFM is enabled).
void cfm_timer_tick();
