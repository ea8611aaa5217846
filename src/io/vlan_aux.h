// Putting back the outer VLAN tag that the kernel takes off a frame before
// a packet socket sees it (reported beside the frame as auxiliary data).
#pragma once
#include <cstddef>
#include <cstdint>

// Writes `frame` (`length` bytes as read) to `out` (`cap` bytes) as it was on
// the wire: when `tagged` and the frame holds both addresses, the tag
// tpid/tci goes back right after them. The result is cut to `cap`; returns
// the bytes written. `out` is either apart from `frame` or exactly a tag's
// length before it (a frame read 4 bytes into its buffer is rebuilt in place).
size_t cfm_vlan_reinsert(const uint8_t *frame, size_t length, bool tagged, uint16_t tpid, uint16_t tci, uint8_t *out,
                         size_t cap);
