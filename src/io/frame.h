// Byte layout of CFM frames: Ethernet addresses, 802.1Q tags, the two
// encapsulations (Ethernet II and 802.3 LLC/SNAP), the common CFM header and
// TLVs. Every engine takes its offsets from here; none are re-derived inline.
#pragma once
#include <cstddef>
#include <cstdint>

namespace cfm {

constexpr size_t kMacLen = 6;
constexpr uint16_t kTpid8021Q = 0x8100;
constexpr uint16_t kCfmEtherType = 0x8902;
constexpr size_t kMaxFrame = 1514;     // largest frame read from a socket
constexpr size_t kTxBufferSize = 1522; // buffers the engines build frames in
constexpr size_t kMinFrame = 64;       // frames shorter than this are padded
constexpr size_t kTagLen = 4;

// Offsets in a frame as it is on the wire.
namespace wire {
constexpr size_t kDst = 0;
constexpr size_t kSrc = 6;
constexpr size_t kTpid = 12;
constexpr size_t kTci = 14;
// Single tag.
constexpr size_t kSingleTagEtherType = 16;      // Ethernet II
constexpr size_t kSingleTagEtherType8023 = 24;  // 802.3 LLC/SNAP
constexpr size_t kSingleTagOpcode = 19;
constexpr size_t kSingleTagOpcode8023 = 27;
constexpr size_t kSingleTagPayload = 16;        // first byte after the tag
// Double tag.
constexpr size_t kInnerTpid = 16;
constexpr size_t kInnerTci = 18;
constexpr size_t kDoubleTagEtherType = 20;
constexpr size_t kDoubleTagEtherType8023 = 28;
constexpr size_t kDoubleTagOpcode = 23;         // read here for both frame types
constexpr size_t kDoubleTagPayload = 20;
// 802.3 length and LLC/SNAP header that precede the EtherType in "8023".
constexpr size_t kLlcSnapLen = 8;
}  // namespace wire

// Offsets in the untagged frame handed to the engines.
struct CfmOffsets {
  size_t ether_type;
  size_t level_version;
  size_t opcode;
  size_t flags;
  size_t first_tlv_offset;
  size_t body;
};
constexpr CfmOffsets kEthOffsets = {12, 14, 15, 16, 17, 18};
constexpr CfmOffsets k8023Offsets = {20, 22, 23, 24, 25, 26};
// The offsets for the frame type chosen at start-up.
const CfmOffsets &cfm_offsets();

// Common CFM header.
constexpr size_t kCfmHeaderLen = 4;
constexpr uint8_t kLevelShift = 5;
constexpr uint8_t kVersionMask = 0x1F;
inline uint8_t cfm_level(uint8_t level_version) { return level_version >> kLevelShift; }
inline uint8_t cfm_version(uint8_t level_version) { return level_version & kVersionMask; }
inline uint8_t cfm_level_version(uint8_t level) { return static_cast<uint8_t>((level & 7) << kLevelShift); }

// Opcodes.
constexpr uint8_t kOpCcm = 1;
constexpr uint8_t kOpLbr = 2;
constexpr uint8_t kOpLbm = 3;
constexpr uint8_t kOpLtr = 4;
constexpr uint8_t kOpLtm = 5;

// TLV types.
constexpr uint8_t kTlvEnd = 0;
constexpr uint8_t kTlvSenderId = 1;
constexpr uint8_t kTlvPortStatus = 2;
constexpr uint8_t kTlvData = 3;
constexpr uint8_t kTlvInterfaceStatus = 4;
constexpr uint8_t kTlvReplyIngress = 5;
constexpr uint8_t kTlvReplyEgress = 6;
constexpr uint8_t kTlvLtmEgressId = 7;
constexpr uint8_t kTlvLtrEgressId = 8;
constexpr uint8_t kTlvOrgSpecific = 31;
constexpr size_t kTlvHeaderLen = 3;  // type, 2-byte length

// Group addresses 01:80:C2:00:00:3x.
constexpr uint8_t kCcmGroupBase[kMacLen] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x30};
constexpr uint8_t kLtmGroupBase[kMacLen] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x38};
inline bool mac_is_group(const uint8_t *mac) { return (mac[0] & 0x01) != 0; }

