// Synthetic loss measurement: answers SLMs with SLRs carrying the number of
// SLMs received for the test, and on the initiator side sends numbered SLMs
// and keeps the counters of the latest SLR for the loss ratios.
#pragma once
#include <cstdint>

struct CfmPacket;
struct MepEntry;
struct PmMep;

uint32_t CFM_SLM_Process(CfmPacket *packet);  // CFM_OK when an SLR was sent
uint32_t CFM_SLR_Process(CfmPacket *packet);  // CFM_OK when counted for a session

// Sends one SLM of the MEP's loss session to dst at the MD level. Held:
// MEP_SYC and PmLock.
uint32_t cfm_slm_send(const MepEntry &mep, PmMep *pm, const uint8_t *dst, uint8_t level);
