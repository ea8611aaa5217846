// Linktrace initiator: sends one LTM and prepares the reply database.
#pragma once
#include <cstddef>
#include <cstdint>

#include "db/mgmt_if.h"

constexpr size_t CFM_LTM_FRAME_LEN = 50;

uint32_t CFM_LT_Init();
int CFM_LTM_Transmit(const LtmRequest *request);
// Builds the 50-byte LTM of a request into frame, with the system MAC kept
// by CFM_LT_Init.
size_t cfm_ltm_build(const LtmRequest *request, uint8_t *frame);

// Reply counters, indexed by transaction identifier modulo 10.
uint8_t cfm_lt_next_reply_number(uint32_t trans_id);  // adds 1, returns it
void cfm_lt_reset_reply_counter(uint32_t trans_id);

// The system MAC kept by CFM_LT_Init.
const uint8_t *cfm_lt_system_mac();
