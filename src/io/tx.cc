#include "io/tx.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
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
constexpr size_t kNoStamp = ~static_cast<size_t>(0);
constexpr size_t kStampLen = 8;
thread_local size_t t_stamp_at = kNoStamp;

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

// Writes the wire form into `out` (room for the larger of `length` and 64):
// at least 64 bytes, zero padded; a tag carrying VID 0 is taken out and the
// wire length kept, so 4 zero bytes trail the frame. Returns the wire length.
size_t wire_form(const uint8_t *frame, uint32_t length, uint8_t *out) {
  size_t wire_len = length < cfm::kMinFrame ? cfm::kMinFrame : length;
  memset(out, 0, wire_len);
  bool vid0_tag = length >= cfm::wire::kSingleTagPayload &&
                  cfm_is_vlan_tpid(frame[cfm::wire::kTpid], frame[cfm::wire::kTpid + 1]) &&
                  cfm::tci_vid(frame + cfm::wire::kTci) == 0;
  if (vid0_tag) {
    memcpy(out, frame, cfm::wire::kTpid);
    memcpy(out + cfm::wire::kTpid, frame + cfm::wire::kSingleTagPayload, length - cfm::wire::kSingleTagPayload);
  } else {
    memcpy(out, frame, length);
  }
  // A frame that asked for its send time gets it where its field now lies.
  if (t_stamp_at != kNoStamp && vid0_tag && t_stamp_at >= cfm::wire::kSingleTagPayload) t_stamp_at -= cfm::kTagLen;
  return wire_len;
}

// The wire form in a buffer of its own; 0 when the buffer cannot be had.
size_t build_wire_frame(const uint8_t *frame, uint32_t length, uint8_t **out) {
  if (length > kMaxSendLength) return 0;
  auto *buf = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(length < cfm::kMinFrame ? cfm::kMinFrame : length));
  if (buf == nullptr) return 0;
  *out = buf;
  return wire_form(frame, length, buf);
}

// Writes the real-time clock at `at` (kNoStamp: nothing), as late as the
// send allows.
void stamp_at(uint8_t *buf, size_t len, size_t at) {
  if (at == kNoStamp || at + kStampLen > len) return;
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  cfm::put_be32(buf + at, static_cast<uint32_t>(ts.tv_sec));
  cfm::put_be32(buf + at + 4, static_cast<uint32_t>(ts.tv_nsec));
}

// The stamp the calling thread asked for its next send, taken.
size_t take_stamp_request() {
  size_t at = t_stamp_at;
  t_stamp_at = kNoStamp;
  return at;
}

void debug_dump(const SendPath &path, const uint8_t *buf, size_t len) {
  puts(path.banner);
  printf("%s, line %d to send packet, length = %d\n", path.function, path.line, static_cast<int>(len));
  cfm_dump_bytes(buf, len, "%02X ");
  printf("\n\n");
}

struct sockaddr_ll link_address(int ifindex) {
  struct sockaddr_ll addr;
  memset(&addr, 0, sizeof addr);
  addr.sll_family = AF_PACKET;
  addr.sll_ifindex = ifindex;
  addr.sll_halen = cfm::kMacLen;
  return addr;
}

