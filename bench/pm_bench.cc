// pm_bench: accuracy of cfmd's delay measurement and of its synthetic loss
// measurement, between two cfmd daemons on private veth links.
//
// It enters its own network, mount and IPC namespaces (so nothing it starts
// can leave a semaphore set on the host) and stops what it starts with
// SIGTERM, waiting for each; then:
//   - delay: daemons A (on a0) and B (on b0) on one veth pair; a bare
//     reflector on b0 answers level-3 LBMs (which cfmd never answers) and
//     the bench times LBM round trips from a0; then A runs delay sessions
//     of 32 DMMs towards B. Printed: the reflector's median round trip,
//     the median of A's reported two-way delays, their difference, and how
//     many replies were discarded as invalid.
//   - loss: a0 <-> ra and rb <-> b0 with a relay between ra and rb that
//     drops every tenth SLM going from A to B (and nothing else); A runs one
//     loss session towards B. Printed: far-end (A->B) and near-end loss.
// Needs root. Prints figures; decides nothing.
//   usage: pm_bench [--quick] [-b PATH_TO_CFMD]
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
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "io/wan_socket.h"

#ifndef CFMD_DEFAULT_BINARY
#define CFMD_DEFAULT_BINARY "build/cfmd"
#endif

namespace {

using Frame = std::vector<uint8_t>;
const char kMacA[] = "02:00:00:00:0a:01";
const char kMacB[] = "02:00:00:00:0b:01";

[[noreturn]] void die(const std::string &why) {
  fprintf(stderr, "pm_bench: %s\n", why.c_str());
  exit(1);
}
void sleep_ms(int ms) { usleep(useconds_t(ms) * 1000); }
int64_t mono_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}
int sh(const std::string &cmd) { return system((cmd + " >/dev/null 2>&1").c_str()); }
std::string read_file(const std::string &path) {
  std::ifstream in(path);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}
double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}
// Where the CFM header starts behind up to two tags; 0 when not CFM.
size_t cfm_at(const uint8_t *f, size_t n) {
  for (size_t p = 12; p + 6 <= n && p <= 20; p += 4) {
    if (f[p] == 0x89 && f[p + 1] == 0x02) return p + 2;
    if (f[p] != 0x81 || f[p + 1] != 0x00) return 0;
  }
  return 0;
}

// Stops a child with SIGTERM (a daemon removes its semaphore sets on the way
// out) and waits for it; SIGKILL only when it has not ended within 5 s.
void end(pid_t pid) {
  kill(pid, SIGTERM);
  for (int i = 0; i < 500; ++i, sleep_ms(10)) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) return;
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

// A cfmd in its own mount namespace (a private /var), on interface `ifname`.
class Daemon {
 public:
  Daemon(const std::string &binary, const std::string &ifname) {
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (unshare(CLONE_NEWNS) != 0 || mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0) _exit(126);
      mkdir("/var/tmp", 0755), mkdir("/var/tmp/cfm", 0755);
      std::ofstream("/var/tmp/cfm/config") << "Enable=1\n";
      int out = open("/var/out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, 1), dup2(out, 2);
      execl(binary.c_str(), binary.c_str(), "-i", ifname.c_str(), "-e", "-y", static_cast<char *>(nullptr));
      _exit(127);
    }
    root_ = "/proc/" + std::to_string(pid_) + "/root";
    for (int i = 0; i < 300 && access((root_ + "/var/cfm_socket").c_str(), F_OK) != 0; ++i) sleep_ms(10);
    sleep_ms(100);
  }
  ~Daemon() { end(pid_); }
  // Sends one request and waits until it has run; what the daemon printed.
  std::string Command(const std::string &request) {
    size_t from = read_file(root_ + "/var/out").size();
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s/var/cfm_socket", root_.c_str());
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) {
      send(fd, request.data(), request.size(), MSG_NOSIGNAL);
      shutdown(fd, SHUT_WR);
      char sink[16];
      pollfd p = {fd, POLLIN, 0};
      while (poll(&p, 1, 5000) > 0 && recv(fd, sink, sizeof sink, 0) > 0) {
      }
    }
    close(fd);
    return read_file(root_ + "/var/out").substr(from);
  }
  // MD 1 at level 4, MA 1, Down MEP `mep` on VID 100, CCMs off.
  void Configure(int mep) {
    for (std::string r : {"createmd 1 0 4 0 dom", "createma 1 0 1 0 assoc"}) Command(r);
    Command("createmep 1 0 1 0 " + std::to_string(mep) + " 0 1 0 100 0 1");
  }
  // Runs a session to its end; the result line.
  std::string Session(const std::string &start, const std::string &tag) {
    Command(start);
    for (int i = 0; i < 3000; ++i, sleep_ms(100)) {
      std::string out = Command("pmshow");
      size_t at = out.find(tag + " md 1 ma 1 mep 1 finished");
      if (at != std::string::npos) return out.substr(at, out.find('\r', at) - at);
    }
    die("the session did not end: " + start);
  }

 private:
  pid_t pid_;
  std::string root_;
};

