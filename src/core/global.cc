#include "core/global.h"

volatile int cfm_debug_msg = 0;

namespace {

GlobalEntry g_global = {0, 2, 1, 1};

}  // namespace

void CFM_Global_Reset() { g_global = {0, 2, 1, 1}; }

int CFM_IF_Get_Global_Entry(GlobalEntry *entry) {
  if (entry == nullptr) {
    return 0;
  }
  entry->status = g_global.status;
  entry->default_md_level = g_global.default_md_level;
  entry->mhf_creation = g_global.mhf_creation;
  entry->sender_id_permission = g_global.sender_id_permission;
  return 1;
}

int CFM_IF_Set_Global_Entry(const GlobalEntry *entry) {
  if (entry == nullptr) return 0;
  if (entry->status > 1) return 0;
  if (entry->default_md_level >= 8) return 0;
  if (entry->mhf_creation < 1 || entry->mhf_creation > 3) return 0;
  if (entry->sender_id_permission < 1 || entry->sender_id_permission > 4) return 0;
  g_global.status = entry->status;
  g_global.default_md_level = entry->default_md_level;
  g_global.mhf_creation = entry->mhf_creation;
  g_global.sender_id_permission = entry->sender_id_permission;
  CFM_SET_IRULE(entry->status);
  return 1;
}

// Where the platform would install or remove its packet-capture rule.
uint32_t CFM_SET_IRULE(uint32_t /*status*/) { return 0x12000001; }

uint32_t isCfmEnable() { return g_global.status; }

void cfm_force_enable() {
  GlobalEntry entry;
  CFM_IF_Get_Global_Entry(&entry);
  entry.status = 1;
  CFM_IF_Set_Global_Entry(&entry);
}

int isCfmDebugOn() { return cfm_debug_msg; }
