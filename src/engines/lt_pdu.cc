#include "engines/lt_pdu.h"

#include <cstring>

#include "io/frame.h"

using namespace cfm;

size_t cfm_ltm_build_with(const LtmRequest *request, const uint8_t *system_mac, uint8_t *frame) {
  if (request == nullptr || system_mac == nullptr || frame == nullptr) return 0;
  memset(frame, 0, ltm::kFrameLen);
  uint8_t level = static_cast<uint8_t>(request->md_level & 7);
  cfm_group_address(kLtmGroupBase, level, frame + wire::kDst);
  memcpy(frame + wire::kSrc, system_mac, kMacLen);
  put_be16(frame + wire::kTpid, kTpid8021Q);
  frame[wire::kTci] = tci_high(request->priority, request->vid);
  frame[wire::kTci + 1] = tci_low(request->vid);
  put_be16(frame + wire::kSingleTagEtherType, kCfmEtherType);
  frame[wire::kSingleTagEtherType + 2] = cfm_level_version(level);
  frame[wire::kSingleTagOpcode] = kOpLtm;
  frame[wire::kSingleTagOpcode + 1] = request->flags != 0 ? ltm::kFlagUseFdbOnly : 0;
  frame[wire::kSingleTagOpcode + 2] = ltm::kFirstTlvOffset;
  put_be32(frame + ltm::kTransId, request->trans_id);
  frame[ltm::kTtl] = request->ttl;
  memcpy(frame + ltm::kOrigMac, system_mac, kMacLen);
  memcpy(frame + ltm::kTargetMac, request->target_mac, kMacLen);
  frame[ltm::kEgressTlv] = kTlvLtmEgressId;
  put_be16(frame + ltm::kEgressTlv + 1, ltm::kEgressIdLen);
  put_be16(frame + ltm::kEgressId, request->vid);
  memcpy(frame + ltm::kEgressId + 2, system_mac, kMacLen);
  return ltm::kFrameLen;
}

size_t cfm_ltr_build(uint8_t *out, size_t cap, const CfmLtrReply &reply, bool frame_8023) {
  const CfmOffsets &in = frame_8023 ? k8023Offsets : kEthOffsets;
  size_t body_in = in.body;
  size_t body_out = body_in + kTagLen;
  size_t length = body_out + ltr::kBodyLen;
  if (out == nullptr || reply.ltm == nullptr || reply.ltm_egress_id == nullptr || reply.system_mac == nullptr ||
      reply.ltm_len < body_in + ltm::kBodyTlvs || length > cap)
    return 0;
  const uint8_t *ltm = reply.ltm;
  memset(out, 0, length);
  memcpy(out + wire::kDst, ltm + body_in + ltm::kBodyOrigMac, kMacLen);
  memcpy(out + wire::kSrc, reply.system_mac, kMacLen);
  put_be16(out + wire::kTpid, kTpid8021Q);
  out[wire::kTci] = tci_high(static_cast<uint8_t>(reply.priority), reply.vid);
  out[wire::kTci + 1] = tci_low(reply.vid);
  // EtherType, or for "8023" the 802.3 length, LLC/SNAP and EtherType, as
  // received.
  memcpy(out + wire::kSingleTagPayload, ltm + wire::kTpid, in.level_version - wire::kTpid);

  uint8_t *hdr = out + in.level_version + kTagLen;
  hdr[0] = cfm_level_version(cfm_level(ltm[in.level_version]));
  hdr[1] = kOpLtr;
  hdr[2] = static_cast<uint8_t>((ltm[in.flags] & ltr::kFlagUseFdbOnly) | ltr::kFlagTerminalMep);
  hdr[3] = ltr::kFirstTlvOffset;

  uint8_t *body = out + body_out;
  memcpy(body + ltr::kBodyTransId, ltm + body_in + ltm::kBodyTransId, 4);
  body[ltr::kBodyReplyTtl] = static_cast<uint8_t>(ltm[body_in + ltm::kBodyTtl] - 1);
  body[ltr::kBodyRelayAction] = ltr::kRelayHit;

  uint8_t *egress = body + ltr::kBodyEgressTlv;
  egress[0] = kTlvLtrEgressId;
  put_be16(egress + 1, ltr::kEgressTlvLen);
  memcpy(egress + kTlvHeaderLen, reply.ltm_egress_id, ltm::kEgressIdLen);
  put_be16(egress + kTlvHeaderLen + ltm::kEgressIdLen, reply.vid);
  memcpy(egress + kTlvHeaderLen + ltm::kEgressIdLen + 2, reply.system_mac, kMacLen);

  uint8_t *ingress = body + ltr::kBodyIngressTlv;
  ingress[0] = kTlvReplyIngress;
  put_be16(ingress + 1, ltr::kReplyTlvMinLen);
  ingress[kTlvHeaderLen + ltr::kReplyTlvAction] = ltr::kReplyActionOk;
  memcpy(ingress + kTlvHeaderLen + ltr::kReplyTlvMac, reply.system_mac, kMacLen);

  body[ltr::kBodyEndTlv] = kTlvEnd;
  return length;
}
