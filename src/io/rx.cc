#include "io/rx.h"

#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/frame_type.h"
#include "core/global.h"
#include "core/os.h"
#include "core/startup.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "engines/ccm_rx.h"
#include "engines/lb_initiator.h"
#include "engines/lb_responder.h"
#include "engines/lt_receiver.h"
#include "engines/pm_session.h"
#include "io/dump.h"
#include "io/frame.h"
#include "io/packet_filter.h"
#include "io/tx.h"
#include "io/wan_socket.h"

using namespace cfm;

namespace {

constexpr uint32_t kTaskStackSize = 8192;
constexpr uint32_t kTaskPriority = 60;
// Reported as the poll period; the task waits for the socket instead.
constexpr int kReportedIntervalUs = 100;
// Upper bound on one wait, so a socket that stays in error cannot park the
// task for good.
constexpr int kWaitTimeoutMs = 1000;
constexpr useconds_t kEmptyWakeupPauseUs = 1000;
// Frames taken from one side before the other side is looked at.
constexpr size_t kBatchFrames = 64;
// Frames read with one call and handled under one hold of MEP_SYC.
constexpr size_t kLockBatch = 16;
// A receive buffer: the largest frame and room to put its tag back.
constexpr size_t kRxBufferSize = kMaxFrame + kTagLen;
constexpr int kReceiveQueueBytes = 4 * 1024 * 1024;
constexpr uint8_t kLanForwardLevel = 3;  // LAN frames at this level and above cross

std::atomic<CfmRxSource> g_rx_source{nullptr};
std::atomic<int> g_rx_fd{-1};  // the WAN receive socket

enum class Verdict { NotCfm, Local, ForwardToLan };

void dispatch_held(CfmPacket *packet);

void debug_text(const char *text) {
  if (!isCfmDebugOn()) return;
  printf("%s", text);
}

void clear_payload(CfmPacket *packet) {
  packet->buffer = nullptr;
  packet->length = 0;
}

bool has(size_t length, size_t offset, size_t size) { return offset + size <= length; }

bool is_vlan_tagged(const uint8_t *frame, size_t length) {
  return has(length, wire::kTpid, 2) && cfm_is_vlan_tpid(frame[wire::kTpid], frame[wire::kTpid + 1]);
}

bool is_ether_type_at(const uint8_t *frame, size_t length, size_t offset) {
  return has(length, offset, 2) && cfm_is_cfm_ethertype(frame[offset], frame[offset + 1]);
}

// A double-tagged LBM is for this router when some MD's first MEP (the next
// MEP after the MD's index alone) has the outer VID.
bool double_tagged_lbm_is_local(uint16_t outer_vid) {
  MdEntry md;
  memset(&md, 0, sizeof md);
  while (CFM_GetNext_MD_Entry(&md) == 1) {
    MepEntry mep;
    memset(&mep, 0, sizeof mep);
    mep.md_id = md.MdIndex;
    if (CFM_GetNext_MEP_Entry(&mep) == 1 && mep.vid == outer_vid) return true;
  }
  return false;
}

Verdict classify(const uint8_t *frame, size_t length, bool *double_tag) {
  *double_tag = false;
  if (!has(length, wire::kTpid, 2) || !cfm_is_vlan_tpid(frame[wire::kTpid], frame[wire::kTpid + 1])) {
    return Verdict::NotCfm;
  }
  bool is8023 = is8023Frame();
  size_t single_type = is8023 ? wire::kSingleTagEtherType8023 : wire::kSingleTagEtherType;
  size_t single_opcode = is8023 ? wire::kSingleTagOpcode8023 : wire::kSingleTagOpcode;
  size_t double_type = is8023 ? wire::kDoubleTagEtherType8023 : wire::kDoubleTagEtherType;
  // A frame must hold its tags, EtherType and common header to be looked at.
  if (is_ether_type_at(frame, length, single_type)) {
    if (!cfm_holds_header(length, single_type)) return Verdict::NotCfm;
    if (isCfmDebugOn()) printf("CFM: Receive a CFM packet with opcode=%d from WAN\n", frame[single_opcode]);
    return Verdict::Local;
  }
  if (!is_ether_type_at(frame, length, double_type) || !cfm_holds_header(length, double_type)) {
    return Verdict::NotCfm;
  }
  *double_tag = true;
  uint8_t opcode = frame[wire::kDoubleTagOpcode];
  if (isCfmDebugOn()) printf("CFM: Receive a double vlan CFM packet with opcode=%d from WAN\n", opcode);
  if (opcode == kOpLbm) {
    return double_tagged_lbm_is_local(tci_vid(frame + wire::kTci)) ? Verdict::Local : Verdict::ForwardToLan;
  }
  if (isCfmDebugOn()) printf("CFM: Forward the double vlan CFM packet because opcode=%d\n", opcode);
  return Verdict::ForwardToLan;
}

// Fills the descriptor with the untagged copy of a frame to process here.
uint32_t make_untagged_copy(const uint8_t *frame, size_t length, bool double_tag, CfmPacket *packet) {
  size_t strip = double_tag ? 2 * kTagLen : kTagLen;
  size_t payload = double_tag ? wire::kDoubleTagPayload : wire::kSingleTagPayload;
  size_t copy_length = length - strip;
  auto *copy = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(copy_length));
  if (copy == nullptr) {
    clear_payload(packet);
    return CFM_ERR_FAILURE;
  }
  packet->priority = tci_priority(frame + wire::kTci);
  packet->vid = tci_vid(frame + wire::kTci);
  if (double_tag) {
    packet->inner_priority = tci_priority(frame + wire::kInnerTci);
    packet->inner_vid = tci_vid(frame + wire::kInnerTci);
  } else {
    packet->inner_priority = 0;
    packet->inner_vid = CFM_NO_INNER_VID;
  }
  memcpy(copy, frame, 2 * kMacLen);
  memcpy(copy + 2 * kMacLen, frame + payload, length - payload);
  packet->buffer = copy;
  packet->length = static_cast<uint32_t>(copy_length);
  packet->release = CFM_OS_Deallocate_Memory;
  return CFM_OK;
}

