#include "lab.h"

#include <dirent.h>
#include <fcntl.h>
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
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "io/wan_socket.h"

#ifndef CFMD_BINARY
#define CFMD_BINARY "cfmd"
#endif
#ifndef CFMCTL_BINARY
#define CFMCTL_BINARY "cfmctl"
#endif

namespace cfmlab {

namespace {

using Clock = std::chrono::steady_clock;

// Longest wait for the receive task's start line once the server listens.
constexpr int kRxStartWaitMs = 2000;

Clock::time_point deadline_after(int timeout_ms) { return Clock::now() + std::chrono::milliseconds(timeout_ms); }

int ms_left(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

void nap_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

bool write_text(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return false;
  out << text;
  return static_cast<bool>(out);
}

void make_dirs(const std::string &path) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    mkdir(path.substr(0, pos).c_str(), 0755);
  }
}

std::string mac_text(const Mac &mac) {
  char text[18];
  snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  return text;
}

std::string enter_namespaces() {
  if (geteuid() != 0) return "the integration lab needs root (it builds private network namespaces)";
  if (unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWIPC) != 0) {
    return std::string("cannot enter private namespaces (unshare: ") + strerror(errno) + ")";
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return std::string("cannot make mounts private: ") + strerror(errno);
  }
  // sysfs as seen from the new network namespace (for tools that read it).
  if (mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
    fprintf(stderr, "lab: mounting sysfs failed: %s (going on)\n", strerror(errno));
  }
  if (system("ip link set lo up") != 0) return "cannot run 'ip link' (is iproute2 installed?)";
  return "";
}

class LabEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { EnterLabNamespaces(); }
};

// Registered before main runs, so the namespaces are entered before any test
// (and any thread a test might start).
[[maybe_unused]] const bool g_environment_registered = [] {
  ::testing::AddGlobalTestEnvironment(new LabEnvironment);
  return true;
}();

bool var_mounted = false;

// Sockets of the process that are packet sockets for every protocol.
bool has_all_protocol_packet_socket(pid_t pid) {
  std::set<std::string> inodes;
  std::ifstream packets("/proc/net/packet");
  std::string line;
  std::getline(packets, line);  // header
  while (std::getline(packets, line)) {
    std::istringstream fields(line);
    std::string sk, refcnt, type, proto, iface, running, rmem, user, inode;
    if (fields >> sk >> refcnt >> type >> proto >> iface >> running >> rmem >> user >> inode) {
      if (proto == "0003") inodes.insert(inode);
    }
  }
  std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  DIR *fds = opendir(dir.c_str());
  if (fds == nullptr) return false;
  bool found = false;
  while (struct dirent *entry = readdir(fds)) {
    char target[128] = {0};
    std::string link = dir + "/" + entry->d_name;
    ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    if (n <= 0) continue;
    std::string text(target, static_cast<size_t>(n));
    if (text.rfind("socket:[", 0) == 0) {
      std::string inode = text.substr(8, text.size() - 9);
      if (inodes.count(inode) != 0) found = true;
    }
  }
  closedir(fds);
  return found;
}

bool command_socket_listening() {
  std::ifstream unix_sockets("/proc/net/unix");
  std::string line;
  while (std::getline(unix_sockets, line)) {
    std::istringstream fields(line);
    std::string num, refcnt, protocol, flags, type, state, inode, path;
    if (fields >> num >> refcnt >> protocol >> flags >> type >> state >> inode >> path) {
      if (path == "/var/cfm_socket" && flags == "00010000") return true;
    }
  }
  return false;
}

}  // namespace

const std::string &EnterLabNamespaces() {
  static const std::string reason = enter_namespaces();
  return reason;
}

bool IsCfmFrame(const Frame &frame) {
  size_t pos = 12;
  for (int tags = 0; tags < 2 && frame.size() >= pos + 2 && frame[pos] == 0x81 && frame[pos + 1] == 0x00; ++tags) {
    pos += 4;
  }
  if (frame.size() < pos + 2) return false;
  if (frame[pos] == 0x89 && frame[pos + 1] == 0x02) return true;
  // 802.3 length (at most 1500), LLC/SNAP, then the protocol.
  bool length_field = ((frame[pos] << 8) | frame[pos + 1]) <= 1500;
  return length_field && frame.size() >= pos + 10 && frame[pos + 8] == 0x89 && frame[pos + 9] == 0x02;
}

