// The process-wide settings and flags every task reads: the global record,
// the debug flag and the platform hook for CFM on/off. Threads share them, so
// they are atomics.
#pragma once
#include <atomic>
#include <cstdint>

struct GlobalEntry {
  uint32_t status;              // 0 disabled, 1 enabled
  uint8_t default_md_level;     // 0..7
  uint8_t mhf_creation;         // 1..3
  uint8_t sender_id_permission; // 1..4
};

constexpr uint8_t CFM_MHF_CREATION_NONE = 1;
constexpr uint8_t CFM_MHF_CREATION_DEFAULT = 2;

// Resets the record to its start-up values (status 0, level 2, 1, 1).
void CFM_Global_Reset();
int CFM_IF_Get_Global_Entry(GlobalEntry *entry);        // 1 always (0 for null)
int CFM_IF_Set_Global_Entry(const GlobalEntry *entry);  // 1, or 0 out of range
uint32_t CFM_SET_IRULE(uint32_t status);
uint32_t isCfmEnable();
void cfm_force_enable();

// Read by every task, set by the command server.
extern std::atomic<int> cfm_debug_msg;
int isCfmDebugOn();