// Reads one frame from the WAN (or the test source) into buf; -1 when the
// queue is empty, 0 when a frame was skipped.
long read_wan(uint8_t *buf, size_t cap) {
  CfmRxSource source = g_rx_source.load();
  if (source != nullptr) return source(buf, cap);
  int fd = g_rx_fd.load();
  if (fd < 0) return -1;
  return cfm_wan_socket_read(fd, buf, cap);
}

// Classifies one frame read from the WAN (`got` bytes, 0 or less for none).
uint32_t classify_received(const uint8_t *buf, long got, CfmPacket *packet) {
  // The socket takes every protocol so that tagged frames arrive at all; what
  // does not begin with an 802.1Q tag is not for this path and is passed over
  // before any trace, as a socket of the 802.1Q protocol would never see it.
  if (got > 0 && !is_vlan_tagged(buf, static_cast<size_t>(got))) got = 0;
  if (got <= 0) {
    clear_payload(packet);
    return CFM_ERR_FAILURE;
  }
  if (isCfmDebugOn()) {
    printf("Debug: rx_wan_packet recevice");
    cfm_dump_bytes(buf, static_cast<size_t>(got), "%2X ");
    printf("\n\n");
  }
  return cfm_classify_wan_frame(buf, static_cast<size_t>(got), packet);
}

// Reads and classifies one WAN frame. *read_nothing tells an empty queue
// apart from a frame that was read and dropped or relayed.
uint32_t receive_wan(CfmPacket *packet, bool *read_nothing) {
  *read_nothing = false;
  auto *buf = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kMaxFrame));
  if (buf == nullptr) {
    clear_payload(packet);
    *read_nothing = true;
    return CFM_ERR_FAILURE;
  }
  memset(buf, 0, kMaxFrame);
  long got = read_wan(buf, kMaxFrame);
  *read_nothing = got < 0;
  uint32_t result = classify_received(buf, got, packet);
  CFM_OS_Deallocate_Memory(buf);
  return result;
}

