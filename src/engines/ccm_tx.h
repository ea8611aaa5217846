// CCM transmission: the interval table, the 108-byte CCM as sent, and the
// per-tick entry point of the CCM timing work.
#pragma once
#include <cstddef>
#include <cstdint>

#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "engines/ccm_pdu.h"

// Every tick lowers the protocol countdowns by one second, whatever its real
// period; a countdown that keeps running below zero stops at the type's floor.
constexpr int32_t CFM_CCM_TICK_MS = 1000;
inline int32_t cfm_ccm_count_down(int32_t timer) {
  return timer < INT32_MIN + CFM_CCM_TICK_MS ? INT32_MIN : timer - CFM_CCM_TICK_MS;
}

// Period, loss time (3.5 periods) and the table's third value, in ms.
void cfm_ccm_interval_lookup(uint8_t code, uint32_t *period, uint32_t *loss_time, uint32_t *third);

// Builds the CCM of a MEP into frame (at least CFM_CCM_FRAME_LEN bytes),
// incrementing mep->CcmSequenceNum. Returns the frame length.
size_t cfm_ccm_build(MepEntry *mep, uint8_t *frame);
// Builds and sends the CCM of one MEP per its direction.
void cfm_ccm_send(MepEntry *mep);
// One tick of CCM transmission over every MEP.
void cfm_ccm_transmit_check();

// Called by the timer task once per tick under MEP_SYC: transmission, the
// time checks, the fault-alarm timer and remote-MEP ageing.
uint32_t CFM_CCM_TIME_CHECK();
