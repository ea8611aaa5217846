// Delay measurement: answers DMMs with DMRs, records the one-way delay of
// 1DMs, and on the initiator side sends DMMs and takes the two-way delay
// from the four timestamps of each DMR.
#pragma once
#include <cstdint>

struct CfmPacket;
struct MepEntry;
struct PmMep;

uint32_t CFM_DMM_Process(CfmPacket *packet);  // CFM_OK when a DMR was sent
uint32_t CFM_DMR_Process(CfmPacket *packet);  // CFM_OK when counted for a session
uint32_t CFM_1DM_Process(CfmPacket *packet);  // CFM_OK when recorded

// Sends one DMM (or, one_way, one 1DM) of the MEP's delay session to dst at
// the MD level. Held: MEP_SYC and PmLock.
uint32_t cfm_dm_send(const MepEntry &mep, PmMep *pm, const uint8_t *dst, uint8_t level, bool one_way);
