// The kernel filter of the WAN and LAN packet sockets. The sockets take every
// protocol (a socket bound to 802.1Q sees nothing once the kernel has taken
// the outer tag off), so without a filter every frame on the line would be
// copied to the daemon only to be passed over. The filter keeps, in the
// kernel, only what the classifier can act on: an 802.1Q outer tag (in the
// packet's auxiliary VLAN data, or still in the data where a driver leaves
// it) and the CFM EtherType at a single- or double-tag position of either
// frame type. With debug on it keeps every frame with an 802.1Q outer tag, so
// the debug trace shows what a socket of the 802.1Q protocol would see.
#pragma once
#include <linux/filter.h>

#include <cstddef>

namespace cfm {

// Longest filter program; the program itself is built by packet_filter().
constexpr size_t kPacketFilterMaxLen = 48;

// Writes the program into `out` (room for kPacketFilterMaxLen) and returns
// its length. `all_tagged`: keep every 802.1Q-tagged frame (debug).
size_t packet_filter(bool all_tagged, struct sock_filter *out);

// Attaches (or replaces) the filter on a socket; false when the kernel
// refuses it, and the socket then keeps what it had.
bool packet_filter_attach(int fd, bool all_tagged);

}  // namespace cfm
