// Local MEP and MIP tables. Each holds heap copies of whole records in an
// ordered table guarded by its own semaphore; every node pointer stays inside
// the function that holds the semaphore.
#include "db/mep_mip.h"

#include <atomic>

#include "core/os.h"
#include "db/avl.h"
#include "db/record_table.h"

namespace {

struct MipKey {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t MipId;
  uint8_t port;
};

static_assert(offsetof(MipEntry, md_id) == offsetof(MipKey, md_id));
static_assert(offsetof(MipEntry, port) == offsetof(MipKey, port));

RecordTable<MepEntry, MepKey> g_mep;
RecordTable<MipEntry, MipKey> g_mip;
std::atomic<bool> g_ready{false};

bool usable(const void *entry) { return g_ready.load() && entry != nullptr; }

}  // namespace

int cfm_mep_key_compare(const void *a, const void *b, void * /*param*/) {
  return compare_keys<MepKey>(a, b, [](const MepKey &k) {
    return std::tie(k.md_id, k.ma_id, k.mep_id, k.port, k.vid, k.direction);
  });
}

int cfm_mip_key_compare(const void *a, const void *b, void * /*param*/) {
  return compare_keys<MipKey>(a, b, [](const MipKey &k) {
    return std::tie(k.md_id, k.ma_id, k.MipId, k.port);
  });
}

void CFM_MEP_MIP_Init() {
  g_mep.create(cfm_mep_key_compare, "CFM_MEP", CFM_MAX_MEP);
  g_mip.create(cfm_mip_key_compare, "CFM_MIP", CFM_MAX_MIP);
  g_ready.store(true);
}

void CFM_MEP_MIP_Reset() {
  g_ready.store(false);
  g_mep.empty();
  g_mip.empty();
}

int CFM_Get_MEP_Entry(MepEntry *entry) { return usable(entry) && g_mep.get(entry); }
int CFM_GetNext_MEP_Entry(MepEntry *entry) { return usable(entry) && g_mep.get_next(entry); }
int CFM_Update_MEP_Entry(const MepEntry *entry) { return usable(entry) && g_mep.update(entry); }
int CFM_Delete_MEP_Entry(const MepEntry *entry) { return usable(entry) && g_mep.remove(entry); }
uint32_t CFM_Get_TotalMepEntries() { return g_ready.load() ? g_mep.count() : 0; }

int CFM_Get_MIP_Entry(MipEntry *entry) { return usable(entry) && g_mip.get(entry); }
int CFM_GetNext_MIP_Entry(MipEntry *entry) { return usable(entry) && g_mip.get_next(entry); }
int CFM_Update_MIP_Entry(const MipEntry *entry) { return usable(entry) && g_mip.update(entry); }
int CFM_Delete_MIP_Entry(const MipEntry *entry) { return usable(entry) && g_mip.remove(entry); }
uint32_t CFM_Get_TotalMipEntries() { return g_ready.load() ? g_mip.count() : 0; }