std::string Hex(const Frame &frame) {
  std::string text;
  char byte[4];
  for (size_t i = 0; i < frame.size(); ++i) {
    snprintf(byte, sizeof byte, "%02X", frame[i]);
    if (i != 0) text += (i % 16 == 0) ? "\n" : " ";
    text += byte;
  }
  return text;
}

// ---------------------------------------------------------------- Peer

Peer::~Peer() { Close(); }

bool Peer::Open(const std::string &ifname) {
  Close();
  int index = static_cast<int>(if_nametoindex(ifname.c_str()));
  if (index == 0) return false;
  fd_ = cfm_wan_socket_open(index, nullptr);
  return fd_ >= 0;
}

void Peer::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool Peer::Send(const Frame &frame) {
  if (fd_ < 0) return false;
  return send(fd_, frame.data(), frame.size(), 0) == static_cast<ssize_t>(frame.size());
}

std::optional<Frame> Peer::Receive(int timeout_ms, const std::function<bool(const Frame &)> &filter) {
  if (fd_ < 0) return std::nullopt;
  auto deadline = deadline_after(timeout_ms);
  uint8_t buf[16384];
  for (;;) {
    long got = cfm_wan_socket_read(fd_, buf, sizeof buf);
    if (got > 0) {
      Frame frame(buf, buf + got);
      if (!filter || filter(frame)) return frame;
      continue;
    }
    if (got == 0) continue;  // our own frame
    int left = ms_left(deadline);
    if (left == 0) return std::nullopt;
    cfm_wan_socket_wait(fd_, left);
  }
}

std::vector<Frame> Peer::ReceiveAll(int timeout_ms, const std::function<bool(const Frame &)> &filter) {
  std::vector<Frame> frames;
  auto deadline = deadline_after(timeout_ms);
  for (;;) {
    auto frame = Receive(ms_left(deadline), filter);
    if (!frame) return frames;
    frames.push_back(std::move(*frame));
  }
}

void Peer::Drain() {
  if (fd_ < 0) return;
  uint8_t buf[16384];
  while (cfm_wan_socket_read(fd_, buf, sizeof buf) >= 0) {
  }
}

// ---------------------------------------------------------------- Lab

void Lab::SetUp() {
  const std::string &reason = EnterLabNamespaces();
  if (!reason.empty()) GTEST_SKIP() << reason;
  PrepareVar();
  PrepareLinks();
  ASSERT_TRUE(peer_.Open(kPeerIf)) << "cannot open a packet socket on " << kPeerIf;
}

void Lab::TearDown() {
  if (pid_ > 0) Stop(2000);
  peer_.Close();
}

void Lab::PrepareVar() {
  if (var_mounted) umount2("/var", MNT_DETACH);
  ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, "mode=0755"), 0) << "tmpfs over /var: " << strerror(errno);
  var_mounted = true;
  make_dirs("/var/tmp/cfm");
  make_dirs("/var/lab");
  WriteFile(kConfig, "Enable=1\n");
}

void Lab::PrepareLinks() {
  Shell("ip link del wan0 >/dev/null 2>&1");
  std::string add = "ip link add wan0 address " + mac_text(kWanMac) + " type veth peer name peer0 address " +
                    mac_text(kPeerMac);
  ASSERT_EQ(Shell(add), 0) << add;
  // No IPv6 on the pair: fewer stray frames on the wire.
  write_text("/proc/sys/net/ipv6/conf/wan0/disable_ipv6", "1\n");
  write_text("/proc/sys/net/ipv6/conf/peer0/disable_ipv6", "1\n");
  ASSERT_EQ(Shell("ip link set wan0 up && ip link set peer0 up"), 0);
}

void Lab::WriteFile(const std::string &path, const std::string &text) {
  size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) make_dirs(path.substr(0, slash));
  ASSERT_TRUE(write_text(path, text)) << "cannot write " << path;
}

void Lab::RemoveFile(const std::string &path) { unlink(path.c_str()); }

std::string Lab::ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

