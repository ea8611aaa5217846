#include "io/tx.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "io/dump.h"
#include "io/frame.h"

int _cfm_wan_sock_fd = -1;
std::atomic<int> _cfm_lan_sock_fd{-1};
int _cfm_sock_fd = -1;
int _ifc_wan_index = 0;
std::atomic<int> _ifc_lan_index{0};

namespace {

std::mutex g_tx_mutex;  // guards the hook, the lazy WAN socket and the system MAC
std::shared_ptr<CfmTxHook> g_tx_hook;
uint8_t g_system_mac[cfm::kMacLen] = {0};

// Line numbers the debug trace of each entry point reports; front ends that
// parse the trace rely on these fixed values.
constexpr int kWanTraceLine = 285;
constexpr int kLanTraceLine = 352;
constexpr int kGenericTraceLine = 464;

// No link takes more in one frame; a larger length is a caller's fault.
constexpr uint32_t kMaxSendLength = 65535;

struct SendPath {
  CfmTxSide side;
  const char *banner;
  const char *function;
  int line;
};

std::shared_ptr<CfmTxHook> current_hook() {
  std::lock_guard<std::mutex> lock(g_tx_mutex);
  return g_tx_hook;
}

// The WAN send socket: opened once, on first need. It takes no protocol, so
// nothing queues on it; frames carry their own Ethernet header.
int wan_send_socket() {
  std::lock_guard<std::mutex> lock(g_tx_mutex);
  if (_cfm_wan_sock_fd < 0) {
    _cfm_wan_sock_fd = socket(AF_PACKET, SOCK_RAW, 0);
  }
  return _cfm_wan_sock_fd;
}

// Builds the wire form: at least 64 bytes, zero padded; a tag carrying VID 0
// is taken out and the wire length kept, so 4 zero bytes trail the frame.
// Returns the wire length, 0 when the buffer cannot be had.
size_t build_wire_frame(const uint8_t *frame, uint32_t length, uint8_t **out) {
  if (length > kMaxSendLength) return 0;
  size_t wire_len = length < cfm::kMinFrame ? cfm::kMinFrame : length;
  auto *buf = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(wire_len));
  if (buf == nullptr) return 0;
  memset(buf, 0, wire_len);
  bool vid0_tag = length >= cfm::wire::kSingleTagPayload &&
                  cfm_is_vlan_tpid(frame[cfm::wire::kTpid], frame[cfm::wire::kTpid + 1]) &&
                  cfm::tci_vid(frame + cfm::wire::kTci) == 0;
  if (vid0_tag) {
    memcpy(buf, frame, cfm::wire::kTpid);
    memcpy(buf + cfm::wire::kTpid, frame + cfm::wire::kSingleTagPayload, length - cfm::wire::kSingleTagPayload);
  } else {
    memcpy(buf, frame, length);
  }
  *out = buf;
  return wire_len;
}

void debug_dump(const SendPath &path, const uint8_t *buf, size_t len) {
  puts(path.banner);
  printf("%s, line %d to send packet, length = %d\n", path.function, path.line, static_cast<int>(len));
  cfm_dump_bytes(buf, len, "%02X ");
  printf("\n\n");
}

bool socket_send(int fd, int ifindex, const uint8_t *buf, size_t len) {
  if (fd < 0) return false;
  struct sockaddr_ll addr;
  memset(&addr, 0, sizeof addr);
  addr.sll_family = AF_PACKET;
  addr.sll_ifindex = ifindex;
  addr.sll_halen = cfm::kMacLen;
  return sendto(fd, buf, len, 0, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != -1;
}

uint32_t send_packet(const SendPath &path, int fd, int ifindex, const uint8_t *frame, uint32_t length) {
  if (frame == nullptr) return CFM_ERR_FAILURE;
  uint8_t *buf = nullptr;
  size_t wire_len = build_wire_frame(frame, length, &buf);
  if (wire_len == 0) return CFM_ERR_FAILURE;
  bool debug = isCfmDebugOn() != 0;
  if (debug) debug_dump(path, buf, wire_len);
  std::shared_ptr<CfmTxHook> hook = current_hook();
  bool sent = (hook && *hook) ? (*hook)(path.side, buf, wire_len) : socket_send(fd, ifindex, buf, wire_len);
  CFM_OS_Deallocate_Memory(buf);
  if (debug) {
    puts(sent ? "CFM: Send the packet Successfully" : "CFM: Send the packet Fail");
  }
  return sent ? CFM_OK : CFM_ERR_FAILURE;
}

int ifindex_of(int sock, const char *name) {
  struct ifreq req;
  memset(&req, 0, sizeof req);
  snprintf(req.ifr_name, sizeof req.ifr_name, "%s", name != nullptr ? name : "");
  ioctl(sock, SIOCGIFINDEX, &req);
  return req.ifr_ifindex;
}

}  // namespace

