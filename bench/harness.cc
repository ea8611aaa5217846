// The shared part of cfmd_bench (see harness.h).
#include "harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "io/wan_socket.h"

namespace bench {

// ------------------------------------------------------------ small helpers

int64_t mono_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

[[noreturn]] void die(const std::string &what) {
  fprintf(stderr, "cfmd_bench: %s\n", what.c_str());
  exit(2);
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool write_file(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  return out && (out << text);
}

void make_dirs(const std::string &path) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    mkdir(path.substr(0, pos).c_str(), 0755);
  }
}

int shell(const std::string &command) {
  int status = system(command.c_str());
  return (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
}

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  size_t i = size_t(p * double(v.size() - 1) + 0.5);
  return v[std::min(i, v.size() - 1)];
}

// Process CPU time (all threads, also ended ones) of another process, in ns.
int64_t cpu_ns(pid_t pid) {
  clockid_t clock;
  struct timespec ts;
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &ts) != 0) return -1;
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// "Key:   1234 kB" from a /proc file, in KiB; -1 when missing.
long proc_kib(const std::string &text, const std::string &key) {
  size_t at = text.find("\n" + key + ":");
  if (at == std::string::npos) at = text.rfind(key + ":", 0) == 0 ? 0 : std::string::npos;
  if (at == std::string::npos) return -1;
  return strtol(text.c_str() + text.find(':', at) + 1, nullptr, 10);
}

// ------------------------------------------------------------ frames

// Where the CFM header starts behind up to two tags; 0 when not CFM.
size_t cfm_offset(const uint8_t *f, size_t n) {
  size_t pos = 12;
  for (int tags = 0; tags < 2 && n >= pos + 2 && f[pos] == 0x81 && f[pos + 1] == 0x00; ++tags) pos += 4;
  return (n >= pos + 2 + 4 && f[pos] == 0x89 && f[pos + 1] == 0x02) ? pos + 2 : 0;
}

uint32_t be32(const uint8_t *p) { return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3]; }
void put_be32(uint8_t *p, uint32_t v) {
  p[0] = uint8_t(v >> 24), p[1] = uint8_t(v >> 16), p[2] = uint8_t(v >> 8), p[3] = uint8_t(v);
}

Frame header(const Mac &dst, const Mac &src, uint8_t priority, uint16_t vid) {
  Frame f(dst.begin(), dst.end());
  f.insert(f.end(), src.begin(), src.end());
  f.insert(f.end(), {0x81, 0x00, uint8_t((priority << 5) | (vid >> 8)), uint8_t(vid), 0x89, 0x02});
  return f;
}

// LBM at level 2 on VID 100 from the peer to the daemon: transaction id,
// Sender ID TLV, Data TLV, End TLV; padded to 64 bytes.
Frame lbm(uint32_t id) {
  Frame f = header(kWanMac, kPeerMac, 5, 100);
  f.insert(f.end(), {2 << 5, 3, 0, 4, 0, 0, 0, 0, 1, 0, 1, 0, 3, 0, 4, 'p', 'i', 'n', 'g', 0});
  put_be32(&f[22], id);
  f.resize(64, 0);
  return f;
}
// The id of an LBM or LBR (as read, with or without its tag); false otherwise.
bool lb_id(const uint8_t *f, size_t n, uint8_t opcode, uint32_t *id) {
  size_t p = cfm_offset(f, n);
  if (p == 0 || n < p + 8 || f[p + 1] != opcode) return false;
  *id = be32(f + p + 4);
  return true;
}

// A CCM from remote MEP `mep_id` at `level` for MD `md` / MA `ma` (names as
// the daemon writes them in its MAID: format 4 and 2, character strings),
// behind a tag with VID `vid`.
Frame ccm(uint16_t mep_id, uint32_t sequence, uint8_t interval, uint8_t level, const std::string &md,
          const std::string &ma, uint16_t vid) {
  Mac dst = {0x01, 0x80, 0xC2, 0x00, 0x00, uint8_t(0x30 + level)};
  Frame f = header(dst, kPeerMac, 7, vid);
  f.insert(f.end(), {uint8_t(level << 5), 1, interval, 70, 0, 0, 0, 0, uint8_t(mep_id >> 8), uint8_t(mep_id)});
  put_be32(&f[22], sequence);
  f.insert(f.end(), {4, uint8_t(md.size())});
  f.insert(f.end(), md.begin(), md.end());
  f.insert(f.end(), {2, uint8_t(ma.size())});
  f.insert(f.end(), ma.begin(), ma.end());
  f.resize(18 + 74, 0);  // MAID and the ITU area
  f.insert(f.end(), {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0});
  return f;
}

