// Linktrace PDUs: the LTM as the initiator sends it and the LTR with which
// this router answers an LTM aimed at it. Byte work only.
#pragma once
#include <cstddef>
#include <cstdint>

#include "db/mgmt_if.h"

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