void debug_dump_packet(const CfmPacket &packet) {
  if (!isCfmDebugOn() || packet.length == 0 || packet.buffer == nullptr) return;
  printf("Debug: rx_task_recevice packet =");
  cfm_dump_bytes(packet.buffer, packet.length, "%02X ");
  printf("\n");
}

// Reads up to `want` WAN frames, each into its own buffer (the test source
// one call per frame, the socket all in one). Returns how many were read.
int read_wan_batch(uint8_t *const *bufs, long *lengths, int want, struct timespec *stamps) {
  CfmRxSource source = g_rx_source.load();
  if (source == nullptr) {
    int fd = g_rx_fd.load();
    return fd < 0 ? 0 : cfm_wan_socket_read_batch(fd, bufs, kRxBufferSize, lengths, want, stamps);
  }
  int got = 0;
  while (got < want && (lengths[got] = source(bufs[got], kMaxFrame)) >= 0) ++got;
  return got;
}

// The receive buffers of the WAN batches, reused from batch to batch: a
// frame is read into one and read no further than its length. Only the
// receive task reads the WAN.
uint8_t g_wan_buffers[kLockBatch][kRxBufferSize];

// Takes the queued WAN frames in arrival order, at most `limit` of them, in
// batches read with one call each. A batch is classified and handed to the
// engines under one hold of MEP_SYC, so the tick waits for at most one
// batch. A batch that comes back short means the queue is empty: no further
// read is made before the next wait. Returns the number of frames read.
size_t drain_wan(size_t limit) {
  size_t frames = 0;
  uint8_t *bufs[kLockBatch];
  for (size_t i = 0; i < kLockBatch; ++i) bufs[i] = g_wan_buffers[i];
  while (frames < limit) {
    int want = static_cast<int>(limit - frames < kLockBatch ? limit - frames : kLockBatch);
    long lengths[kLockBatch];
    struct timespec stamps[kLockBatch] = {};
    int got = read_wan_batch(bufs, lengths, want, stamps);
    // The replies and relays of the batch leave together once MEP_SYC is
    // free again, so a tick waiting for it is not held up by the sends.
    cfm_tx_batch_begin();
    if (got > 0) {
      MepSycLock lock;
      for (int i = 0; i < got; ++i) {
        CfmPacket packet;
        memset(&packet, 0, sizeof packet);
        if (classify_received(bufs[i], lengths[i], &packet) == CFM_OK) {
          packet.rx_time = stamps[i];
          debug_dump_packet(packet);
          dispatch_held(&packet);
        }
      }
    }
    cfm_tx_batch_end();
    frames += static_cast<size_t>(got);
    if (got < want) break;
  }
  return frames;
}

// A burst of several thousand frames must wait in the kernel, not be lost,
// while the task works through it; the default queue holds a few hundred.
void reserve_receive_queue(int fd) {
  int bytes = kReceiveQueueBytes;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
  }
}

// Opens and binds the WAN receive socket and reports the wait period; -1
// (with the debug report) when it cannot be had.
int open_rx_socket() {
  const char *failed_step = nullptr;
  int fd = cfm_wan_socket_open(getIfcIndex(), &failed_step, true);
  if (fd < 0) {
    bool bind_failed = failed_step != nullptr && strcmp(failed_step, "bind") == 0;
    debug_text(bind_failed ? "CFM: WAN Socket bind error" : "CFM: Socket open error");
    return -1;
  }
  reserve_receive_queue(fd);
  g_rx_fd.store(fd);
  printf("CFM:CFMInterval = %d\n", kReportedIntervalUs);
  return fd;
}

}  // namespace

void cfm_set_rx_source(CfmRxSource source) { g_rx_source.store(source); }

void cfm_rx_follow_debug() {
  bool debug = isCfmDebugOn() != 0;
  for (int fd : {g_rx_fd.load(), _cfm_lan_sock_fd.load()}) {
    if (fd >= 0) packet_filter_attach(fd, debug);
  }
}