uint32_t CFM_Send_Packet_To_WAN(const uint8_t *frame, uint32_t length, uint32_t, uint32_t, uint32_t) {
  static const SendPath path = {CfmTxSide::Wan, "CFM: Prepare to send a packet to WAN", "CFM_Send_Packet_To_WAN",
                                kWanTraceLine};
  int fd = current_hook() ? -1 : wan_send_socket();
  return send_packet(path, fd, _ifc_wan_index, frame, length);
}

uint32_t CFM_Send_Packet_To_LAN(const uint8_t *frame, uint32_t length, uint32_t, uint32_t, uint32_t) {
  static const SendPath path = {CfmTxSide::Lan, "CFM: Prepare to send a packet to LAN", "CFM_Send_Packet_To_LAN",
                                kLanTraceLine};
  return send_packet(path, _cfm_lan_sock_fd, _ifc_lan_index, frame, length);
}

uint32_t CFM_Send_Packet(const uint8_t *frame, uint32_t length, uint32_t, uint32_t, uint32_t) {
  static const SendPath path = {CfmTxSide::Generic, "CFM: Prepare to send a packet", "CFM_Send_Packet",
                                kGenericTraceLine};
  return send_packet(path, _cfm_sock_fd, _ifc_wan_index, frame, length);
}

int CFM_Get_Ifindex(const char *ifname) {
  puts("CFM: CFM_Get_Ifindex");
  const char *name = ifname != nullptr ? ifname : "";
  int sock = socket(AF_INET, SOCK_DGRAM, 0);
  _ifc_wan_index = ifindex_of(sock, name);

  struct ifreq req;
  memset(&req, 0, sizeof req);
  snprintf(req.ifr_name, sizeof req.ifr_name, "%s", name);
  uint8_t mac[cfm::kMacLen] = {0};
  if (ioctl(sock, SIOCGIFHWADDR, &req) == 0) {
    memcpy(mac, req.ifr_hwaddr.sa_data, cfm::kMacLen);
  } else {
    printf("Can't get %s mac\n", name);
  }
  cfm_set_system_mac(mac);
  if (sock >= 0) close(sock);
  // The send socket exists before any task starts.
  wan_send_socket();
  return _ifc_wan_index;
}

int getIfcIndex() { return _ifc_wan_index; }

void CFM_Get_Wan_Lan_Ifindex(const char *wan_name, const char *lan_name) {
  int sock = socket(AF_INET, SOCK_DGRAM, 0);
  _ifc_wan_index = ifindex_of(sock, wan_name);
  _ifc_lan_index = ifindex_of(sock, lan_name);
  if (sock >= 0) close(sock);
}

uint32_t CFM_Get_System_Mac(uint8_t *mac) {
  if (mac == nullptr) return CFM_ERR_FAILURE;
  std::lock_guard<std::mutex> lock(g_tx_mutex);
  memcpy(mac, g_system_mac, cfm::kMacLen);
  return CFM_OK;
}

uint8_t CFM_Get_Port_Status(uint32_t) { return 2; }
uint8_t CFM_Get_Interface_Status(uint32_t) { return 1; }
bool CFM_Is_Vlan_Port_Member(uint32_t, uint32_t) { return false; }
bool CFM_Is_Vlan_Port_Member_Ex(uint32_t, uint32_t, uint32_t) { return false; }

void cfm_set_tx_hook(CfmTxHook hook) {
  std::shared_ptr<CfmTxHook> next = hook ? std::make_shared<CfmTxHook>(std::move(hook)) : nullptr;
  std::lock_guard<std::mutex> lock(g_tx_mutex);
  g_tx_hook = std::move(next);
}

void cfm_set_system_mac(const uint8_t *mac) {
  if (mac == nullptr) return;
  std::lock_guard<std::mutex> lock(g_tx_mutex);
  memcpy(g_system_mac, mac, cfm::kMacLen);
}
