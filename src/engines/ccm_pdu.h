// The CCM PDU: its layout as the sender writes it behind one tag and the
// receiver reads it from the untagged copy, and the MAID. Byte work only.
#pragma once
#include <cstddef>
#include <cstdint>

#include "db/md_ma.h"
#include "io/frame.h"

constexpr size_t CFM_CCM_FRAME_LEN = 108;

// Layout of the CCM PDU, as offsets from its level/version byte. The sender
// writes it behind a single tag, the receiver reads it from the untagged copy.
namespace cfm::ccm {
constexpr size_t kFlags = 2;
constexpr size_t kFirstTlvOffsetField = 3;
constexpr size_t kSequence = 4;
constexpr size_t kMepId = 8;
constexpr size_t kMaid = 10;
constexpr size_t kMaidLen = 48;
constexpr size_t kItu = kMaid + kMaidLen;
constexpr size_t kItuLen = 16;
constexpr size_t kTlvs = kItu + kItuLen;
// Bytes from the end of the First TLV Offset field to the first TLV.
constexpr uint8_t kFirstTlvOffset = static_cast<uint8_t>(kTlvs - (kFirstTlvOffsetField + 1));
static_assert(kFirstTlvOffset == 70);

// Within the MAID.
constexpr size_t kMdFormat = 0;
constexpr size_t kMdNameLen = 1;
constexpr size_t kMdName = 2;
// The MD name and the short MA name share what the four format and length
// bytes leave of the MAID.
constexpr size_t kMaidNameSpace = kMaidLen - 4;
static_assert(kMaidNameSpace == 44);

// Flags byte.
constexpr uint8_t kRdiBit = 0x80;
constexpr uint8_t kIntervalMask = 0x3F;

// The PDU in the frame as sent (single tag) and as handed to the engines.
constexpr size_t kTxPdu = wire::kSingleTagPayload + 2;  // after the EtherType
constexpr size_t kRxPdu = 14;                            // untagged Ethernet II
static_assert(kTxPdu == 18 && kRxPdu + kTagLen == kTxPdu);

// Fixed TLVs the sender appends after the header area.
constexpr uint8_t kSenderIdTlv[] = {kTlvSenderId, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00};
constexpr uint8_t kPortStatusTlv[] = {kTlvPortStatus, 0x00, 0x01, 0x00};       // value last
constexpr uint8_t kInterfaceStatusTlv[] = {kTlvInterfaceStatus, 0x00, 0x01, 0x00};
constexpr size_t kTxHeaderArea = kTxPdu + kTlvs;
static_assert(kTxHeaderArea == 92);
static_assert(kTxHeaderArea + sizeof kSenderIdTlv + sizeof kPortStatusTlv + sizeof kInterfaceStatusTlv + 1 ==
              CFM_CCM_FRAME_LEN);

// Offsets of received fields in the untagged frame.
constexpr size_t kRxLevelVersion = kRxPdu;
constexpr size_t kRxFlags = kRxPdu + kFlags;
constexpr size_t kRxFirstTlvOffset = kRxPdu + kFirstTlvOffsetField;
constexpr size_t kRxSequence = kRxPdu + kSequence;
constexpr size_t kRxMepId = kRxPdu + kMepId;
constexpr size_t kRxMaid = kRxPdu + kMaid;
constexpr size_t kRxFirstTlv = kRxPdu + kTlvs;
static_assert(kRxSequence == 18 && kRxMepId == 22 && kRxMaid == 24 && kRxFirstTlv == 88);
}  // namespace cfm::ccm

// Writes the MAID (48 bytes, zero after the short MA name) for an MD and MA.
void cfm_ccm_write_maid(uint8_t *maid, const MdEntry &md, const MaNetEntry &ma);