int open_socket(const char *ifname) {
  int fd = cfm_wan_socket_open(int(if_nametoindex(ifname)), nullptr);
  if (fd < 0) die(std::string("socket on ") + ifname);
  return fd;
}

// Answers level-3 LBMs on ifname with LBRs (addresses swapped, opcode 2).
[[noreturn]] void reflect(const char *ifname) {
  int fd = open_socket(ifname);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  uint8_t f[2048], mac[6];
  for (;;) {
    long n = cfm_wan_socket_read(fd, f, sizeof f);
    size_t p = n > 0 ? cfm_at(f, size_t(n)) : 0;
    if (p == 0 || f[p + 1] != 3) continue;
    memcpy(mac, f, 6), memcpy(f, f + 6, 6), memcpy(f + 6, mac, 6);
    f[p + 1] = 2;
    send(fd, f, size_t(n), 0);
  }
}

// Copies frames between two interfaces; drops every tenth SLM from a to b.
[[noreturn]] void relay(const char *a, const char *b) {
  int fa = open_socket(a), fb = open_socket(b);
  pollfd p[2] = {{fa, POLLIN, 0}, {fb, POLLIN, 0}};
  uint8_t f[2048];
  long slms = 0;
  for (;;) {
    poll(p, 2, 1000);
    for (long n; (n = cfm_wan_socket_read(fa, f, sizeof f)) >= 0;) {
      size_t at = n > 0 ? cfm_at(f, size_t(n)) : 0;
      if (n > 0 && !(at != 0 && f[at + 1] == 55 && ++slms % 10 == 0)) send(fb, f, size_t(n), 0);
    }
    for (long n; (n = cfm_wan_socket_read(fb, f, sizeof f)) >= 0;) {
      if (n > 0) send(fa, f, size_t(n), 0);
    }
  }
}

pid_t spawn(void (*body)(const char *, const char *), const char *a, const char *b) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    body(a, b);
  }
  sleep_ms(100);
  return pid;
}

// Median LBM round trip from `ifname` (level 3, VID 100), in microseconds.
double lbm_round_trip(const char *ifname, int samples) {
  int fd = open_socket(ifname);
  std::vector<double> rtt;
  uint8_t buf[2048];
  for (int i = 0; i < samples; ++i) {
    Frame f = {2, 0, 0, 0, 0x0b, 1, 2, 0, 0, 0, 0x0a, 1, 0x81, 0, 0, 100, 0x89, 2, 0x60, 3, 0, 4,
               0, 0, uint8_t(i >> 8), uint8_t(i), 0};
    f.resize(64, 0);
    while (cfm_wan_socket_read(fd, buf, sizeof buf) >= 0) {
    }
    int64_t t0 = mono_ns();
    send(fd, f.data(), f.size(), 0);
    while (mono_ns() - t0 < 200000000) {
      long n = cfm_wan_socket_read(fd, buf, sizeof buf);
      size_t p = n > 0 ? cfm_at(buf, size_t(n)) : 0;
      if (p != 0 && buf[p + 1] == 2 && buf[p + 6] == uint8_t(i >> 8) && buf[p + 7] == uint8_t(i)) {
        rtt.push_back(double(mono_ns() - t0) / 1e3);
        break;
      }
      if (n < 0) cfm_wan_socket_wait(fd, 10);
    }
    sleep_ms(10);
  }
  close(fd);
  return median(rtt);
}

