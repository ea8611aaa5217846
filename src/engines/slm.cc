#include "engines/slm.h"

#include <cstring>

#include "core/status.h"
#include "db/mep_mip.h"
#include "engines/lb_initiator.h"
#include "engines/pm_db.h"
#include "engines/pm_pdu.h"
#include "io/rx.h"
#include "io/tx.h"

using namespace cfm;

namespace {

// Header and sender of a received SLM or SLR; its level on success.
bool accept(const CfmPacket *packet, uint8_t opcode, uint8_t *level) {
  if (packet == nullptr || packet->buffer == nullptr) return false;
  const CfmOffsets &off = cfm_offsets();
  const uint8_t *frame = packet->buffer;
  if (!cfm_pm_frame_ok(frame, packet->length, off, opcode, slm::kFirstTlvOffset, 0)) return false;
  if (mac_is_group(frame + wire::kSrc)) return false;
  *level = cfm_level(frame[off.level_version]);
  return true;
}

// An SLR belongs to the MEP it names as the source, best one whose running
// loss session has the SLR's test ID and (when the target was a MEPID) its
// responder. Held: PmLock.
int score_slr(const MepEntry &mep, const CfmPacket *packet) {
  const uint8_t *body = packet->buffer + cfm_offsets().body;
  if (get_be16(body + slm::kSrcMepId) != mep.mep_id) return 0;
  const PmMep *pm = cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, false);
  if (pm == nullptr) return 1;
  const PmSession &s = pm->s[kPmSlm];
  bool ours = s.state == 1 && get_be32(body + slm::kTestId) == s.test_id &&
              (!s.by_mepid || get_be16(body + slm::kRspMepId) == s.target_mep);
  return ours ? 2 : 1;
}

// Takes a valid SLR's counters: the lowest and the highest TxFCf seen so far
// bound the stretch the loss is measured over.
void record_slr(PmSession &s, uint32_t txfcf, uint32_t txfcb) {
  if (s.received == 0 || txfcf < s.first_txfcf) {
    s.first_txfcf = txfcf;
    s.first_txfcb = txfcb;
  }
  if (s.received == 0 || txfcf >= s.last_txfcf) {
    s.last_txfcf = txfcf;
    s.last_txfcb = txfcb;
  }
  s.received += 1;
}

}  // namespace

uint32_t CFM_SLM_Process(CfmPacket *packet) {
  MepEntry mep;
  uint8_t level = 0;
  if (!accept(packet, kOpSlm, &level) || cfm_pm_local_mep(packet, level, false, cfm_pm_score_peer, &mep) < 0) {
    return CFM_ERR_FAILURE;
  }
  const uint8_t *frame = packet->buffer;
  const uint8_t *req_body = frame + cfm_offsets().body;
  CfmLbrTags tags = {packet->priority, packet->vid, packet->inner_priority, packet->inner_vid};
  uint8_t reply[kTxBufferSize];
  size_t body = 0;
  size_t len = cfm_pm_reply_build(reply, sizeof reply, frame, packet->length, frame + wire::kSrc,
                                  frame + wire::kDst, tags, cfm_offsets(), kOpSlr, &body);
  if (len == 0) return CFM_ERR_FAILURE;
  PmLock lock(cfm_pm_mutex());
  PmMep *pm = cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, true);
  if (pm == nullptr) return CFM_ERR_FAILURE;
  pm->c.slm_in += 1;
  uint32_t count = cfm_pm_count_slm(pm, get_be16(req_body + slm::kSrcMepId), get_be32(req_body + slm::kTestId));
  put_be16(reply + body + slm::kRspMepId, mep.mep_id);
  put_be32(reply + body + slm::kTxFcb, count);
  uint32_t sent = cfm_pm_send(reply, len, static_cast<uint8_t>(packet->priority));
  if (sent == CFM_OK) pm->c.slr_out += 1;
  return sent;
}

uint32_t CFM_SLR_Process(CfmPacket *packet) {
  MepEntry mep;
  uint8_t level = 0;
  if (!accept(packet, kOpSlr, &level)) return CFM_ERR_FAILURE;
  const uint8_t *body = packet->buffer + cfm_offsets().body;
  PmLock lock(cfm_pm_mutex());
  int rating = cfm_pm_local_mep(packet, level, false, score_slr, &mep);
  PmMep *pm = rating > 0 ? cfm_pm_find(mep.md_id, mep.ma_id, mep.mep_id, false) : nullptr;
  if (pm == nullptr) return CFM_ERR_FAILURE;
  pm->c.slr_in += 1;
  PmSession &s = pm->s[kPmSlm];
  if (rating < 2 || s.received + s.invalid >= s.sent) return CFM_ERR_FAILURE;
  uint32_t txfcf = get_be32(body + slm::kTxFcf);
  if (txfcf == 0 || txfcf > s.sent) {
    s.invalid += 1;
    return CFM_ERR_FAILURE;
  }
  record_slr(s, txfcf, get_be32(body + slm::kTxFcb));
  return CFM_OK;
}

uint32_t cfm_slm_send(const MepEntry &mep, PmMep *pm, const uint8_t *dst, uint8_t level) {
  PmSession &s = pm->s[kPmSlm];
  uint8_t frame[pm_request_len(slm::kFirstTlvOffset)];
  size_t len = cfm_pm_request_build(frame, sizeof frame, dst, cfm_lb_source_mac(), s.priority, mep.vid, level,
                                    kOpSlm, slm::kFirstTlvOffset);
  put_be16(frame + kTaggedBody + slm::kSrcMepId, mep.mep_id);
  put_be32(frame + kTaggedBody + slm::kTestId, s.test_id);
  put_be32(frame + kTaggedBody + slm::kTxFcf, s.sent + 1);
  uint32_t sent = cfm_pm_send(frame, len, s.priority);
  if (sent == CFM_OK) {
    s.sent += 1;
    pm->c.slm_out += 1;
  }
  return sent;
}