uint32_t cfm_classify_wan_frame(const uint8_t *frame, size_t length, CfmPacket *packet) {
  if (packet == nullptr) return CFM_ERR_FAILURE;
  if (frame == nullptr || length < kMacLen) {
    clear_payload(packet);
    return CFM_ERR_FAILURE;
  }
  // A unicast destination must be one of the PVC addresses.
  if (!mac_is_group(frame + wire::kDst) && !checkPvcMac(frame + wire::kDst)) {
    clear_payload(packet);
    return CFM_ERR_FAILURE;
  }
  packet->rx_port = 1;
  if (isCfmDebugOn()) {
    printf("\n@@ Debug: %s, line %d receive packet length = %d\n", "rx_wan_packet", 464, static_cast<int>(length));
  }
  bool double_tag = false;
  Verdict verdict = classify(frame, length, &double_tag);
  if (verdict == Verdict::Local) return make_untagged_copy(frame, length, double_tag, packet);
  if (verdict == Verdict::ForwardToLan) {
    printf("CFM: Forward the CFM packet to LAN because  VID/opcode not define");
    CFM_Send_Packet_To_LAN(frame, static_cast<uint32_t>(length), 0);
  }
  debug_text("CFM: CFM_ERR_FAILURE");
  clear_payload(packet);
  return CFM_ERR_FAILURE;
}

namespace {

// Hands a classified packet to the engine of its opcode while CFM is enabled
// (the caller holds MEP_SYC), then releases its buffer.
void dispatch_held(CfmPacket *packet) {
  size_t opcode_at = cfm_offsets().opcode;
  if (packet->buffer != nullptr && packet->length > opcode_at) {
    uint8_t opcode = packet->buffer[opcode_at];
    GlobalEntry global;
    CFM_IF_Get_Global_Entry(&global);
    if (isCfmDebugOn()) printf("CFM: Receive a packet from WAN, opcode=%d\n", opcode);
    if (global.status == 1) {
      switch (opcode) {
        case kOpCcm:
          CFM_CCM_Process(packet);
          break;
        case kOpLbr:
          CFM_LBR_Process(packet);
          break;
        case kOpLbm:
          CFM_LBM_Process(packet, 1);
          break;
        case kOpLtr:
          CFM_LTR_Process(packet);
          break;
        case kOpLtm:
          CFM_LTM_Process(packet, 1);
          break;
        default:
          if (cfm_pm_enabled()) cfm_pm_dispatch(packet, opcode);
          break;
      }
    }
  }
  if (packet->release != nullptr && packet->buffer != nullptr) packet->release(packet->buffer);
  packet->buffer = nullptr;
  packet->length = 0;
}

}  // namespace

void cfm_dispatch_packet(CfmPacket *packet) {
  if (packet == nullptr) return;
  MepSycLock lock;
  dispatch_held(packet);
}

uint32_t rx_wan_packet(CfmPacket *packet) {
  if (packet == nullptr) return CFM_ERR_FAILURE;
  bool read_nothing = false;
  return receive_wan(packet, &read_nothing);
}

void cfm_relay_lan_frame(const uint8_t *frame, size_t length) {
  if (frame == nullptr || !has(length, wire::kTpid, 2) ||
      !cfm_is_vlan_tpid(frame[wire::kTpid], frame[wire::kTpid + 1])) {
    return;
  }
  bool single = is_ether_type_at(frame, length, wire::kSingleTagEtherType);
  bool dbl = !single && is_ether_type_at(frame, length, wire::kDoubleTagEtherType);
  size_t ether_type = single ? wire::kSingleTagEtherType : wire::kDoubleTagEtherType;
  if ((!single && !dbl) || !cfm_holds_header(length, ether_type)) return;
  uint8_t level = cfm_level(frame[ether_type + 2]);
  bool debug = isCfmDebugOn();
  const char *kind = single ? "CFM" : "double vlan CFM";
  if (debug) printf("CFM: Receive a %s packet with mdlevel=%d from LAN\n", kind, level);
  if (level >= kLanForwardLevel) {
    if (debug) printf("CFM: Forward the %s packet because mdlevel=%d\n", kind, level);
    CFM_Send_Packet_To_WAN(frame, static_cast<uint32_t>(length), 0);
  } else if (debug) {
    printf("CFM: Drop the %s packet because mdlevel=%d\n", kind, level);
  }
}

