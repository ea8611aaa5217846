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
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "io/wan_socket.h"

namespace cfmlab {

namespace {

using Clock = std::chrono::steady_clock;

int ms_left(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Polls `done` every 5 ms until it holds (true) or the time is up (false).
bool wait_until(int timeout_ms, const std::function<bool()> &done) {
  for (auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms); !done();) {
    if (ms_left(deadline) == 0) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Entered once, before any test (and any thread a test might start).
std::string enter_namespaces() {
  if (geteuid() != 0) return "the integration lab needs root (it builds private network namespaces)";
  if (unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWIPC) != 0) return std::string("unshare: ") + strerror(errno);
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "cannot make mounts private";
  mount("sysfs", "/sys", "sysfs", 0, nullptr);  // the new namespace's interfaces
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
[[maybe_unused]] const bool g_environment = (::testing::AddGlobalTestEnvironment(new LabEnvironment), true);

int connect_command_socket() {
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "/var/cfm_socket");
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0) return fd;
  close(fd);
  return -1;
}

// Forks and runs `binary` with stdin from /dev/null and stdout and stderr
// to the files named.
pid_t spawn(const char *binary, const std::vector<std::string> &args, const std::string &out_path,
            const std::string &err_path) {
  std::vector<std::string> words = {binary};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    dup2(open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    for (int fd = 3; fd < 1024; ++fd) close(fd);
    signal(SIGPIPE, SIG_DFL);
    // In the lab's private /var: whatever a run makes in its working
    // directory (a tree named "--version") goes with the lab.
    if (chdir("/var") != 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

// Waits up to timeout_ms for `pid` to end.
ExitInfo reap(pid_t pid, int timeout_ms) {
  ExitInfo info;
  int status = 0;
  info.timed_out = !wait_until(timeout_ms, [&] { return waitpid(pid, &status, WNOHANG) != 0; });
  if (!info.timed_out) {
    info.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    info.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
  return info;
}

}  // namespace

int Lab::Connect() { return connect_command_socket(); }

bool IsCfmFrame(const Frame &frame) {
  size_t pos = 12;
  while (pos < 20 && frame.size() >= pos + 2 && frame[pos] == 0x81 && frame[pos + 1] == 0x00) pos += 4;
  return frame.size() >= pos + 2 && frame[pos] == 0x89 && frame[pos + 1] == 0x02;
}

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
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  uint8_t buf[16384];
  while (fd_ >= 0) {
    long got = cfm_wan_socket_read(fd_, buf, sizeof buf);
    if (got > 0 && (!filter || filter(Frame(buf, buf + got)))) return Frame(buf, buf + got);
    if (got >= 0) continue;  // refused by the filter, or our own frame
    if (ms_left(deadline) == 0) break;
    cfm_wan_socket_wait(fd_, ms_left(deadline));
  }
  return std::nullopt;
}

std::vector<Frame> Peer::ReceiveAll(int timeout_ms, const Filter &filter) {
  std::vector<Frame> frames;
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (auto frame = Receive(ms_left(deadline), filter)) frames.push_back(std::move(*frame));
  return frames;
}

void Lab::SetUp() {
  if (!lab_unavailable().empty()) GTEST_SKIP() << lab_unavailable();
  umount2("/var", MNT_DETACH);  // the previous test's, if any
  ASSERT_EQ(mount("tmpfs", "/var", "tmpfs", 0, "mode=0755"), 0) << "tmpfs over /var: " << strerror(errno);
  WriteFile(kConfig, "Enable=1\n");
  WriteFile("/var/lab/.keep", "");
  Shell("ip link del wan0 >/dev/null 2>&1");
  ASSERT_TRUE(AddLink("wan0 address 02:00:00:00:0a:01", "peer0 address 02:00:00:00:0b:02"));
  ASSERT_TRUE(peer_.Open("peer0"));
}

void Lab::TearDown() {
  if (pid_ > 0) Stop();  // first: a sanitizer build reports leaks at exit
  peer_.Close();
  std::string errors = Errors();
  EXPECT_EQ(errors.find("Sanitizer"), std::string::npos) << errors;
  EXPECT_EQ(errors.find("runtime error"), std::string::npos) << errors;
}

void Lab::WriteFile(const std::string &path, const std::string &text) {
  for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
    mkdir(path.substr(0, pos).c_str(), 0755);
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  ASSERT_TRUE(out << text) << "cannot write " << path;
}

size_t Lab::Count(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::string Lab::ReadFile(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

int Lab::Shell(const std::string &command) {
  int status = system(command.c_str());
  return (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
}

// Until the kernel has activated both ends, what is sent is dropped.
bool Lab::AddLink(const std::string &name, const std::string &peer) {
  std::string a = name.substr(0, name.find(' ')), b = peer.substr(0, peer.find(' '));
  return Shell("ip link add " + name + " type veth peer name " + peer + " && sysctl -qw net.ipv6.conf." + a +
               ".disable_ipv6=1 net.ipv6.conf." + b + ".disable_ipv6=1 && ip link set " + a + " up && ip link set " +
               b + " up") == 0 &&
         wait_until(3000, [&] {
           return ReadFile("/sys/class/net/" + a + "/operstate") == "up\n" &&
                  ReadFile("/sys/class/net/" + b + "/operstate") == "up\n";
         });
}

int Lab::SemaphoreSetCount() {
  std::ifstream sems("/proc/sysvipc/sem");
  std::string line;
  int count = -1;  // the header line
  while (std::getline(sems, line)) count += !line.empty();
  return count < 0 ? 0 : count;
}

bool Lab::StartDaemon(const std::vector<std::string> &args, int timeout_ms) {
  if (pid_ > 0) Stop();
  out_path_ = "/var/lab/cfmd." + std::to_string(++run_) + ".out";
  err_path_ = "/var/lab/cfmd." + std::to_string(run_) + ".err";
  pid_ = spawn(CFMD_BINARY, args, out_path_, err_path_);
  exit_ = ExitInfo{};
  return pid_ > 0 &&
         wait_until(timeout_ms, [&] { return Output().find("CFM debug message") != std::string::npos || !Running(); });
}

bool Lab::StartDaemonReady(const std::vector<std::string> &args) {
  // The receive task reports its start on its own thread, possibly after the
  // server listens; waiting for both keeps start-up output out of commands.
  // The probe connection is an empty request, which prints nothing.
  bool ready = StartDaemon(args) && wait_until(5000, [&] {
                 if (!Running() || Output().find("CFM:CFMInterval = ") == std::string::npos) return !Running();
                 int fd = connect_command_socket();
                 return fd >= 0 && close(fd) == 0;
               }) && Running();
  if (!ready) ADD_FAILURE() << "cfmd did not get ready; stdout:\n" << Output() << "\nstderr:\n" << Errors();
  return ready;
}

ExitInfo Lab::WaitExit(int timeout_ms) {
  if (pid_ <= 0) return exit_;
  ExitInfo info = reap(pid_, timeout_ms);
  if (!info.timed_out) pid_ = -1, exit_ = info;
  return info;
}

ExitInfo Lab::Stop() {
  if (pid_ <= 0) return exit_;
  kill(pid_, SIGTERM);
  if (ExitInfo info = WaitExit(5000); !info.timed_out) return info;
  kill(pid_, SIGKILL);
  WaitExit(5000);
  exit_.timed_out = true;
  return exit_;
}

bool Lab::WaitForOutput(const std::string &text, int timeout_ms) {
  return wait_until(timeout_ms, [&] { return Output().find(text) != std::string::npos; });
}

std::string Lab::Command(const std::string &request, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  int fd = connect_command_socket();
  if (fd < 0) {
    ADD_FAILURE() << "cannot connect to the command socket for '" << request << "'";
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
  for (struct pollfd p = {fd, POLLIN, 0}; !closed && poll(&p, 1, ms_left(deadline)) > 0;) {
    closed = recv(fd, sink, sizeof sink, 0) <= 0;
  }
  close(fd);
  if (!closed) ADD_FAILURE() << "cfmd did not close the connection for '" << request << "'";
  std::string out = Output();
  return out.size() > from ? out.substr(from) : "";
}

std::string Lab::RunCfmctl(const std::vector<std::string> &args, int *status) {
  std::string out_path = "/var/lab/cfmctl." + std::to_string(++run_) + ".out";
  pid_t pid = spawn(CFMCTL_BINARY, args, out_path, "/dev/null");
  ExitInfo info = reap(pid, 10000);
  if (info.timed_out) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    ADD_FAILURE() << "cfmctl did not finish";
  }
  *status = info.code;
  return ReadFile(out_path);
}

Frame PeerCcm(uint32_t sequence, uint8_t interval) {
  Frame f = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x37};
  f.insert(f.end(), kPeerMac.begin(), kPeerMac.end());
  f.insert(f.end(), {0x81, 0x00, 0xE0, 0x00, 0x89, 0x02, 0xE0, 0x01, interval, 70, uint8_t(sequence >> 24),
                     uint8_t(sequence >> 16), uint8_t(sequence >> 8), uint8_t(sequence), 0, 9, 4, 3, 'm', 'd', '7', 2,
                     3, 'm', 'a', '1'});
  f.resize(92, 0);
  f.insert(f.end(), {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, 2, 4, 0, 1, 1, 0});
  return f;
}

std::string Lab::SchemaErrors(const std::string &json, const std::string &schema, bool lines) {
  static int n = 0;
  std::string in = "/var/lab/json." + std::to_string(++n), out = in + ".errors";
  WriteFile(in, json);
  int status = Shell(std::string("/usr/bin/python3 ") + CFMD_JSON_CHECK + (lines ? " --lines " : " ") +
                     CFMD_JSON_SCHEMAS + "/" + schema + ".schema.json <" + in + " >" + out + " 2>&1");
  std::string errors = ReadFile(out);
  return status == 0 ? "" : errors.empty() ? "json_check failed" : errors;
}

}  // namespace cfmlab
