// CCM reception: checks received CCMs, finds the local MEPs they concern,
// records remote MEPs, counts sequence errors, and derives the MEP defects in
// the per-tick time checks.
#pragma once
#include <cstddef>
#include <cstdint>

struct CfmPacket;

// TLV values a CCM carries that the receiver keeps (44-byte record).
struct CcmTlvRecord {
  uint8_t PortStatus;
  uint8_t InterfaceStatus;
  uint8_t reserved[42];
};
static_assert(sizeof(CcmTlvRecord) == 44);

uint32_t cfm_ccm_Init();
void CFM_CCM_Process(CfmPacket *packet);

// Reads the CCM's TLVs from `start` within `length` bytes.
uint32_t cfm_ccm_read_tlvs(const uint8_t *frame, size_t length, CcmTlvRecord *record, size_t start);

// The per-tick time checks, in the order the tick runs them.
void cfm_ccm_xcon_check();
void cfm_ccm_error_check();
void cfm_ccm_loc_check();
void cfm_ccm_fault_alarm_check();