// ------------------------------------------------------------ raw sockets

// Classic BPF: accept CFM frames with this opcode, whether the kernel left
// the outer tag in the data or took it off.
static std::vector<sock_filter> opcode_filter(uint8_t opcode) {
  return {
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),             // 0: EtherType
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x8902, 5, 0),  // 1: untagged CFM -> 7
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x8100, 0, 8),  // 2: not a tag -> drop
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 16),             // 3: EtherType behind the tag
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x8902, 0, 6),  // 4: not CFM -> drop
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 19),             // 5: opcode behind the tag
      BPF_JUMP(BPF_JMP | BPF_JA, 1, 0, 0),                // 6: -> 8
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 15),             // 7: opcode, untagged
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, opcode, 0, 1),  // 8
      BPF_STMT(BPF_RET | BPF_K, 0xFFFF),                  // 9: keep
      BPF_STMT(BPF_RET | BPF_K, 0),                       // 10: drop
      BPF_STMT(BPF_RET | BPF_K, 0),                       // 11: drop
  };
}

RawSocket::~RawSocket() {
  if (fd_ >= 0) close(fd_);
}

// protocol 0: a socket that only sends. `opcode`: keep only CFM frames
// with it. Outgoing frames are ignored where the kernel can.
void RawSocket::Open(const char *ifname, bool receive, int opcode, bool auxdata) {
  uint16_t proto = receive ? htons(ETH_P_ALL) : 0;
  fd_ = socket(AF_PACKET, SOCK_RAW, proto);
  if (fd_ < 0) die(std::string("packet socket: ") + strerror(errno));
  int on = 1, bytes = 64 << 20;
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
  setsockopt(fd_, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes);
  if (auxdata) setsockopt(fd_, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on);
  if (receive && !auxdata) setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
  if (opcode >= 0) {
    filter_ = opcode_filter(uint8_t(opcode));
    struct sock_fprog prog = {uint16_t(filter_.size()), filter_.data()};
    if (setsockopt(fd_, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) != 0) {
      die(std::string("socket filter: ") + strerror(errno));
    }
  }
  struct sockaddr_ll addr = {};
  addr.sll_family = AF_PACKET;
  addr.sll_protocol = proto;
  addr.sll_ifindex = int(if_nametoindex(ifname));
  if (addr.sll_ifindex == 0 || bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
    die(std::string("bind to ") + ifname + ": " + strerror(errno));
  }
  if (receive) Drain();
}

bool RawSocket::Send(const Frame &f) { return send(fd_, f.data(), f.size(), 0) == ssize_t(f.size()); }

// Sends the frames in one call (as many as the kernel takes); the count sent.
int RawSocket::SendBatch(const std::vector<const Frame *> &frames) {
  std::vector<mmsghdr> msgs(frames.size());
  std::vector<iovec> iovs(frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    iovs[i] = {const_cast<uint8_t *>(frames[i]->data()), frames[i]->size()};
    msgs[i] = {};
    msgs[i].msg_hdr.msg_iov = &iovs[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  int sent = sendmmsg(fd_, msgs.data(), unsigned(msgs.size()), 0);
  return sent < 0 ? 0 : sent;
}

bool RawSocket::Wait(int timeout_ms) {
  struct pollfd p = {fd_, POLLIN, 0};
  return poll(&p, 1, timeout_ms) > 0;
}

// One frame as the kernel hands it (no tag re-insertion); -1 when none.
// `*stamp_ns`, when asked, is the kernel's receive time (CLOCK_REALTIME).
long RawSocket::Read(uint8_t *buf, size_t cap, int64_t *stamp_ns) {
  struct iovec iov = {buf, cap};
  char control[256];
  struct msghdr msg = {};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  ssize_t got = recvmsg(fd_, &msg, MSG_DONTWAIT);
  if (got < 0) return -1;
  if (stamp_ns != nullptr) {
    *stamp_ns = 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
        struct timespec ts;
        memcpy(&ts, CMSG_DATA(c), sizeof ts);
        *stamp_ns = int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
      }
    }
  }
  return long(std::min<size_t>(size_t(got), cap));
}

void RawSocket::Drain() {
  uint8_t buf[2048];
  while (Read(buf, sizeof buf) >= 0) {
  }
}

