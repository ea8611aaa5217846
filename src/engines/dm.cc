#include "engines/dm.h"

#include <cstring>

#include "core/os.h"
#include "core/status.h"
#include "db/mep_mip.h"
#include "engines/lb_initiator.h"
#include "engines/pm_db.h"
#include "engines/pm_pdu.h"
#include "io/rx.h"
#include "io/tx.h"

using namespace cfm;

namespace {

constexpr uint32_t kNsPerSec = 1000000000;

// Header and sender of a received DM frame; its level on success.
bool accept(const CfmPacket *packet, uint8_t opcode, uint8_t first_tlv_offset, uint8_t *level) {
  if (packet == nullptr || packet->buffer == nullptr) return false;
  const CfmOffsets &off = cfm_offsets();
  const uint8_t *frame = packet->buffer;
  if (!cfm_pm_frame_ok(frame, packet->length, off, opcode, first_tlv_offset, dm::kHighestVersion)) return false;
  if (mac_is_group(frame + wire::kSrc)) return false;
  *level = cfm_level(frame[off.level_version]);
  return true;
}

bool stamp_ok(CfmStamp s) { return s.nsec < kNsPerSec; }
bool within_bound(int64_t ns) { return ns >= 0 && ns <= CFM_PM_MAX_DELAY_NS; }

// The two-way delay of a DMR received at rx_b: the round trip less the
// responder's residence time (TxTimeStampb - RxTimeStampf). False when a
// stamp is malformed or either figure is out of bounds.
bool two_way_delay(const uint8_t *body, CfmStamp rx_b, int64_t *delay) {
  CfmStamp tx_f = cfm_stamp_get(body + dm::kTxStampF);
  CfmStamp rx_f = cfm_stamp_get(body + dm::kRxStampF);
  CfmStamp tx_b = cfm_stamp_get(body + dm::kTxStampB);
  if (!stamp_ok(tx_f) || !stamp_ok(rx_f) || !stamp_ok(tx_b)) return false;
  int64_t residence = cfm_stamp_diff_ns(tx_b, rx_f);
  if (!within_bound(residence)) return false;
  *delay = cfm_stamp_diff_ns(rx_b, tx_f) - residence;
  return within_bound(*delay);
}

// A delay session that still waits for replies.
bool awaiting(const PmSession &s) { return s.state == 1 && s.received + s.invalid < s.sent; }

// A DMR belongs to a MEP whose delay session waits for replies, best one
// whose DMMs went to the DMR's sender. Held: PmLock.
int score_dmr(const MepEntry &mep, const CfmPacket *packet) {
  const PmMep *pm = cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, false);
  if (pm == nullptr || !awaiting(pm->s[kPmDm])) return 0;
  return memcmp(pm->s[kPmDm].dst_mac, packet->buffer + wire::kSrc, kMacLen) == 0 ? 2 : 1;
}

void record_delay(PmMep *pm, PmSession &s, int64_t delay) {
  pm->recent_ns[s.received % CFM_PM_RECENT] = delay;
  if (s.received == 0 || delay < s.delay_min_ns) s.delay_min_ns = delay;
  if (delay > s.delay_max_ns) s.delay_max_ns = delay;
  if (s.received > 0) {
    int64_t dv = delay > s.last_delay_ns ? delay - s.last_delay_ns : s.last_delay_ns - delay;
    cfm_pm_sum_add(&s.dv_sum, dv);
    s.dv_count += 1;
    if (dv > s.dv_max_ns) s.dv_max_ns = dv;
  }
  cfm_pm_sum_add(&s.delay_sum, delay);
  s.last_delay_ns = delay;
  s.received += 1;
}

}  // namespace

