#include "lab.h"

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
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "io/wan_socket.h"

namespace cfmlab {

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point deadline_after(int timeout_ms) { return Clock::now() + std::chrono::milliseconds(timeout_ms); }

int ms_left(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Polls `done` every 5 ms until it holds (true) or the time is up (false).
bool wait_until(int timeout_ms, const std::function<bool()> &done) {
  auto deadline = deadline_after(timeout_ms);
  for (;;) {
    if (done()) return true;
    if (ms_left(deadline) == 0) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool write_text(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  return out && (out << text);
}

void make_dirs(const std::string &path) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    mkdir(path.substr(0, pos).c_str(), 0755);
  }
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

const std::string &lab_unavailable() {
  static const std::string reason = enter_namespaces();
  return reason;
}

class LabEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { lab_unavailable(); }
};

// Registered before main runs, so the namespaces are entered before any test
// (and any thread a test might start).
[[maybe_unused]] const bool g_environment_registered = [] {
  ::testing::AddGlobalTestEnvironment(new LabEnvironment);
  return true;
}();

bool var_mounted = false;

bool command_socket_listening() {
  std::ifstream unix_sockets("/proc/net/unix");
  std::string line, num, refcnt, protocol, flags, type, state, inode, path;
  while (std::getline(unix_sockets, line)) {
    std::istringstream fields(line);
    if (fields >> num >> refcnt >> protocol >> flags >> type >> state >> inode >> path && path == "/var/cfm_socket" &&
        flags == "00010000") {
      return true;
    }
  }
  return false;
}

// Forks and runs `binary` with the arguments, stdin from /dev/null, stdout
// to `out` and stderr to `err` (kept when negative). Closes out and err.
pid_t spawn(const char *binary, const std::vector<std::string> &args, int out, int err) {
  std::vector<std::string> argv_text = {binary};
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (auto &a : argv_text) argv.push_back(a.data());
  argv.push_back(nullptr);
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(out, 1);
    if (err >= 0) dup2(err, 2);
    for (int fd = 3; fd < 1024; ++fd) close(fd);
    signal(SIGPIPE, SIG_DFL);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out);
  if (err >= 0) close(err);
  return pid;
}

int open_out(const std::string &path) { return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); }

ExitInfo decode(int status) {
  ExitInfo info;
  info.exited = WIFEXITED(status);
  info.code = info.exited ? WEXITSTATUS(status) : -1;
  info.signaled = WIFSIGNALED(status);
  info.signal = info.signaled ? WTERMSIG(status) : 0;
  return info;
}

}  // namespace

bool IsCfmFrame(const Frame &frame) {
  size_t pos = 12;
  for (int tags = 0; tags < 2 && frame.size() >= pos + 2 && frame[pos] == 0x81 && frame[pos + 1] == 0x00; ++tags) {
    pos += 4;
  }
  return frame.size() >= pos + 2 && frame[pos] == 0x89 && frame[pos + 1] == 0x02;
}

std::string MacText(const Mac &mac) {
  char text[18];
  snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  return text;
}

std::string Hex(const Frame &frame) {
  std::string text;
  char byte[4];
  for (size_t i = 0; i < frame.size(); ++i) {
    snprintf(byte, sizeof byte, i % 16 == 15 ? "%02X\n" : "%02X ", frame[i]);
    text += byte;
  }
  return text;
}

// ---------------------------------------------------------------- Peer

bool Peer::Open(const std::string &ifname) {
  Close();
  int index = static_cast<int>(if_nametoindex(ifname.c_str()));
  if (index != 0) fd_ = cfm_wan_socket_open(index, nullptr);
  int bytes = 64 << 20;  // deep enough for a flood of replies
  return fd_ >= 0 && setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0;
}

void Peer::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool Peer::Send(const Frame &frame) {
  return fd_ >= 0 && send(fd_, frame.data(), frame.size(), 0) == static_cast<ssize_t>(frame.size());
}