void RawSocket::EnableTimestamps() {
  int on = 1;
  setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
}

// ------------------------------------------------------------ the reflector

// The physical limit for LBM -> LBR on this link: a process with the
// daemon's own kind of socket (io/wan_socket: every protocol, auxiliary
// data, the outer tag put back) that reads one frame at a time and sends
// every LBM back with the addresses swapped and the opcode made 2. Never
// returns.
[[noreturn]] void reflect(const char *ifname) {
  int fd = cfm_wan_socket_open(int(if_nametoindex(ifname)), nullptr);
  if (fd < 0) _exit(1);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);  // one blocking read per frame
  uint8_t out[2052];
  for (;;) {
    long got = cfm_wan_socket_read(fd, out, sizeof out);
    if (got < 14) continue;
    size_t len = size_t(got);
    size_t p = cfm_offset(out, len);
    if (p == 0 || out[p + 1] != 3) continue;
    uint8_t mac[6];
    memcpy(mac, out, 6);
    memcpy(out, out + 6, 6);
    memcpy(out + 6, mac, 6);
    out[p + 1] = 2;
    send(fd, out, len, 0);
  }
}

// ------------------------------------------------------------ the daemon

// Starts it with the arguments and waits until its command socket serves.
void Daemon::Start(const std::vector<std::string> &args) {
  Stop();
  out_path_ = "/var/bench/cfmd." + std::to_string(++run_) + ".out";
  int out = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  std::vector<std::string> words = {binary_};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(out, 1);
    dup2(out, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out);
  for (int i = 0; i < 500; ++i, sleep_ms(10)) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) die(binary_ + " ended at start:\n" + read_file(out_path_));
    if (Listening() && read_file(out_path_).find("CFM:CFMInterval = ") != std::string::npos) return;
  }
  die(binary_ + " did not get ready");
}

void Daemon::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  for (int i = 0; i < 300 && waitpid(pid_, nullptr, WNOHANG) == 0; ++i) sleep_ms(10);
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

// Sends one request, waits until the daemon closes the connection; what
// it printed meanwhile. `*ms` (when asked) is how long that took; -1 when
// it was not served within timeout_ms.
std::string Daemon::Command(const std::string &request, double *ms, int timeout_ms) {
  size_t from = OutputSize();
  int64_t t0 = mono_ns();
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "/var/cfm_socket");
  bool closed = false;
  if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    char sink[64];
    struct pollfd p = {fd, POLLIN, 0};
    while (!closed && poll(&p, 1, timeout_ms) > 0) closed = recv(fd, sink, sizeof sink, 0) <= 0;
  }
  if (ms != nullptr) *ms = closed ? double(mono_ns() - t0) / 1e6 : -1;
  close(fd);
  // Only what was added: the output may be large after a flood.
  std::ifstream in(out_path_, std::ios::binary);
  in.seekg(std::streamoff(from));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void Daemon::Commands(const std::vector<std::string> &requests) {
  for (const auto &r : requests) Command(r);
}

size_t Daemon::OutputSize() const {
  struct stat st;
  return stat(out_path_.c_str(), &st) == 0 ? size_t(st.st_size) : 0;
}

bool Daemon::Listening() {
  std::istringstream unix_sockets(read_file("/proc/net/unix"));
  std::string line, num, refcnt, protocol, flags, type, state, inode, path;
  while (std::getline(unix_sockets, line)) {
    std::istringstream f(line);
    if (f >> num >> refcnt >> protocol >> flags >> type >> state >> inode >> path && path == "/var/cfm_socket" &&
        flags == "00010000") {
      return true;
    }
  }
  return false;
}

// ------------------------------------------------------------ the lab

