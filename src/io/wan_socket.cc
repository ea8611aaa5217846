#include "io/wan_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/global.h"
#include "io/frame.h"
#include "io/packet_filter.h"
#include "io/vlan_aux.h"

namespace {

constexpr int kMaxBatch = 16;

union AuxControl {
  struct cmsghdr align;
  // The receive time comes before the auxiliary data: room for both.
  char bytes[CMSG_SPACE(sizeof(struct tpacket_auxdata)) + CMSG_SPACE(sizeof(struct timespec))];
};

// The outer tag the kernel took off, from the packet's auxiliary data; false
// when the frame arrived untagged.
bool outer_tag(struct msghdr *msg, uint16_t *tpid, uint16_t *tci) {
  bool tagged = false;
  *tpid = cfm::kTpid8021Q;
  for (struct cmsghdr *c = CMSG_FIRSTHDR(msg); c != nullptr; c = CMSG_NXTHDR(msg, c)) {
    if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA ||
        c->cmsg_len < CMSG_LEN(sizeof(struct tpacket_auxdata))) {
      continue;
    }
    struct tpacket_auxdata aux;
    memcpy(&aux, CMSG_DATA(c), sizeof aux);
    if ((aux.tp_status & TP_STATUS_VLAN_VALID) != 0) {
      tagged = true;
      *tci = aux.tp_vlan_tci;
      if (aux.tp_vlan_tpid != 0) *tpid = aux.tp_vlan_tpid;
    }
  }
  return tagged;
}

// The kernel's receive time of the message; left alone when it has none.
void receive_time(struct msghdr *msg, struct timespec *out) {
  for (struct cmsghdr *c = CMSG_FIRSTHDR(msg); c != nullptr; c = CMSG_NXTHDR(msg, c)) {
    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS &&
        c->cmsg_len >= CMSG_LEN(sizeof(struct timespec))) {
      memcpy(out, CMSG_DATA(c), sizeof *out);
    }
  }
}

// Largest frame taken from the kernel in one read; longer ones are cut.
constexpr size_t kReadBuffer = 16384;

void join_cfm_groups(int fd, int ifindex) {
  for (uint8_t last = 0x30; last <= 0x3F; ++last) {
    struct packet_mreq req;
    memset(&req, 0, sizeof req);
    req.mr_ifindex = ifindex;
    req.mr_type = PACKET_MR_MULTICAST;
    req.mr_alen = cfm::kMacLen;
    memcpy(req.mr_address, cfm::kCcmGroupBase, cfm::kMacLen);
    req.mr_address[cfm::kMacLen - 1] = last;
    // Best effort: interfaces that cannot filter deliver the groups anyway.
    setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &req, sizeof req);
  }
}

// Throws away whatever a socket holds: frames queued before its filter was
// in place are not to be read.
void drain(int fd) {
  uint8_t scrap[64];
  while (recv(fd, scrap, sizeof scrap, MSG_DONTWAIT | MSG_TRUNC) >= 0) {
  }
}

}  // namespace

int cfm_wan_socket_open(int ifindex, const char **failed_step, bool filtered) {
  const char *ignored = nullptr;
  const char **step = failed_step != nullptr ? failed_step : &ignored;
  // No protocol yet: nothing queues until the filter is in place and the
  // bind below names the protocol and the interface.
  int fd = socket(AF_PACKET, SOCK_RAW, 0);
  if (fd < 0) {
    *step = "open";
    return -1;
  }
  int on = 1;
  int flags = fcntl(fd, F_GETFL, 0);
  bool configured = flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 &&
                    setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) == 0;
  // Receive times for the delay measurement; without them the stamp is taken
  // when the frame is handled.
  if (configured) setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
  if (!configured) {
    *step = "open";
    close(fd);
    return -1;
  }
  // A kernel that cannot run the filter leaves the socket taking everything:
  // the classifier still passes over what is not CFM.
  if (filtered) {
    cfm::packet_filter_attach(fd, isCfmDebugOn() != 0);
    drain(fd);
  }
  struct sockaddr_ll addr;
  memset(&addr, 0, sizeof addr);
  addr.sll_family = AF_PACKET;
  addr.sll_protocol = htons(ETH_P_ALL);
  addr.sll_ifindex = ifindex;
  if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) < 0) {
    *step = "bind";
    close(fd);
    return -1;
  }
  join_cfm_groups(fd, ifindex);