namespace {

// Reads one frame from a raw socket into a fresh cleared buffer of the
// largest frame size, which the caller frees; *buf stays null when no buffer
// could be had. Returns the length read, or -1.
ssize_t read_raw_socket(int fd, uint8_t **buf) {
  *buf = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kMaxFrame));
  if (*buf == nullptr) return -1;
  memset(*buf, 0, kMaxFrame);
  return fd < 0 ? -1 : recvfrom(fd, *buf, kMaxFrame, 0, nullptr, nullptr);
}

// Reads one LAN frame and relays it by its level. *read_nothing tells an
// empty queue apart from a frame that was read.
void receive_lan(CfmPacket *packet, bool *read_nothing) {
  *read_nothing = false;
  auto *buf = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(kMaxFrame));
  if (buf == nullptr) {
    *read_nothing = true;
  } else {
    memset(buf, 0, kMaxFrame);
    // The LAN socket, like the WAN's, puts the outer tag back and skips the
    // daemon's own sends; untagged traffic is passed over before any trace.
    long got = _cfm_lan_sock_fd < 0 ? -1 : cfm_wan_socket_read(_cfm_lan_sock_fd, buf, kMaxFrame);
    if (got > 0 && !is_vlan_tagged(buf, static_cast<size_t>(got))) got = 0;
    *read_nothing = got < 0;
    if (got > 0) {
      if (isCfmDebugOn()) {
        printf("\n@@ Debug: %s, line %d receive packet length = %d\n", "rx_lan_packet", 683, static_cast<int>(got));
      }
      packet->rx_port = 1;
      cfm_relay_lan_frame(buf, static_cast<size_t>(got));
    }
  }
  clear_payload(packet);
  packet->release = CFM_OS_Deallocate_Memory;
  CFM_OS_Deallocate_Memory(buf);
}

// Takes at most `limit` queued LAN frames, in arrival order.
// The frames relayed to the WAN leave in batches.
size_t drain_lan(size_t limit) {
  size_t frames = 0;
  cfm_tx_batch_begin();
  while (frames < limit) {
    CfmPacket packet;
    memset(&packet, 0, sizeof packet);
    bool read_nothing = false;
    receive_lan(&packet, &read_nothing);
    if (read_nothing) break;
    ++frames;
  }
  cfm_tx_batch_end();
  return frames;
}

}  // namespace

uint32_t rx_lan_packet(CfmPacket *packet) {
  if (packet == nullptr) return CFM_ERR_FAILURE;
  bool read_nothing = false;
  receive_lan(packet, &read_nothing);
  return CFM_ERR_FAILURE;
}

uint32_t CFM_Receive_Packet(CfmPacket *packet) {
  if (packet == nullptr) return CFM_ERR_FAILURE;
  uint8_t *buf = nullptr;
  ssize_t got = read_raw_socket(_cfm_sock_fd, &buf);
  if (buf == nullptr) {
    clear_payload(packet);
    return CFM_ERR_FAILURE;
  }
  uint32_t result = CFM_ERR_FAILURE;
  clear_payload(packet);
  if (got > 0) {
    size_t length = static_cast<size_t>(got);
    bool tagged = has(length, wire::kTpid, 2) && cfm_is_vlan_tpid(buf[wire::kTpid], buf[wire::kTpid + 1]) &&
                  length >= wire::kSingleTagPayload;
    packet->rx_port = 1;
    size_t copy_length = tagged ? length - kTagLen : length;
    auto *copy = static_cast<uint8_t *>(CFM_OS_Allocate_Memory(copy_length > 0 ? copy_length : 1));
    if (copy != nullptr) {
      if (tagged) {
        packet->priority = tci_priority(buf + wire::kTci);
        packet->vid = tci_vid(buf + wire::kTci);
        memcpy(copy, buf, 2 * kMacLen);
        memcpy(copy + 2 * kMacLen, buf + wire::kSingleTagPayload, length - wire::kSingleTagPayload);
      } else {
        memcpy(copy, buf, length);
      }
      packet->buffer = copy;
      packet->length = static_cast<uint32_t>(copy_length);
      packet->release = CFM_OS_Deallocate_Memory;
      result = CFM_OK;
    }
  }
  CFM_OS_Deallocate_Memory(buf);
  return result;
}

