#include "engines/pm_db.h"

#include <atomic>
#include <cstring>

#include "core/startup.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"
#include "engines/pm_pdu.h"
#include "io/frame.h"
#include "io/rx.h"
#include "io/tx.h"

using namespace cfm;

namespace {

constexpr int64_t kNsPerSec = 1000000000;

std::atomic<bool> g_enabled{false};
std::mutex g_mutex;
PmMep g_meps[CFM_PM_MAX_MEP];
uint32_t g_next_test_id = 1;

bool mep_exists(const PmMep &pm) {
  MepEntry mep = {};
  mep.md_id = pm.md_id;
  mep.ma_id = pm.ma_id;
  mep.mep_id = pm.mep_id;
  // The table's key also holds port, VID and direction: find the MEP by
  // walking from its first three key fields.
  return CFM_GetNext_MEP_Entry(&mep) == 1 && mep.md_id == pm.md_id && mep.ma_id == pm.ma_id &&
         mep.mep_id == pm.mep_id;
}

bool is_router_mac(const uint8_t *mac) {
  uint8_t own[kMacLen];
  if (CFM_Get_System_Mac(own) == CFM_OK && memcmp(mac, own, kMacLen) == 0) return true;
  return g_pvc_mac_table.count > 0 && checkPvcMac(mac) == 1;
}

bool md_level_of(uint32_t md_id, uint8_t *level) {
  MdEntry md = {};
  md.MdIndex = md_id;
  if (CFM_Get_MD_Entry(&md) != 1) return false;
  *level = md.MdLevel;
  return true;
}

}  // namespace

bool cfm_pm_enabled() { return g_enabled.load(); }
void cfm_pm_enable(bool on) { g_enabled.store(on); }
std::mutex &cfm_pm_mutex() { return g_mutex; }

PmMep *cfm_pm_find(uint32_t md_id, uint32_t ma_id, uint16_t mep_id, bool create) {
  PmMep *free_slot = nullptr;
  for (PmMep &pm : g_meps) {
    if (pm.used && pm.md_id == md_id && pm.ma_id == ma_id && pm.mep_id == mep_id) return &pm;
    if (!pm.used && free_slot == nullptr) free_slot = &pm;
  }
  if (!create) return nullptr;
  if (free_slot == nullptr) {
    for (PmMep &pm : g_meps) {
      if (!mep_exists(pm)) {
        free_slot = &pm;
        break;
      }
    }
  }
  if (free_slot == nullptr) return nullptr;
  memset(free_slot, 0, sizeof *free_slot);
  free_slot->used = 1;
  free_slot->md_id = md_id;
  free_slot->ma_id = ma_id;
  free_slot->mep_id = mep_id;
  return free_slot;
}

PmMep *cfm_pm_at(int index) {
  if (index < 0 || index >= CFM_PM_MAX_MEP || !g_meps[index].used) return nullptr;
  return &g_meps[index];
}

void cfm_pm_reset() {
  PmLock lock(g_mutex);
  memset(g_meps, 0, sizeof g_meps);
  g_next_test_id = 1;
}

uint32_t cfm_pm_fresh_test_id() {
  for (;;) {
    uint32_t id = g_next_test_id++;
    bool live = false;
    for (const PmMep &pm : g_meps) {
      const PmSession &s = pm.s[kPmSlm];
      live = live || (pm.used && s.state == 1 && s.test_id == id);
    }
    if (!live) return id;
  }
}

void cfm_pm_sum_add(PmSum *sum, int64_t ns) {
  sum->sec += static_cast<uint64_t>(ns / kNsPerSec);
  sum->ns += static_cast<uint32_t>(ns % kNsPerSec);
  if (sum->ns >= kNsPerSec) {
    sum->ns -= kNsPerSec;
    sum->sec += 1;
  }
}

int64_t cfm_pm_sum_mean(const PmSum &sum, uint32_t n) {
  // (sec * 10^9 + ns) / n without forming the product: the seconds' share
  // is taken whole first, their remainder (below n) then fits in 64 bits.
  uint64_t whole = sum.sec / n, rest = sum.sec % n;
  return static_cast<int64_t>(whole * kNsPerSec + (rest * kNsPerSec + sum.ns) / n);
}

uint32_t cfm_pm_count_slm(PmMep *pm, uint16_t src_mep, uint32_t test_id) {
  PmSlTest *oldest = &pm->tests[0];
  for (PmSlTest &t : pm->tests) {
    if (t.count > 0 && t.src_mep == src_mep && t.test_id == test_id) {
      t.last_use = ++pm->test_clock;
      return ++t.count;
    }
    if (t.last_use < oldest->last_use) oldest = &t;
  }
  *oldest = {src_mep, test_id, 1, ++pm->test_clock};
  return 1;
}

int cfm_pm_local_mep(const CfmPacket *packet, uint8_t level, bool allow_group, PmMepScore score, MepEntry *out) {
  const uint8_t *dst = packet->buffer + wire::kDst;
  bool group = mac_is_group(dst);
  if (group) {
    uint8_t class1[kMacLen];
    cfm_group_address(kCcmGroupBase, level, class1);
    if (!allow_group || memcmp(dst, class1, kMacLen) != 0) return -1;
  } else if (!is_router_mac(dst)) {
    return -1;
  }
  MepEntry mep = {};
  int best = -1;
  while (CFM_GetNext_MEP_Entry(&mep) == 1) {
    uint8_t md_level = 0;
    if (mep.vid != packet->vid || !md_level_of(mep.md_id, &md_level) || md_level != level) continue;
    if (group && mep.direction != CFM_DIRECTION_DOWN) continue;
    int rating = score(mep, packet);
    if (rating > best) {
      best = rating;
      *out = mep;
    }
  }
  return best;
}

bool cfm_pm_remote_mep(uint32_t md_id, uint32_t ma_id, uint16_t rmep_id, const uint8_t *mac, uint8_t *mac_out) {
  RemoteMepEntry r = {};
  r.md_id = md_id;
  r.ma_id = ma_id;
  while (CFM_MEP_Get_NextRemEntry(&r) == CFM_DB_FOUND && r.md_id == md_id && r.ma_id == ma_id) {
    if ((rmep_id == 0 || r.rmep_id == rmep_id) && (mac == nullptr || memcmp(r.src_mac, mac, kMacLen) == 0)) {
      if (mac_out != nullptr) memcpy(mac_out, r.src_mac, kMacLen);
      return true;
    }
  }
  return false;
}

int cfm_pm_score_peer(const MepEntry &mep, const CfmPacket *packet) {
  return cfm_pm_remote_mep(mep.md_id, mep.ma_id, 0, packet->buffer + wire::kSrc, nullptr) ? 1 : 0;
}

CfmStamp cfm_pm_rx_stamp(const CfmPacket *packet) {
  if (packet->rx_time.tv_sec == 0 && packet->rx_time.tv_nsec == 0) return cfm_stamp_now();
  return {static_cast<uint32_t>(packet->rx_time.tv_sec), static_cast<uint32_t>(packet->rx_time.tv_nsec)};
}

uint32_t cfm_pm_send_stamped(const uint8_t *frame, size_t len, uint8_t priority, size_t stamp_at) {
  cfm_tx_stamp_next(stamp_at);
  return CFM_Send_Packet_To_WAN(frame, static_cast<uint32_t>(len), priority);
}

uint32_t cfm_pm_send(const uint8_t *frame, size_t len, uint8_t priority) {
  return CFM_Send_Packet_To_WAN(frame, static_cast<uint32_t>(len), priority);
}