int Lab::Shell(const std::string &command) {
  int status = system(command.c_str());
  return (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
}

int Lab::IfIndex(const std::string &ifname) { return static_cast<int>(if_nametoindex(ifname.c_str())); }

int Lab::SemaphoreSetCount() {
  std::ifstream sems("/proc/sysvipc/sem");
  std::string line;
  int count = -1;  // the header line
  while (std::getline(sems, line)) {
    if (!line.empty()) ++count;
  }
  return count < 0 ? 0 : count;
}

bool Lab::SpawnDaemon(const std::vector<std::string> &args) {
  ++run_;
  out_path_ = "/var/lab/cfmd." + std::to_string(run_) + ".out";
  err_path_ = "/var/lab/cfmd." + std::to_string(run_) + ".err";
  int out = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  int err = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0 || err < 0) {
    if (out >= 0) close(out);
    if (err >= 0) close(err);
    return false;
  }
  std::vector<std::string> argv_text = {CFMD_BINARY};
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (auto &a : argv_text) argv.push_back(a.data());
  argv.push_back(nullptr);

  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    dup2(out, 1);
    dup2(err, 2);
    for (int fd = 3; fd < 1024; ++fd) close(fd);
    signal(SIGPIPE, SIG_DFL);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out);
  close(err);
  if (pid < 0) return false;
  pid_ = pid;
  exit_ = ExitInfo{};
  last_args_ = args;
  return true;
}

bool Lab::StartDaemon(const std::vector<std::string> &args, int timeout_ms) {
  if (pid_ > 0) Stop();
  if (!SpawnDaemon(args)) return false;
  auto deadline = deadline_after(timeout_ms);
  for (;;) {
    if (Output().find("CFM debug message") != std::string::npos) return true;
    if (!Running()) return true;  // ended by itself; the test looks at how
    if (ms_left(deadline) == 0) return false;
    nap_ms(5);
  }
}

bool Lab::StartDaemonReady(const std::vector<std::string> &args, int timeout_ms) {
  if (!StartDaemon(args, timeout_ms)) {
    ADD_FAILURE() << "cfmd did not start; stdout:\n" << Output() << "\nstderr:\n" << Errors();
    return false;
  }
  if (!WaitCommandSocket(timeout_ms)) {
    ADD_FAILURE() << "cfmd has no command socket; stdout:\n" << Output() << "\nstderr:\n" << Errors();
    return false;
  }
  if (!WaitRxSocket(timeout_ms)) {
    ADD_FAILURE() << "cfmd has no receive socket; stdout:\n" << Output() << "\nstderr:\n" << Errors();
    return false;
  }
  return true;
}

ExitInfo Lab::Reap(int timeout_ms) {
  ExitInfo info;
  auto deadline = deadline_after(timeout_ms);
  for (;;) {
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      info.exited = WIFEXITED(status);
      info.code = info.exited ? WEXITSTATUS(status) : -1;
      info.signaled = WIFSIGNALED(status);
      info.signal = info.signaled ? WTERMSIG(status) : 0;
      pid_ = -1;
      exit_ = info;
      return info;
    }
    if (r < 0) {
      pid_ = -1;
      exit_ = info;
      return info;
    }
    if (ms_left(deadline) == 0) {
      info.timed_out = true;
      return info;
    }
    nap_ms(5);
  }
}

ExitInfo Lab::Stop(int timeout_ms) {
  if (pid_ <= 0) return exit_;
  kill(pid_, SIGTERM);
  ExitInfo info = Reap(timeout_ms);
  if (info.timed_out) {
    kill(pid_, SIGKILL);
    ExitInfo killed = Reap(5000);
    killed.timed_out = true;
    exit_ = killed;
    return killed;
  }
  return info;
}

ExitInfo Lab::WaitExit(int timeout_ms) {
  if (pid_ <= 0) return exit_;
  return Reap(timeout_ms);
}

bool Lab::Restart(const std::vector<std::string> &args) {
  std::vector<std::string> next = args.empty() ? last_args_ : args;
  Stop();
  return StartDaemon(next);
}

bool Lab::Running() {
  if (pid_ <= 0) return false;
  int status = 0;
  pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == 0) return true;
  if (r == pid_) {
    exit_.exited = WIFEXITED(status);
    exit_.code = exit_.exited ? WEXITSTATUS(status) : -1;
    exit_.signaled = WIFSIGNALED(status);
    exit_.signal = exit_.signaled ? WTERMSIG(status) : 0;
    exit_.timed_out = false;
  }
  pid_ = -1;
  return false;
}

std::string Lab::Output() const { return out_path_.empty() ? "" : ReadFile(out_path_); }

std::string Lab::Errors() const { return err_path_.empty() ? "" : ReadFile(err_path_); }