// "median 12.3 us" -> 12.3 (in a result line).
double number_after(const std::string &line, const std::string &key) {
  size_t at = line.find(key);
  return at == std::string::npos ? -1 : atof(line.c_str() + at + key.size());
}

void veth(const std::string &a, const std::string &b, const char *mac_a, const char *mac_b) {
  std::string add = "ip link add " + a + (mac_a ? std::string(" address ") + mac_a : "") + " type veth peer name " + b +
                    (mac_b ? std::string(" address ") + mac_b : "");
  if (sh(add) != 0 || sh("ip link set " + a + " up") != 0 || sh("ip link set " + b + " up") != 0) die("veth " + a);
}

}  // namespace

int main(int argc, char **argv) {
  std::string binary = CFMD_DEFAULT_BINARY;
  bool quick = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--quick") == 0) quick = true;
    if (strcmp(argv[i], "-b") == 0 && i + 1 < argc) binary = argv[++i];
  }
  if (geteuid() != 0) die("needs root (it builds private network namespaces)");
  if (unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWIPC) != 0) die(std::string("unshare: ") + strerror(errno));
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) die("cannot make mounts private");
  sh("ip link set lo up");
  const int sessions = quick ? 2 : 8, slms = quick ? 200 : 1000;

  // Delay on one link.
  veth("a0", "b0", kMacA, kMacB);
  sleep_ms(500);
  std::vector<double> delays, lbm;
  long invalid = 0;
  {
    Daemon a(binary, "a0"), b(binary, "b0");
    a.Configure(1), b.Configure(2);
    for (int s = 0; s < sessions; ++s) {
      pid_t ref = spawn([](const char *i, const char *) { reflect(i); }, "b0", nullptr);
      lbm.push_back(lbm_round_trip("a0", 100));
      end(ref);
      std::string line = a.Session("pmstart dm 1 1 1 " + std::string(kMacB) + " 32 100 0", "PM DM ");
      delays.push_back(number_after(line, "median "));
      invalid += long(number_after(line, "invalid "));
      fprintf(stderr, "pm_bench: %s\n", line.c_str());
    }
  }
  // Loss through the relay.
  sh("ip link del a0");
  veth("a0", "ra", kMacA, nullptr);
  veth("rb", "b0", nullptr, kMacB);
  sleep_ms(500);
  std::string loss;
  {
    pid_t r = spawn(relay, "ra", "rb");
    Daemon a(binary, "a0"), b(binary, "b0");
    a.Configure(1), b.Configure(2);
    loss = a.Session("pmstart slm 1 1 1 " + std::string(kMacB) + " " + std::to_string(slms) + " 100 0 7", "PM SLM");
    end(r);
  }
  double lbm_med = median(lbm), dm_med = median(delays);
  printf("\n| %-56s | %-14s |\n|%s|%s|\n", "measure", "value", std::string(58, '-').c_str(),
         std::string(16, '-').c_str());
  printf("| %-56s | %14.1f |\n", "bare reflector: median LBM round trip (us)", lbm_med);
  printf("| %-56s | %14.1f |\n", "cfmd DM initiator vs cfmd responder: median delay (us)", dm_med);
  printf("| %-56s | %14.1f |\n", "difference (us), goal within 20", dm_med - lbm_med);
  printf("| %-56s | %14ld |\n", "DMRs discarded as invalid", invalid);
  printf("| %-56s | %14.2f |\n", "far-end loss A->B (%), relay drops every 10th SLM", number_after(loss, "far-end loss "));
  printf("| %-56s | %14.2f |\n", "near-end loss B->A (%), nothing dropped", number_after(loss, "near-end loss "));
  printf("\n%s\n", loss.c_str());
  return 0;
}