bool socket_send(int fd, int ifindex, const uint8_t *buf, size_t len) {
  if (fd < 0) return false;
  struct sockaddr_ll addr = link_address(ifindex);
  return sendto(fd, buf, len, 0, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != -1;
}

// ------------------------------------------------------------ send batches

// The frames sent while one batch is open, in order, in wire form.
constexpr size_t kBatchFrames = 32;
constexpr size_t kBatchFrameRoom = cfm::kMaxFrame + 2 * cfm::kTagLen;
static_assert(kBatchFrameRoom >= cfm::kMinFrame, "a padded frame fits");

struct QueuedFrame {
  CfmTxSide side;
  int fd;
  int ifindex;
  size_t length;
  const char *failure_text;  // printed when the frame cannot be sent
  size_t stamp_offset;       // where its send time goes, or kNoStamp
};

struct SendBatch {
  std::atomic<bool> taken{false};  // one thread at a time batches
  size_t count = 0;
  QueuedFrame frames[kBatchFrames];
  uint8_t data[kBatchFrames][kBatchFrameRoom];
};

SendBatch g_batch;
thread_local bool t_batching = false;
thread_local QueuedFrame *t_last_queued = nullptr;  // the frame the last send queued

void report_failure(const QueuedFrame &frame) {
  if (frame.failure_text != nullptr) printf("%s", frame.failure_text);
}

// Sends frames [0, n) of one socket with as few calls as the kernel allows;
// a frame the kernel refuses is reported and passed over.
void send_run(const QueuedFrame *frames, uint8_t (*data)[kBatchFrameRoom], size_t n) {
  struct mmsghdr msgs[kBatchFrames];
  struct iovec iov[kBatchFrames];
  struct sockaddr_ll addr = link_address(frames[0].ifindex);
  memset(msgs, 0, sizeof msgs);
  for (size_t i = 0; i < n; ++i) {
    iov[i] = {data[i], frames[i].length};
    msgs[i].msg_hdr.msg_name = &addr;
    msgs[i].msg_hdr.msg_namelen = sizeof addr;
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  for (size_t i = 0; i < n; ++i) stamp_at(data[i], frames[i].length, frames[i].stamp_offset);
  for (size_t done = 0; done < n;) {
    int sent = frames[0].fd < 0 ? -1 : sendmmsg(frames[0].fd, msgs + done, static_cast<unsigned>(n - done), 0);
    if (sent <= 0) {
      report_failure(frames[done++]);
    } else {
      done += static_cast<size_t>(sent);
    }
  }
}

// Sends what the batch holds, in order: through the hook one by one, or
// with one sendmmsg per run of frames that go to the same socket.
void flush_batch() {
  SendBatch &b = g_batch;
  std::shared_ptr<CfmTxHook> hook = current_hook();
  for (size_t first = 0, end; first < b.count; first = end) {
    for (end = first + 1; end < b.count && b.frames[end].side == b.frames[first].side; ++end) {
    }
    if (hook && *hook) {
      for (size_t i = first; i < end; ++i) {
        stamp_at(b.data[i], b.frames[i].length, b.frames[i].stamp_offset);
        if (!(*hook)(b.frames[i].side, b.data[i], b.frames[i].length)) report_failure(b.frames[i]);
      }
    } else {
      send_run(b.frames + first, b.data + first, end - first);
    }
  }
  b.count = 0;
  t_last_queued = nullptr;
}

uint32_t queue_frame(const SendPath &path, int fd, int ifindex, const uint8_t *frame, uint32_t length) {
  SendBatch &b = g_batch;
  if (b.count == kBatchFrames) flush_batch();
  QueuedFrame &q = b.frames[b.count];
  size_t wire_len = wire_form(frame, length, b.data[b.count]);
  q = {path.side, fd, ifindex, wire_len, nullptr, take_stamp_request()};
  ++b.count;
  t_last_queued = &q;
  return CFM_OK;
}

uint32_t send_packet(const SendPath &path, int fd, int ifindex, const uint8_t *frame, uint32_t length) {
  t_last_queued = nullptr;
  if (frame == nullptr) {
    t_stamp_at = kNoStamp;
    return CFM_ERR_FAILURE;
  }
  // In a batch, a frame waits for the others; with debug on it leaves at
  // once (after those queued before it), so the trace reads as it always has.
  bool debug = isCfmDebugOn() != 0;
  if (t_batching && !debug && length <= kBatchFrameRoom) {
    return queue_frame(path, fd, ifindex, frame, length);
  }
  if (t_batching) flush_batch();
  uint8_t *buf = nullptr;
  size_t wire_len = build_wire_frame(frame, length, &buf);
  if (wire_len == 0) {
    t_stamp_at = kNoStamp;
    return CFM_ERR_FAILURE;
  }
  if (debug) debug_dump(path, buf, wire_len);
  std::shared_ptr<CfmTxHook> hook = current_hook();
  stamp_at(buf, wire_len, take_stamp_request());
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

void cfm_tx_batch_begin() {
  if (t_batching || g_batch.taken.exchange(true)) return;
  t_batching = true;
}

void cfm_tx_batch_end() {
  if (!t_batching) return;
  flush_batch();
  t_batching = false;
  g_batch.taken.store(false);
}

void cfm_tx_report_failure(uint32_t result, const char *text) {
  // A queued send always reports CFM_OK, so a failure is one sent at once.
  if (result != CFM_OK) {
    if (text != nullptr) printf("%s", text);
  } else if (t_last_queued != nullptr) {
    t_last_queued->failure_text = text;
  }
  t_last_queued = nullptr;
}

void cfm_tx_stamp_next(size_t offset) { t_stamp_at = offset; }

void cfm_set_system_mac(const uint8_t *mac) {
  if (mac == nullptr) return;
  std::lock_guard<std::mutex> lock(g_tx_mutex);
  memcpy(g_system_mac, mac, cfm::kMacLen);
}
