// Byte layout of CFM frames up to the PDU body: Ethernet addresses, 802.1Q
// tags, the two encapsulations (Ethernet II and 802.3 LLC/SNAP), the common
// CFM header, TLVs and the group addresses. Every engine takes these offsets
// from here; the body of each PDU is laid out once in its engine's *_pdu.h
// (ccm_pdu.h, lb_pdu.h, lt_pdu.h), built on the offsets below.
#pragma once
#include <cstddef>
#include <cstdint>

// True for the bytes 0x81 0x00 (802.1Q TPID) and 0x89 0x02 (CFM EtherType).
bool cfm_is_vlan_tpid(uint8_t b0, uint8_t b1);
bool cfm_is_cfm_ethertype(uint8_t b0, uint8_t b1);

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
// What a received frame must hold from its CFM EtherType on to be acted on:
// the EtherType and the whole common header. The WAN classifier, the LAN
// relay and the kernel filter of both sockets all apply this one rule, so a
// frame cut short (a sender need not pad to the Ethernet minimum) is passed
// over alike whether the filter or the daemon looks at it.
constexpr size_t kCfmLengthFromEtherType = 2 + kCfmHeaderLen;
inline bool cfm_holds_header(size_t length, size_t ether_type_at) {
  return length >= ether_type_at + kCfmLengthFromEtherType;
}

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

// 802.1Q tag control. The VID's high bits are masked with 0x1F, so bit 12 of
// a VID above 4095 lands in the DEI bit; on reception the VID is 12 bits.
inline uint8_t tci_high(uint8_t priority, uint16_t vid) {
  return static_cast<uint8_t>((priority << 5) | ((vid >> 8) & 0x1F));
}
inline uint8_t tci_low(uint16_t vid) { return static_cast<uint8_t>(vid & 0xFF); }
inline uint16_t tci_vid(const uint8_t *tci) { return static_cast<uint16_t>(((tci[0] & 0x0F) << 8) | tci[1]); }
inline uint8_t tci_priority(const uint8_t *tci) { return tci[0] >> 5; }

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

// The PDU bodies of the frames the engines build themselves (always Ethernet
// II with one tag) start here; the engines' receive side counts from the body
// offset of CfmOffsets.
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

}  // namespace cfm
