// Linktrace PDUs: the LTM as the initiator sends it and the LTR with which
// this router answers an LTM aimed at it. Byte work only.
#pragma once
#include <cstddef>
#include <cstdint>

#include "db/mgmt_if.h"
#include "io/frame.h"

namespace cfm {
// LTM.
namespace ltm {
constexpr size_t kBodyTransId = 0;
constexpr size_t kBodyTtl = 4;
constexpr size_t kBodyOrigMac = 5;
constexpr size_t kBodyTargetMac = 11;
constexpr size_t kBodyTlvs = 17;
constexpr uint8_t kFirstTlvOffset = 17;
static_assert(kBodyTlvs == kFirstTlvOffset && kBodyTargetMac + kMacLen == kBodyTlvs);
constexpr uint8_t kFlagUseFdbOnly = 0x80;
constexpr size_t kEgressIdLen = 8;  // 2-byte VID, then a MAC
// The LTM as the initiator sends it (tagged offsets).
constexpr size_t kTransId = kTaggedBody + kBodyTransId;    // 22
constexpr size_t kTtl = kTaggedBody + kBodyTtl;            // 26
constexpr size_t kOrigMac = kTaggedBody + kBodyOrigMac;    // 27
constexpr size_t kTargetMac = kTaggedBody + kBodyTargetMac;  // 33
constexpr size_t kEgressTlv = kTaggedBody + kBodyTlvs;     // 39
constexpr size_t kEgressId = kEgressTlv + kTlvHeaderLen;   // 42
constexpr size_t kFrameLen = kEgressId + kEgressIdLen;     // 50, no End TLV
static_assert(kTtl == 26 && kOrigMac == 27 && kTargetMac == 33 && kEgressTlv == 39);
static_assert(kFrameLen == 50);
}  // namespace ltm

// LTR.
namespace ltr {
constexpr size_t kBodyTransId = 0;
constexpr size_t kBodyReplyTtl = 4;
constexpr size_t kBodyRelayAction = 5;
constexpr size_t kBodyTlvs = 6;
constexpr uint8_t kFirstTlvOffset = 6;
static_assert(kBodyTlvs == kFirstTlvOffset);
constexpr uint8_t kFlagUseFdbOnly = 0x80;
constexpr uint8_t kFlagFwdYes = 0x40;
constexpr uint8_t kFlagTerminalMep = 0x20;
constexpr uint8_t kRelayHit = 1;
constexpr uint8_t kRelayFdb = 2;
constexpr uint8_t kRelayMpdb = 3;
// LTR Egress Identifier TLV: last egress identifier, next egress identifier.
constexpr size_t kEgressTlvLen = 2 * ltm::kEgressIdLen;  // 16
// Reply Ingress / Reply Egress TLV: action, MAC, then optionally port-ID
// length, port-ID subtype and port ID.
constexpr size_t kReplyTlvAction = 0;
constexpr size_t kReplyTlvMac = 1;
constexpr size_t kReplyTlvMinLen = 1 + kMacLen;  // 7
constexpr size_t kReplyTlvPortIdLen = kReplyTlvMinLen;
constexpr size_t kReplyTlvPortId = kReplyTlvPortIdLen + 2;
constexpr uint8_t kReplyActionOk = 1;
// The LTR this router sends, counted from the body.
constexpr size_t kBodyEgressTlv = kBodyTlvs;                                          // 6
constexpr size_t kBodyIngressTlv = kBodyEgressTlv + kTlvHeaderLen + kEgressTlvLen;     // 25
constexpr size_t kBodyEndTlv = kBodyIngressTlv + kTlvHeaderLen + kReplyTlvMinLen;      // 35
constexpr size_t kBodyLen = kBodyEndTlv + 1;                                           // 36
static_assert(kBodyIngressTlv == 25 && kBodyEndTlv == 35);
static_assert(kEthOffsets.body + kBodyLen == 54);  // untagged Ethernet II LTR
}  // namespace ltr

}  // namespace cfm

// Builds the 50-byte LTM of a request (one tag, Ethernet II, no End TLV: the
// padding of the transmit path stands in for it) into frame, which must hold
// at least cfm::ltm::kFrameLen bytes. Returns the length.
size_t cfm_ltm_build_with(const LtmRequest *request, const uint8_t *system_mac, uint8_t *frame);

// What the LTR answer takes from the LTM and its descriptor.
struct CfmLtrReply {
  const uint8_t *ltm;            // untagged LTM as received (validated)
  size_t ltm_len;
  const uint8_t *ltm_egress_id;  // value of the LTM Egress Identifier TLV
  uint32_t priority;             // the LTM's tag
  uint16_t vid;
  const uint8_t *system_mac;
};

// Builds the LTR (one tag) answering the LTM: destination the original MAC,
// source the system MAC, level as received, flags (LTM flags AND 0x80) OR
// TerminalMEP, the LTM's transaction identifier, reply TTL = TTL - 1, relay
// action Hit, the LTR Egress Identifier TLV, the Reply Ingress TLV and the
// End TLV. Returns the length, 0 if it does not fit in cap.
size_t cfm_ltr_build(uint8_t *out, size_t cap, const CfmLtrReply &reply, bool frame_8023);
