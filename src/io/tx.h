// Transmission towards the WAN and the LAN, and the platform facts the
// engines ask for (interface index, system MAC, port and interface status).
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

// The WAN send socket belongs to this module: an AF_PACKET/SOCK_RAW socket
// with no protocol (nothing queues on it), opened by CFM_Get_Ifindex at
// start-up, or on the first WAN send. The receive task opens its own socket
// with cfm_wan_socket_open (src/io/wan_socket.h) and never writes this one.
extern int _cfm_wan_sock_fd;
// The LAN side may be opened late, by the receive task, while other tasks send.
extern std::atomic<int> _cfm_lan_sock_fd;
extern int _cfm_sock_fd;
extern int _ifc_wan_index;
extern std::atomic<int> _ifc_lan_index;

// Frames shorter than 64 bytes are padded with zeros; a tag with VID 0 is
// removed and the wire length kept. The last three arguments are not used.
uint32_t CFM_Send_Packet_To_WAN(const uint8_t *frame, uint32_t length, uint32_t priority, uint32_t arg4 = 0,
                                uint32_t arg5 = 0);
uint32_t CFM_Send_Packet_To_LAN(const uint8_t *frame, uint32_t length, uint32_t priority, uint32_t arg4 = 0,
                                uint32_t arg5 = 0);
uint32_t CFM_Send_Packet(const uint8_t *frame, uint32_t length, uint32_t priority, uint32_t arg4 = 0,
                         uint32_t arg5 = 0);

int CFM_Get_Ifindex(const char *ifname);
int getIfcIndex();
void CFM_Get_Wan_Lan_Ifindex(const char *wan_name, const char *lan_name);
uint32_t CFM_Get_System_Mac(uint8_t *mac);
uint8_t CFM_Get_Port_Status(uint32_t port);       // always 2 (psUp)
uint8_t CFM_Get_Interface_Status(uint32_t port);  // always 1 (isUp)
bool CFM_Is_Vlan_Port_Member(uint32_t vid, uint32_t port);
bool CFM_Is_Vlan_Port_Member_Ex(uint32_t a, uint32_t b, uint32_t c);

// Send batches. Between begin and end on one thread (the receive task, around
// the frames of one read), the frames sent to the WAN and the LAN wait, in
// order, and leave together after the batch (one sendmmsg per run of frames
// for the same socket); the sends report CFM_OK when queued. With debug on a
// frame leaves at once, so the trace is that of a send outside a batch. One
// thread batches at a time: on any other, begin does nothing. Other threads
// (the timer's CCMs) always send at once.
void cfm_tx_batch_begin();
void cfm_tx_batch_end();
// Call right after a send with its result: reports `text` if that send
// fails, at once for a frame sent at once, when the batch leaves for a
// queued one.
void cfm_tx_report_failure(uint32_t result, const char *text);

// Transmit seam: while a hook is set, every send hands the finished wire
// frame (padded, VID-0 tag removed) to the hook instead of a socket, and the
// hook's answer is the send result. Tests capture frames this way.
enum class CfmTxSide { Wan, Lan, Generic };
// The hook may be set or cleared while other threads send; a send already
// inside the old hook finishes with it. The hook itself must be thread-safe
// if several tasks send at once.
using CfmTxHook = std::function<bool(CfmTxSide side, const uint8_t *frame, size_t length)>;
void cfm_set_tx_hook(CfmTxHook hook);  // an empty hook restores the sockets
// Sets the system MAC directly (tests, and platforms without the ioctl).
void cfm_set_system_mac(const uint8_t *mac);

// Timestamp seam: the next send of the calling thread writes the real-time
// clock (32-bit seconds, 32-bit nanoseconds, big-endian) at byte `offset` of
// the frame as given, as the last step before the frame is handed to the
// socket (or the hook). Frames that carry their send time use it.
void cfm_tx_stamp_next(size_t offset);
