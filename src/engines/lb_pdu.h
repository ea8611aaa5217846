// Loopback PDUs: the LBM as the initiator sends it and the LBR that the
// responder builds from a received LBM. Byte work only: no tables, no sending.
#pragma once
#include <cstddef>
#include <cstdint>

// Builds an LBM (one tag, Ethernet II) into frame (cap bytes). The Data TLV
// is present only when data_len > 0. Returns the frame length, 0 if it does
// not fit.
size_t cfm_lbm_build(uint8_t *frame, size_t cap, const uint8_t *dst, const uint8_t *src, uint8_t priority,
                     uint16_t vid, uint8_t level, uint32_t trans_id, const char *data, size_t data_len);

// Tags of the reply: the received LBM's priority and VID, inner ones too for
// a double-tagged LBM (inner_vid 0xFFFFFFFF for a single tag).
struct CfmLbrTags {
  uint32_t priority;
  uint32_t vid;
  uint32_t inner_priority;
  uint32_t inner_vid;
};

// Builds the LBR for an untagged LBM of lbm_len bytes: the LBM re-tagged, its
// opcode set to 2, with dst and src as addresses. A double-tagged reply keeps
// the length lbm_len + 4, so its last 4 bytes are not sent. Returns the reply
// length, 0 if the LBM is shorter than its addresses and EtherType or the
// reply does not fit in cap.
size_t cfm_lbr_build(uint8_t *out, size_t cap, const uint8_t *lbm, size_t lbm_len, const uint8_t *dst,
                     const uint8_t *src, const CfmLbrTags &tags, bool frame_8023);
