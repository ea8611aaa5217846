#include "core/global.h"

std::atomic<int> cfm_debug_msg{0};

namespace {

// The record packed into one word (status, level, MHF creation, sender-id
// permission, a byte each), so the tasks always read a whole one.
uint32_t pack(const GlobalEntry &e) {
  return e.status << 24 | uint32_t{e.default_md_level} << 16 | uint32_t{e.mhf_creation} << 8 | e.sender_id_permission;
}

constexpr uint32_t kStartUp = 0x00020101;  // status 0, level 2, 1, 1
std::atomic<uint32_t> g_global{kStartUp};

}  // namespace

void CFM_Global_Reset() { g_global.store(kStartUp); }

int CFM_IF_Get_Global_Entry(GlobalEntry *entry) {
  if (entry == nullptr) {
    return 0;
  }
  uint32_t word = g_global.load();
  entry->status = word >> 24;
  entry->default_md_level = static_cast<uint8_t>(word >> 16);
  entry->mhf_creation = static_cast<uint8_t>(word >> 8);
  entry->sender_id_permission = static_cast<uint8_t>(word);
  return 1;
}

int CFM_IF_Set_Global_Entry(const GlobalEntry *entry) {
  if (entry == nullptr) return 0;
  if (entry->status > 1) return 0;
  if (entry->default_md_level >= 8) return 0;
  if (entry->mhf_creation < 1 || entry->mhf_creation > 3) return 0;
  if (entry->sender_id_permission < 1 || entry->sender_id_permission > 4) return 0;
  g_global.store(pack(*entry));
  CFM_SET_IRULE(entry->status);
  return 1;
}

// Where the platform would install or remove its packet-capture rule.
uint32_t CFM_SET_IRULE(uint32_t /*status*/) { return 0x12000001; }

uint32_t isCfmEnable() { return g_global.load() >> 24; }

void cfm_force_enable() {
  GlobalEntry entry;
  CFM_IF_Get_Global_Entry(&entry);
  entry.status = 1;
  CFM_IF_Set_Global_Entry(&entry);
}

int isCfmDebugOn() { return cfm_debug_msg.load(); }