std::optional<Frame> Peer::Receive(int timeout_ms, const Filter &filter) {
  if (fd_ < 0) return std::nullopt;
  auto deadline = deadline_after(timeout_ms);
  uint8_t buf[16384];
  for (;;) {
    long got = cfm_wan_socket_read(fd_, buf, sizeof buf);
    if (got > 0 && (!filter || filter(Frame(buf, buf + got)))) return Frame(buf, buf + got);
    if (got >= 0) continue;  // refused by the filter, or our own frame
    if (ms_left(deadline) == 0) return std::nullopt;
    cfm_wan_socket_wait(fd_, ms_left(deadline));
  }
}

std::vector<Frame> Peer::ReceiveAll(int timeout_ms, const Filter &filter) {
  std::vector<Frame> frames;
  auto deadline = deadline_after(timeout_ms);
  while (auto frame = Receive(ms_left(deadline), filter)) frames.push_back(std::move(*frame));
  return frames;
}

void Peer::Drain() {
  uint8_t buf[16384];
  while (fd_ >= 0 && cfm_wan_socket_read(fd_, buf, sizeof buf) >= 0) {
  }
}

// ---------------------------------------------------------------- Lab

void Lab::SetUp() {
  const std::string &reason = lab_unavailable();
  if (!reason.empty()) GTEST_SKIP() << reason;
  if (var_mounted) umount2("/var", MNT_DETACH);
  ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, "mode=0755"), 0) << "tmpfs over /var: " << strerror(errno);
  var_mounted = true;
  make_dirs("/var/lab");
  WriteFile(kConfig, "Enable=1\n");

  Shell("ip link del wan0 >/dev/null 2>&1");
  std::string add = "ip link add wan0 address " + MacText(kWanMac) + " type veth peer name peer0 address " +
                    MacText(kPeerMac);
  ASSERT_EQ(Shell(add), 0) << add;
  // No IPv6 on the pair: fewer stray frames on the wire.
  write_text("/proc/sys/net/ipv6/conf/wan0/disable_ipv6", "1\n");
  write_text("/proc/sys/net/ipv6/conf/peer0/disable_ipv6", "1\n");
  ASSERT_EQ(Shell("ip link set wan0 up && ip link set peer0 up"), 0);
  // Until the kernel has activated the links, what is sent is dropped.
  wait_until(3000, [] {
    return ReadFile("/sys/class/net/wan0/operstate") == "up\n" && ReadFile("/sys/class/net/peer0/operstate") == "up\n";
  });
  ASSERT_TRUE(peer_.Open(kPeerIf)) << "cannot open a packet socket on " << kPeerIf;
}

void Lab::TearDown() {
  // Stopped first: a sanitizer build reports leaks at exit on stderr.
  if (pid_ > 0) Stop();
  peer_.Close();
  std::string errors = Errors();
  EXPECT_EQ(errors.find("Sanitizer"), std::string::npos) << errors;
  EXPECT_EQ(errors.find("runtime error"), std::string::npos) << errors;
}

void Lab::WriteFile(const std::string &path, const std::string &text) {
  make_dirs(path.substr(0, path.rfind('/')));
  ASSERT_TRUE(write_text(path, text)) << "cannot write " << path;
}

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
  while (std::getline(sems, line)) count += !line.empty();
  return count < 0 ? 0 : count;
}

bool Lab::StartDaemon(const std::vector<std::string> &args, int timeout_ms) {
  if (pid_ > 0) Stop();
  ++run_;
  out_path_ = "/var/lab/cfmd." + std::to_string(run_) + ".out";
  err_path_ = "/var/lab/cfmd." + std::to_string(run_) + ".err";
  int out = open_out(out_path_), err = open_out(err_path_);
  if (out < 0 || err < 0) return false;
  pid_ = spawn(CFMD_BINARY, args, out, err);
  if (pid_ < 0) return false;
  exit_ = ExitInfo{};
  // Ended by itself counts as started: the test looks at how it ended.
  return wait_until(timeout_ms, [&] { return Output().find("CFM debug message") != std::string::npos || !Running(); });
}