uint32_t CFM_DMM_Process(CfmPacket *packet) {
  MepEntry mep;
  uint8_t level = 0;
  if (!accept(packet, kOpDmm, dm::kFirstTlvOffset, &level) ||
      cfm_pm_local_mep(packet, level, true, cfm_pm_score_peer, &mep) < 0) {
    return CFM_ERR_FAILURE;
  }
  CfmStamp rx = cfm_pm_rx_stamp(packet);
  const uint8_t *frame = packet->buffer;
  const uint8_t *dst = frame + wire::kDst;
  uint8_t own[kMacLen];
  const uint8_t *src = mac_is_group(dst) ? (CFM_Get_System_Mac(own), own) : dst;
  CfmLbrTags tags = {packet->priority, packet->vid, packet->inner_priority, packet->inner_vid};
  uint8_t reply[kTxBufferSize];
  size_t body = 0;
  size_t len = cfm_pm_reply_build(reply, sizeof reply, frame, packet->length, frame + wire::kSrc, src, tags,
                                  cfm_offsets(), kOpDmr, &body);
  if (len == 0) return CFM_ERR_FAILURE;
  cfm_stamp_put(reply + body + dm::kRxStampF, rx);
  uint32_t sent = cfm_pm_send_stamped(reply, len, static_cast<uint8_t>(packet->priority), body + dm::kTxStampB);
  PmLock lock(cfm_pm_mutex());
  if (PmMep *pm = cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, true)) {
    pm->c.dmm_in += 1;
    if (sent == CFM_OK) pm->c.dmr_out += 1;
  }
  return sent;
}

uint32_t CFM_DMR_Process(CfmPacket *packet) {
  MepEntry mep;
  uint8_t level = 0;
  if (!accept(packet, kOpDmr, dm::kFirstTlvOffset, &level)) return CFM_ERR_FAILURE;
  CfmStamp rx_b = cfm_pm_rx_stamp(packet);
  PmLock lock(cfm_pm_mutex());
  if (cfm_pm_local_mep(packet, level, false, score_dmr, &mep) < 0) return CFM_ERR_FAILURE;
  PmMep *pm = cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, false);
  if (pm == nullptr) return CFM_ERR_FAILURE;
  pm->c.dmr_in += 1;
  PmSession &s = pm->s[kPmDm];
  if (!awaiting(s)) return CFM_ERR_FAILURE;
  int64_t delay = 0;
  if (!two_way_delay(packet->buffer + cfm_offsets().body, rx_b, &delay)) {
    s.invalid += 1;
    return CFM_ERR_FAILURE;
  }
  record_delay(pm, s, delay);
  return CFM_OK;
}

uint32_t CFM_1DM_Process(CfmPacket *packet) {
  MepEntry mep;
  uint8_t level = 0;
  if (!accept(packet, kOp1Dm, dm::kFirstTlvOffset1Dm, &level) ||
      cfm_pm_local_mep(packet, level, true, cfm_pm_score_peer, &mep) < 0) {
    return CFM_ERR_FAILURE;
  }
  CfmStamp rx = cfm_pm_rx_stamp(packet);
  CfmStamp tx_f = cfm_stamp_get(packet->buffer + cfm_offsets().body + dm::kTxStampF);
  PmLock lock(cfm_pm_mutex());
  PmMep *pm = cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, true);
  if (pm == nullptr) return CFM_ERR_FAILURE;
  pm->c.one_dm_in += 1;
  if (!stamp_ok(tx_f)) return CFM_ERR_FAILURE;
  int64_t delay = cfm_stamp_diff_ns(rx, tx_f);
  if (pm->one_dm_count == 0 || delay < pm->one_dm_min_ns) pm->one_dm_min_ns = delay;
  if (pm->one_dm_count == 0 || delay > pm->one_dm_max_ns) pm->one_dm_max_ns = delay;
  pm->one_dm_last_ns = delay;
  pm->one_dm_count += 1;
  return CFM_OK;
}

uint32_t cfm_dm_send(const MepEntry &mep, PmMep *pm, const uint8_t *dst, uint8_t level, bool one_way) {
  PmSession &s = pm->s[one_way ? kPm1Dm : kPmDm];
  uint8_t frame[pm_request_len(dm::kFirstTlvOffset)];
  size_t len = cfm_pm_request_build(frame, sizeof frame, dst, cfm_lb_source_mac(), s.priority, mep.vid, level,
                                    one_way ? kOp1Dm : kOpDmm, one_way ? dm::kFirstTlvOffset1Dm : dm::kFirstTlvOffset);
  uint32_t sent = cfm_pm_send_stamped(frame, len, s.priority, kTaggedBody + dm::kTxStampF);
  if (sent == CFM_OK) {
    s.sent += 1;
    (one_way ? pm->c.one_dm_out : pm->c.dmm_out) += 1;
  }
  return sent;
}
