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

// Header, level and addressee of a received DM frame; the local MEP on success.
bool accept(const CfmPacket *packet, uint8_t opcode, uint8_t first_tlv_offset, bool allow_group, MepEntry *mep,
            uint8_t *level) {
  if (packet == nullptr || packet->buffer == nullptr) return false;
  const CfmOffsets &off = cfm_offsets();
  const uint8_t *frame = packet->buffer;
  if (!cfm_pm_frame_ok(frame, packet->length, off, opcode, first_tlv_offset, dm::kHighestVersion)) return false;
  if (mac_is_group(frame + wire::kSrc)) return false;
  *level = cfm_level(frame[off.level_version]);
  return cfm_pm_local_mep(packet, *level, allow_group, mep);
}

void record_delay(PmMep *pm, PmSession &s, int64_t delay) {
  if (delay < 0) {
    s.negative += 1;
    delay = 0;
  }
  pm->recent_ns[s.received % CFM_PM_RECENT] = delay;
  if (s.received == 0 || delay < s.delay_min_ns) s.delay_min_ns = delay;
  if (delay > s.delay_max_ns) s.delay_max_ns = delay;
  if (s.received > 0) {
    int64_t dv = delay > s.last_delay_ns ? delay - s.last_delay_ns : s.last_delay_ns - delay;
    s.dv_sum_ns += dv;
    s.dv_count += 1;
    if (dv > s.dv_max_ns) s.dv_max_ns = dv;
  }
  s.delay_sum_ns += delay;
  s.last_delay_ns = delay;
  s.received += 1;
}

}  // namespace

uint32_t CFM_DMM_Process(CfmPacket *packet) {
  MepEntry mep;
  uint8_t level = 0;
  if (!accept(packet, kOpDmm, dm::kFirstTlvOffset, true, &mep, &level)) return CFM_ERR_FAILURE;
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
  if (!accept(packet, kOpDmr, dm::kFirstTlvOffset, false, &mep, &level)) return CFM_ERR_FAILURE;
  CfmStamp rx_b = cfm_pm_rx_stamp(packet);
  const uint8_t *body = packet->buffer + cfm_offsets().body;
  CfmStamp tx_f = cfm_stamp_get(body + dm::kTxStampF);
  CfmStamp rx_f = cfm_stamp_get(body + dm::kRxStampF);
  CfmStamp tx_b = cfm_stamp_get(body + dm::kTxStampB);
  // The responder's residence time (TxTimeStampb - RxTimeStampf) is taken out.
  int64_t delay = cfm_stamp_diff_ns(rx_b, tx_f) - cfm_stamp_diff_ns(tx_b, rx_f);
  PmLock lock(cfm_pm_mutex());
  PmMep *pm = cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, false);
  if (pm == nullptr) return CFM_ERR_FAILURE;
  pm->c.dmr_in += 1;
  PmSession &s = pm->s[kPmDm];
  if (s.state != 1 || s.received >= s.sent) return CFM_ERR_FAILURE;
  record_delay(pm, s, delay);
  return CFM_OK;
}

uint32_t CFM_1DM_Process(CfmPacket *packet) {
  MepEntry mep;
  uint8_t level = 0;
  if (!accept(packet, kOp1Dm, dm::kFirstTlvOffset1Dm, true, &mep, &level)) return CFM_ERR_FAILURE;
  CfmStamp rx = cfm_pm_rx_stamp(packet);
  int64_t delay = cfm_stamp_diff_ns(rx, cfm_stamp_get(packet->buffer + cfm_offsets().body + dm::kTxStampF));
  PmLock lock(cfm_pm_mutex());
  PmMep *pm = cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, true);
  if (pm == nullptr) return CFM_ERR_FAILURE;
  pm->c.one_dm_in += 1;
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
