// Receive task "CFM Process": reads the WAN, classifies each frame, relays
// what is not for this router and hands the rest, untagged, to the engine of
// its opcode under MEP_SYC.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>

// One received frame as the engines get it.
struct CfmPacket {
  uint32_t priority;        // outer tag priority
  uint32_t reserved1;
  uint32_t vid;             // outer tag VID
  uint32_t inner_priority;  // 0 for a single tag
  uint32_t reserved2;
  uint32_t inner_vid;       // 0xFFFFFFFF for a single tag
  // Receiving port: 1 for every frame this daemon reads (its one port, the
  // WAN; the LAN relay sets the same value). The engines take it as the port
  // number a MEP must have to receive the frame.
  uint32_t rx_port;
  uint8_t *buffer;          // untagged copy; null when nothing is handed on
  uint32_t length;
  uint32_t reserved3[3];
  void (*release)(void *);
  // Kernel receive time of the frame (real-time clock); zero when unknown.
  struct timespec rx_time;
};

constexpr uint32_t CFM_NO_INNER_VID = 0xFFFFFFFFu;

void *cfm_rx_task(void *);
// Looks both interface indices up and opens the LAN socket on lan_name the
// way the WAN's is opened; the receive task then reads both sides. False,
// after one line of report, when the LAN interface cannot be used.
bool CFM_Open_Lan(const char *wan_name, const char *lan_name);
// For -w: the receive task opens the LAN once the interface exists, without
// holding anything else up.
void CFM_Open_Lan_When_Present(const char *lan_name);
uint32_t CFM_Create_Rx_Task();  // CFM_OK, or CFM_ERR_FAILURE if not created

uint32_t rx_wan_packet(CfmPacket *packet);
uint32_t rx_lan_packet(CfmPacket *packet);
uint32_t CFM_Receive_Packet(CfmPacket *packet);

// Classifies one frame as received on the WAN (tags in place) and, for a
// frame to be processed here, fills the descriptor with its untagged copy.
// Shared by rx_wan_packet and in-process tests. CFM_OK or CFM_ERR_FAILURE.
uint32_t cfm_classify_wan_frame(const uint8_t *frame, size_t length, CfmPacket *packet);

// Hands a classified packet to the engine of its opcode under MEP_SYC if CFM
// is enabled, then releases its buffer.
void cfm_dispatch_packet(CfmPacket *packet);

// The LAN relay rule of rx_lan_packet for one frame read on the LAN: CFM
// frames (Ethernet II, one or two tags, a whole common header) at level 3
// and above are sent to the WAN unchanged, others dropped.
void cfm_relay_lan_frame(const uint8_t *frame, size_t length);

// Swaps the kernel filter of the WAN and LAN sockets for the one that fits
// the debug flag as it is now (every tagged frame while debug is on).
void cfm_rx_follow_debug();

// Receive seam: while set, rx_wan_packet reads frames from this function
// (same contract as cfm_wan_socket_read) instead of the WAN socket.
using CfmRxSource = long (*)(uint8_t *buf, size_t cap);
void cfm_set_rx_source(CfmRxSource source);