bool Lab::StartDaemonReady(const std::vector<std::string> &args) {
  bool ready = StartDaemon(args) && WaitCommandSocket();
  if (!ready) ADD_FAILURE() << "cfmd did not get ready; stdout:\n" << Output() << "\nstderr:\n" << Errors();
  return ready;
}

ExitInfo Lab::Reap(int timeout_ms) {
  ExitInfo info;
  bool ended = wait_until(timeout_ms, [&] {
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == 0) return false;
    if (r == pid_) info = decode(status);
    return true;
  });
  if (!ended) {
    info.timed_out = true;
    return info;
  }
  pid_ = -1;
  return exit_ = info;
}

ExitInfo Lab::Stop(int timeout_ms) {
  if (pid_ <= 0) return exit_;
  kill(pid_, SIGTERM);
  ExitInfo info = Reap(timeout_ms);
  if (!info.timed_out) return info;
  kill(pid_, SIGKILL);
  exit_ = Reap(5000);
  exit_.timed_out = true;
  return exit_;
}

ExitInfo Lab::WaitExit(int timeout_ms) { return pid_ > 0 ? Reap(timeout_ms) : exit_; }

bool Lab::Running() { return pid_ > 0 && Reap(0).timed_out; }

std::string Lab::Output() const { return out_path_.empty() ? "" : ReadFile(out_path_); }

std::string Lab::Errors() const { return err_path_.empty() ? "" : ReadFile(err_path_); }

bool Lab::WaitForOutput(const std::string &text, int timeout_ms) {
  return wait_until(timeout_ms, [&] { return Output().find(text) != std::string::npos; });
}

bool Lab::WaitCommandSocket(int timeout_ms) {
  // The receive task reports its start (its socket open) on its own thread,
  // possibly after the server listens.
  return wait_until(timeout_ms, [&] {
    return !Running() || (command_socket_listening() && Output().find("CFM:CFMInterval = ") != std::string::npos);
  }) && Running();
}

std::string Lab::Command(const std::vector<std::string> &words, int timeout_ms) {
  std::string request;
  for (size_t i = 0; i < words.size(); ++i) request += (i != 0 ? " " : "") + words[i];
  return CommandText(request, timeout_ms);
}

std::string Lab::CommandText(const std::string &request, int timeout_ms) {
  auto deadline = deadline_after(timeout_ms);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kCommandSocket);
  int fd = -1;
  bool connected = wait_until(timeout_ms, [&] {
    if (fd >= 0) close(fd);
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0;
  });
  if (!connected) {
    if (fd >= 0) close(fd);
    ADD_FAILURE() << "cannot connect to " << kCommandSocket << " for '" << request << "'";
    return "";
  }
  size_t from = Output().size();
  for (size_t sent = 0; sent < request.size();) {
    ssize_t n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  shutdown(fd, SHUT_WR);
  bool closed = false;
  char sink[256];
  for (struct pollfd p = {fd, POLLIN, 0}; !closed && ms_left(deadline) > 0 && poll(&p, 1, ms_left(deadline)) > 0;) {
    closed = recv(fd, sink, sizeof sink, 0) <= 0;
  }
  close(fd);
  if (!closed) ADD_FAILURE() << "cfmd did not close the connection for '" << request << "'";
  std::string out = Output();
  return out.size() > from ? out.substr(from) : "";
}

std::string Lab::RunCfmctl(const std::vector<std::string> &args, int *status, int timeout_ms) {
  std::string out_path = "/var/lab/cfmctl." + std::to_string(++run_) + ".out";
  int out = open_out(out_path);
  if (out < 0) return "";
  pid_t pid = spawn(CFMCTL_BINARY, args, out, -1);
  int wstatus = 0;
  if (!wait_until(timeout_ms, [&] { return pid <= 0 || waitpid(pid, &wstatus, WNOHANG) != 0; })) {
    kill(pid, SIGKILL);
    waitpid(pid, &wstatus, 0);
    ADD_FAILURE() << "cfmctl did not finish";
  }
  if (status != nullptr) *status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  return ReadFile(out_path);
}

}  // namespace cfmlab