size_t Lab::OutputSize() const {
  struct stat st;
  if (out_path_.empty() || stat(out_path_.c_str(), &st) != 0) return 0;
  return static_cast<size_t>(st.st_size);
}

bool Lab::WaitForOutput(const std::string &text, int timeout_ms, size_t from) {
  auto deadline = deadline_after(timeout_ms);
  for (;;) {
    std::string out = Output();
    if (out.size() > from && out.find(text, from) != std::string::npos) return true;
    if (ms_left(deadline) == 0) return false;
    nap_ms(5);
  }
}

size_t Lab::CountOutput(const std::string &text) const {
  std::string out = Output();
  size_t count = 0;
  if (text.empty()) return 0;
  for (size_t pos = out.find(text); pos != std::string::npos; pos = out.find(text, pos + text.size())) ++count;
  return count;
}

bool Lab::WaitCommandSocket(int timeout_ms) {
  auto deadline = deadline_after(timeout_ms);
  for (;;) {
    if (command_socket_listening()) break;
    if (ms_left(deadline) == 0 || !Running()) return false;
    nap_ms(5);
  }
  // The receive task reports its start on its own thread, possibly after the
  // server listens: wait for that line (or its failure) so it cannot land in
  // the output of the first command.
  auto settle = deadline_after(std::min(ms_left(deadline), kRxStartWaitMs));
  for (;;) {
    std::string out = Output();
    for (const char *line : {"CFM:CFMInterval = ", "CFM: Socket open error", "CFM: WAN Socket bind error"}) {
      if (out.find(line) != std::string::npos) return true;
    }
    if (ms_left(settle) == 0) return true;
    nap_ms(5);
  }
}

bool Lab::WaitRxSocket(int timeout_ms) {
  auto deadline = deadline_after(timeout_ms);
  for (;;) {
    if (pid_ > 0 && has_all_protocol_packet_socket(pid_)) return true;
    if (ms_left(deadline) == 0 || !Running()) return false;
    nap_ms(5);
  }
}

std::string Lab::Command(const std::vector<std::string> &words, int timeout_ms) {
  std::string request;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i != 0) request += ' ';
    request += words[i];
  }
  return CommandText(request, timeout_ms);
}

std::string Lab::CommandText(const std::string &request, int timeout_ms) {
  auto deadline = deadline_after(timeout_ms);
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kCommandSocket);
  int fd = -1;
  for (;;) {
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0) break;
    if (fd >= 0) close(fd);
    fd = -1;
    if (ms_left(deadline) == 0) {
      ADD_FAILURE() << "cannot connect to " << kCommandSocket << " for '" << request << "'";
      return "";
    }
    nap_ms(10);
  }
  size_t from = OutputSize();
  size_t sent = 0;
  while (sent < request.size()) {
    ssize_t n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  shutdown(fd, SHUT_WR);
  bool closed = false;
  char sink[256];
  for (;;) {
    struct pollfd p = {fd, POLLIN, 0};
    int left = ms_left(deadline);
    if (left == 0 || poll(&p, 1, left) <= 0) break;
    ssize_t n = recv(fd, sink, sizeof sink, 0);
    if (n <= 0) {
      closed = true;
      break;
    }
  }
  close(fd);
  if (!closed) ADD_FAILURE() << "cfmd did not close the connection for '" << request << "'";
  std::string out = Output();
  return out.size() > from ? out.substr(from) : "";
}

std::string Lab::RunCfmctl(const std::vector<std::string> &args, int *status, int timeout_ms) {
  std::string out_path = "/var/lab/cfmctl." + std::to_string(++run_) + ".out";
  int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0) return "";
  std::vector<std::string> argv_text = {CFMCTL_BINARY};
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (auto &a : argv_text) argv.push_back(a.data());
  argv.push_back(nullptr);
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out, 1);
    for (int fd = 3; fd < 1024; ++fd) close(fd);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out);
  int wstatus = 0;
  auto deadline = deadline_after(timeout_ms);
  while (pid > 0 && waitpid(pid, &wstatus, WNOHANG) == 0) {
    if (ms_left(deadline) == 0) {
      kill(pid, SIGKILL);
      waitpid(pid, &wstatus, 0);
      ADD_FAILURE() << "cfmctl did not finish";
      break;
    }
    nap_ms(5);
  }
  if (status != nullptr) *status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  return ReadFile(out_path);
}

}  // namespace cfmlab