void enter_lab() {
  if (geteuid() != 0) die("needs root (it builds private network namespaces)");
  if (unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWIPC) != 0) die(std::string("unshare: ") + strerror(errno));
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) die("cannot make mounts private");
  mount("sysfs", "/sys", "sysfs", 0, nullptr);  // this namespace's interfaces
  if (mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0) die(std::string("tmpfs over /var: ") + strerror(errno));
  make_dirs("/var/tmp/cfm");
  make_dirs("/var/bench");
  write_file("/var/tmp/cfm/config", "Enable=1\n");
  auto mac = [](const Mac &m) {
    char t[18];
    snprintf(t, sizeof t, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return std::string(t);
  };
  if (shell("ip link set lo up && ip link add wan0 address " + mac(kWanMac) + " type veth peer name peer0 address " +
            mac(kPeerMac)) != 0) {
    die("cannot create the veth pair (is iproute2 installed?)");
  }
  write_file("/proc/sys/net/ipv6/conf/wan0/disable_ipv6", "1\n");
  write_file("/proc/sys/net/ipv6/conf/peer0/disable_ipv6", "1\n");
  if (shell("ip link set wan0 up && ip link set peer0 up") != 0) die("cannot bring the pair up");
  for (int i = 0; i < 300; ++i, sleep_ms(10)) {
    if (read_file("/sys/class/net/wan0/operstate") == "up\n" && read_file("/sys/class/net/peer0/operstate") == "up\n") {
      return;
    }
  }
}

void set_tick(const std::string &tick) {
  make_dirs("/var/tree/cfm");
  write_file("/var/tree/cfm/ccm_interval", tick + "\n");
}

// ------------------------------------------------------------ measurements

// The number a `runtime` selector prints for the one MEP.
long runtime_value(Daemon &d, int selector) {
  return strtol(d.Command("runtime " + std::to_string(selector)).c_str(), nullptr, 10);
}

int count_of(const std::string &text, const std::string &what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// The 64 remote MEPs' CCMs (the same sequence number each time).
std::vector<Frame> remote_ccms(uint8_t interval, uint8_t level, const std::string &md, const std::string &ma) {
  std::vector<Frame> frames;
  for (int i = 0; i < kRemoteMeps; ++i) frames.push_back(ccm(uint16_t(kFirstRemoteMepId + i), 7, interval, level, md, ma, 0));
  return frames;
}

// Sends one CCM from each remote MEP until the daemon lists them all.
bool learn_remotes(Daemon &d, RawSocket &tx, const std::vector<Frame> &frames) {
  for (int round = 0; round < 10; ++round) {
    for (const Frame &f : frames) tx.Send(f);
    sleep_ms(200);
    if (count_of(d.Command("showremotemep"), "RemoteMepID :") >= kRemoteMeps) return true;
  }
  return false;
}

// Sends the frames round robin at `rate` per second for `seconds`, paced in
// 1 ms slots; the number sent.
long paced_send(RawSocket &tx, const std::vector<Frame> &frames, double rate, double seconds) {
  long sent = 0;
  size_t next = 0;
  int64_t t0 = mono_ns(), end = t0 + int64_t(seconds * 1e9);
  for (int64_t now = t0; now < end; now = mono_ns()) {
    long due = long(rate * double(now - t0) / 1e9) + 1;
    std::vector<const Frame *> batch;
    for (long i = sent; i < due && batch.size() < 1024; ++i) {
      batch.push_back(&frames[next]);
      next = (next + 1) % frames.size();
    }
    if (!batch.empty()) {
      int n = tx.SendBatch(batch);
      sent += n;
      if (size_t(n) < batch.size()) next = (next + frames.size() - (batch.size() - size_t(n))) % frames.size();
    }
    if (sent >= due) {
      struct timespec ts = {0, 500000};
      nanosleep(&ts, nullptr);
    }
  }
  return sent;
}

Memory memory_of(pid_t pid) {
  std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
  std::string rollup = read_file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  Memory m;
  m.rss = proc_kib(status, "VmRSS");
  m.pss = proc_kib(rollup, "Pss");
  long clean = proc_kib(rollup, "Private_Clean"), dirty = proc_kib(rollup, "Private_Dirty");
  if (clean >= 0 && dirty >= 0) m.priv = clean + dirty;
  return m;
}

int64_t real_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::string fmt(const char *format, double v) {
  char t[64];
  snprintf(t, sizeof t, format, v);
  return t;
}

void Table::Add(Section section, const std::string &what, const std::string &value, const std::string &note) {
  rows_.push_back({section, what, value, note});
}

void Table::Print() const {
  printf("\n| %-48s | %-22s | %s |\n", "measure", "value", "note");
  printf("|%s|%s|%s|\n", std::string(50, '-').c_str(), std::string(24, '-').c_str(), "------");
  std::vector<Row> sorted = rows_;
  std::stable_sort(sorted.begin(), sorted.end(), [](const Row &a, const Row &b) { return a.section < b.section; });
  for (const Row &r : sorted) printf("| %-48s | %-22s | %s |\n", r.what.c_str(), r.value.c_str(), r.note.c_str());
}

}  // namespace bench