namespace {

// A LAN named with -w that did not exist yet; set before the receive task
// starts and then read and cleared by that task alone.
char g_pending_lan[IFNAMSIZ];

// Opens the LAN socket on the interface index already known.
bool open_lan_socket(const char *lan_name) {
  const char *failed_step = nullptr;
  int fd = _ifc_lan_index > 0 ? cfm_wan_socket_open(_ifc_lan_index, &failed_step, true) : -1;
  if (fd < 0) {
    printf("CFM: LAN interface %s cannot be used, nothing is relayed\n", lan_name);
    _ifc_lan_index = 0;
    return false;
  }
  reserve_receive_queue(fd);
  _cfm_lan_sock_fd = fd;
  return true;
}

// On the receive task, at most once a second: opens the pending LAN once it
// exists.
void open_pending_lan() {
  static time_t last_look = 0;
  time_t now = time(nullptr);
  if (g_pending_lan[0] == '\0' || now == last_look) return;
  last_look = now;
  unsigned index = if_nametoindex(g_pending_lan);
  if (index == 0) return;
  if (isCfmDebugOn()) printf("CFM endof waiting %s\n", g_pending_lan);
  _ifc_lan_index = static_cast<int>(index);
  open_lan_socket(g_pending_lan);
  fflush(stdout);
  g_pending_lan[0] = '\0';
}

}  // namespace

void *cfm_rx_task(void *) {
  int fd = g_rx_fd.load();
  if (fd < 0) fd = open_rx_socket();
  if (fd < 0) return nullptr;
  for (;;) {
    open_pending_lan();
    const int fds[2] = {fd, _cfm_lan_sock_fd};
    // Sleep in the kernel until a frame is queued on either side (a quiet
    // second ends the wait without a read), then take a bounded batch from
    // each side in turn, so a flood on one side never starves the other. A
    // read also clears a pending socket error; when a wake-up found nothing
    // to read, pause briefly so an error that wakes every wait cannot make
    // this spin.
    if (!cfm_wan_socket_wait_any(fds, fds[1] < 0 ? 1 : 2, kWaitTimeoutMs)) continue;
    size_t frames = drain_wan(kBatchFrames);
    if (fds[1] >= 0) frames += drain_lan(kBatchFrames);
    if (frames == 0) usleep(kEmptyWakeupPauseUs);
  }
  return nullptr;
}

bool CFM_Open_Lan(const char *wan_name, const char *lan_name) {
  CFM_Get_Wan_Lan_Ifindex(wan_name, lan_name);
  return open_lan_socket(lan_name);
}

void CFM_Open_Lan_When_Present(const char *lan_name) {
  snprintf(g_pending_lan, sizeof g_pending_lan, "%s", lan_name);
}

uint32_t CFM_Create_Rx_Task() {
  // The socket is set up before the task starts, so its report is out
  // before the command server takes its first request. A socket that cannot
  // be had ends the receive side only, as a task that ends at once would.
  if (open_rx_socket() < 0) return CFM_OK;
  pthread_t thread;
  return CFM_OS_Create_Task(&thread, "CFM Process", cfm_rx_task, kTaskStackSize, kTaskPriority) == 1 ? CFM_OK
                                                                                                       : CFM_ERR_FAILURE;
}
