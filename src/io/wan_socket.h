// The WAN raw socket as this kernel needs it. A socket bound to 0x8100 sees
// nothing on a modern kernel (the outer tag is stripped before protocol
// delivery), so the socket takes every protocol, asks for PACKET_AUXDATA and
// puts the outer tag back from tp_vlan_tci/tp_vlan_tpid; frames the daemon
// sent itself are skipped; the CFM group addresses 01:80:C2:00:00:30-3F are
// joined so that NICs that filter multicast deliver them. The LAN socket of
// the relay (option -l) is opened and read the same way.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>

// Opens, configures (non-blocking) and binds the socket; -1 on failure, with
// `*failed_step` set to "open" or "bind". `filtered`: the kernel keeps only
// what the classifier can act on (io/packet_filter.h), from the first frame
// on; otherwise the socket takes every frame of the interface.
int cfm_wan_socket_open(int ifindex, const char **failed_step, bool filtered = false);

// Reads one frame into buf (capacity cap). Returns its length with the outer
// tag re-inserted (cut to cap), 0 when a frame was skipped (an own outgoing
// frame), or -1 when nothing is queued or the read failed.
long cfm_wan_socket_read(int fd, uint8_t *buf, size_t cap);

// Reads up to `max` (at most 16) queued frames with one system call, each into
// its own buffer of bufs[i] (`cap` bytes, cap > 4), with the outer tag put
// back and cut to cap - 4 bytes. lengths[i] is the frame's length, or 0 for a
// frame that was skipped (an own outgoing frame). Returns how many frames
// were read: 0 when none was queued (or the read failed). When stamps is
// given, stamps[i] is the kernel's receive time of frame i (zero if none).
int cfm_wan_socket_read_batch(int fd, uint8_t *const *bufs, size_t cap, long *lengths, int max,
                              struct timespec *stamps = nullptr);

// Blocks until the socket is readable or timeout_ms passes (-1: no limit).
// True when readable.
bool cfm_wan_socket_wait(int fd, int timeout_ms);
// The same for several sockets (the WAN's and the LAN's): true when any is.
bool cfm_wan_socket_wait_any(const int *fds, int count, int timeout_ms);