// Big-endian access.
inline uint16_t get_be16(const uint8_t *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t get_be32(const uint8_t *p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | p[3];
}
inline void put_be16(uint8_t *p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void put_be32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

// 802.1Q tag control. Built as the daemon always has: the VID's high bits are
// masked with 0x1F, so bit 12 of a VID above 4095 lands in the DEI bit.
inline uint8_t tci_high(uint8_t priority, uint16_t vid) {
  return static_cast<uint8_t>((priority << 5) | ((vid >> 8) & 0x1F));
}
inline uint8_t tci_low(uint16_t vid) { return static_cast<uint8_t>(vid & 0xFF); }
inline uint16_t tci_vid(const uint8_t *tci) { return static_cast<uint16_t>(((tci[0] & 0x0F) << 8) | tci[1]); }
inline uint8_t tci_priority(const uint8_t *tci) { return tci[0] >> 5; }

}  // namespace cfm

bool cfm_is_vlan_tpid(uint8_t b0, uint8_t b1);
bool cfm_is_cfm_ethertype(uint8_t b0, uint8_t b1);

// One TLV as found by the bounded walker.
struct CfmTlv {
  uint8_t type;
  uint16_t length;       // 0 for the End TLV
  const uint8_t *value;  // points into the frame; null for the End TLV
  size_t offset;         // offset of the type byte
};

// Reads the TLV at `pos` of a frame of `len` bytes. Returns false, touching
// nothing, when the type byte, the length field or the value would lie
// outside the frame. On success `*next` is the offset after the TLV (after
// the type byte alone for the End TLV).
bool cfm_tlv_read(const uint8_t *frame, size_t len, size_t pos, CfmTlv *tlv, size_t *next);

// Loopback and linktrace PDUs. Offsets named "k...Body..." count from the
// first byte after the common header (the body offset of CfmOffsets for the
// untagged frames the engines receive; kTaggedBody for the frames the
// engines build themselves, always Ethernet II with one tag).
namespace cfm {

constexpr size_t kTaggedBody = wire::kSingleTagPayload + 2 + kCfmHeaderLen;  // 22
static_assert(kTaggedBody == kEthOffsets.body + kTagLen);
static_assert(k8023Offsets.body == kEthOffsets.body + wire::kLlcSnapLen);

// Group address of a level: the base with the level added to the last byte.
inline void cfm_group_address(const uint8_t *base, uint8_t level, uint8_t *out) {
  for (size_t i = 0; i < kMacLen; ++i) out[i] = base[i];
  out[kMacLen - 1] = static_cast<uint8_t>(base[kMacLen - 1] + (level & 7));
}
// LBMs use the same group addresses as CCMs, 01:80:C2:00:00:30 plus the level.
constexpr const uint8_t *kLbmGroupBase = kCcmGroupBase;

// LBM and LBR (identical bodies; the LBR is the LBM with opcode 2).
namespace lb {
constexpr size_t kBodyTransId = 0;
constexpr size_t kBodyTlvs = 4;
constexpr uint8_t kFirstTlvOffset = 4;  // as sent; at least this on reception
static_assert(kBodyTlvs == kFirstTlvOffset);
// The LBM as the initiator sends it (tagged offsets).
constexpr size_t kTransId = kTaggedBody + kBodyTransId;  // 22
constexpr size_t kSenderIdTlv = kTaggedBody + kBodyTlvs;  // 26
constexpr size_t kSenderIdLen = 4;
constexpr size_t kOrgTlv = kSenderIdTlv + kTlvHeaderLen + kSenderIdLen;  // 33
constexpr size_t kOrgLen = 3;
constexpr uint8_t kOrgValue[kOrgLen] = {0x0A, 0x00, 0x00};
constexpr size_t kDataTlv = kOrgTlv + kTlvHeaderLen + kOrgLen;  // 39
constexpr size_t kFrameLenNoData = kDataTlv + 1;                // End TLV only: 40
static_assert(kTransId == 22 && kSenderIdTlv == 26 && kOrgTlv == 33 && kDataTlv == 39);
static_assert(kFrameLenNoData == 40);
inline constexpr size_t frame_len_with_data(size_t data_len) { return kDataTlv + kTlvHeaderLen + data_len + 1; }
static_assert(frame_len_with_data(0) == 43);
// TLV types an LBM may carry; anything else drops it.
constexpr uint8_t kTlvType64 = 64;
// LBR replies built from a received LBM.
constexpr size_t kReplySingleTagOpcode = wire::kSingleTagOpcode;       // 19
constexpr size_t kReplySingleTagOpcode8023 = wire::kSingleTagOpcode8023;  // 27
constexpr size_t kReplyDoubleTagOpcode = wire::kDoubleTagOpcode;          // 23
constexpr size_t kReplyDoubleTagRest = 24;  // LBM byte 16 onward lands here
static_assert(kEthOffsets.opcode + kTagLen == kReplySingleTagOpcode);
static_assert(k8023Offsets.opcode + kTagLen == kReplySingleTagOpcode8023);
}  // namespace lb

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