#ifdef PACKET_IGNORE_OUTGOING
  // Frames this daemon sends are not queued back to it at all where the
  // kernel can say so; the PACKET_OUTGOING skip stays for older kernels.
  setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
#endif
  return fd;
}

long cfm_wan_socket_read(int fd, uint8_t *buf, size_t cap) {
  if (buf == nullptr) return -1;
  static thread_local uint8_t frame[kReadBuffer];
  struct sockaddr_ll from;
  memset(&from, 0, sizeof from);
  struct iovec iov = {frame, sizeof frame};
  AuxControl control;
  struct msghdr msg;
  memset(&msg, 0, sizeof msg);
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control.bytes;
  msg.msg_controllen = sizeof control.bytes;

  ssize_t got = recvmsg(fd, &msg, MSG_TRUNC);
  if (got < 0) return -1;
  if (from.sll_pkttype == PACKET_OUTGOING) return 0;
  size_t length = static_cast<size_t>(got) < sizeof frame ? static_cast<size_t>(got) : sizeof frame;

  // The kernel takes the outer tag off before delivery and reports it in
  // the auxiliary data: put it back so the frame is as it was on the wire.
  uint16_t tci = 0;
  uint16_t tpid = cfm::kTpid8021Q;
  bool tagged = outer_tag(&msg, &tpid, &tci);

  return static_cast<long>(cfm_vlan_reinsert(frame, length, tagged, tpid, tci, buf, cap));
}

int cfm_wan_socket_read_batch(int fd, uint8_t *const *bufs, size_t cap, long *lengths, int max,
                              struct timespec *stamps) {
  if (bufs == nullptr || lengths == nullptr || cap <= cfm::kTagLen || max < 1) return 0;
  int n = max < kMaxBatch ? max : kMaxBatch;
  struct mmsghdr msgs[kMaxBatch];
  struct iovec iov[kMaxBatch];
  struct sockaddr_ll from[kMaxBatch];
  AuxControl control[kMaxBatch];
  memset(msgs, 0, sizeof msgs);
  for (int i = 0; i < n; ++i) {
    // Room for the tag in front: the frame is read 4 bytes in, and the
    // addresses move forward over that room when the tag goes back in.
    iov[i] = {bufs[i] + cfm::kTagLen, cap - cfm::kTagLen};
    msgs[i].msg_hdr.msg_name = &from[i];
    msgs[i].msg_hdr.msg_namelen = sizeof from[i];
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
    msgs[i].msg_hdr.msg_control = control[i].bytes;
    msgs[i].msg_hdr.msg_controllen = sizeof control[i].bytes;
  }
  int got = recvmmsg(fd, msgs, static_cast<unsigned>(n), MSG_DONTWAIT, nullptr);
  if (got <= 0) return 0;
  for (int i = 0; i < got; ++i) {
    uint8_t *buf = bufs[i];
    size_t length = msgs[i].msg_len;
    uint16_t tpid = 0, tci = 0;
    if (stamps != nullptr) {
      stamps[i] = {0, 0};
      receive_time(&msgs[i].msg_hdr, &stamps[i]);
    }
    if (from[i].sll_pkttype == PACKET_OUTGOING) {
      lengths[i] = 0;
    } else {
      bool tagged = outer_tag(&msgs[i].msg_hdr, &tpid, &tci);
      size_t rebuilt = cfm_vlan_reinsert(buf + cfm::kTagLen, length, tagged, tpid, tci, buf, cap - cfm::kTagLen);
      lengths[i] = static_cast<long>(rebuilt);
    }
  }
  return got;
}

bool cfm_wan_socket_wait(int fd, int timeout_ms) { return cfm_wan_socket_wait_any(&fd, 1, timeout_ms); }

bool cfm_wan_socket_wait_any(const int *fds, int count, int timeout_ms) {
  struct pollfd p[2];
  if (count < 1 || count > 2) return false;
  for (int i = 0; i < count; ++i) p[i] = {fds[i], POLLIN, 0};
  for (;;) {
    int r = poll(p, static_cast<nfds_t>(count), timeout_ms);
    if (r > 0) return true;
    if (r == 0) return false;
    if (errno != EINTR) return false;
  }
}
