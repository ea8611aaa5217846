// The integration lab: a private network/mount/IPC world in which the real
// daemon runs against a veth pair, with a raw-socket peer on the far end.
//
// What a test gets (as root; otherwise every lab test is skipped):
//   - fresh net, mount and IPC namespaces, entered once per test process
//     before any test runs (so before any thread exists); mounts are private;
//     sysfs is mounted for the new network namespace;
//   - for every test: a new tmpfs over /var with /var/tmp/cfm/config holding
//     "Enable=1", and a new veth pair wan0 <-> peer0 (both up, IPv6 off,
//     MACs kWanMac and kPeerMac);
//   - the daemon (build/cfmd) started on demand with stdout and stderr
//     captured in files, a raw-socket peer on peer0, and a command helper for
//     /var/cfm_socket.
//
// Typical use:
//
//   class CcmLab : public cfmlab::Lab {};
//   TEST_F(CcmLab, LearnsRemoteMep) {
//     ASSERT_TRUE(StartDaemon());                 // -i wan0 -e
//     ASSERT_TRUE(WaitCommandSocket());
//     Command({"createmd", "1", "md1", "2"});     // returns the new stdout
//     peer().Send(frame);
//     auto got = peer().Receive(2000);            // first CFM frame, tags in place
//     ASSERT_TRUE(got.has_value());
//     EXPECT_TRUE(WaitForOutput("something", 2000));
//   }
//
// A fixture derived from Lab that overrides SetUp must call Lab::SetUp()
// first and return at once when IsSkipped() is true.
#pragma once
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace cfmlab {

using Frame = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

constexpr const char *kWanIf = "wan0";
constexpr const char *kPeerIf = "peer0";
constexpr Mac kWanMac = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};
constexpr Mac kPeerMac = {0x02, 0x00, 0x00, 0x00, 0x0b, 0x02};

// Enters the lab namespaces once per process. Empty on success, else the
// reason the lab cannot run here (not root, unshare refused, ...). Called by
// a global test environment before the first test; safe to call again.
const std::string &EnterLabNamespaces();

// True when the frame carries EtherType 0x8902 behind zero, one or two
// 802.1Q tags, in Ethernet II or 802.3 LLC/SNAP form.
bool IsCfmFrame(const Frame &frame);

// Hex text "AA BB ..." of a frame, for failure messages.
std::string Hex(const Frame &frame);

// Raw-socket peer on an interface (peer0 in the lab). Frames it receives
// carry their outer tag re-inserted; its own sends are never received.
class Peer {
 public:
  Peer() = default;
  ~Peer();
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  bool Open(const std::string &ifname);
  void Close();
  bool IsOpen() const { return fd_ >= 0; }

  // Sends the frame as given (no padding); true when the kernel took it.
  bool Send(const Frame &frame);
  // The next frame accepted by the filter within timeout_ms, or nothing.
  // Frames the filter rejects are dropped. The default filter is IsCfmFrame.
  std::optional<Frame> Receive(int timeout_ms, const std::function<bool(const Frame &)> &filter = IsCfmFrame);
  // Every accepted frame that arrives within timeout_ms.
  std::vector<Frame> ReceiveAll(int timeout_ms, const std::function<bool(const Frame &)> &filter = IsCfmFrame);
  // Throws away whatever is queued now.
  void Drain();

 private:
  int fd_ = -1;
};

// How a daemon run ended.
struct ExitInfo {
  bool exited = false;    // ended by exit()/return from main
  int code = -1;          // exit code when exited
  bool signaled = false;  // ended by a signal
  int signal = 0;
  bool timed_out = false; // still running when the wait gave up
};

class Lab : public ::testing::Test {
 public:
  static std::vector<std::string> DefaultArgs() { return {"-i", "wan0", "-e"}; }

 protected:
  void SetUp() override;
  void TearDown() override;

  // --- files under /var (fresh tmpfs per test) ---
  // Writes a file, creating its directories. The config file already holds
  // "Enable=1"; RemoveFile(kConfig) leaves it missing.
  static constexpr const char *kConfig = "/var/tmp/cfm/config";
  static constexpr const char *kFrameType = "/var/tmp/cfm/frametype";
  static constexpr const char *kPvcMac = "/var/tmp/pvc_mac";
  static constexpr const char *kCommandSocket = "/var/cfm_socket";
  void WriteFile(const std::string &path, const std::string &text);
  void RemoveFile(const std::string &path);
  static std::string ReadFile(const std::string &path);

  // --- the daemon ---
  // Starts build/cfmd with the arguments (argv[0] is added) and waits until
  // it has parsed its options (the "CFM debug message" line) or exited.
  // False when it could not be started or did neither within timeout_ms.
  bool StartDaemon(const std::vector<std::string> &args = DefaultArgs(), int timeout_ms = 5000);
  // Starts the daemon and waits for its command socket and its receive
  // socket; adds a test failure and returns false when either is missing.
  bool StartDaemonReady(const std::vector<std::string> &args = DefaultArgs(), int timeout_ms = 5000);
  // SIGTERM, then waits (SIGKILL after timeout_ms). Returns how it ended.
  ExitInfo Stop(int timeout_ms = 5000);
  // Waits for the daemon to end by itself.
  ExitInfo WaitExit(int timeout_ms = 5000);
  // Stop, then start again with the given arguments (the last ones if empty).
  bool Restart(const std::vector<std::string> &args = {});
  bool Running();
  pid_t pid() const { return pid_; }
  // The last run's end (valid after Stop/WaitExit).
  const ExitInfo &exit_info() const { return exit_; }

  // Everything the current run wrote to stdout / stderr so far.
  std::string Output() const;
  std::string Errors() const;
  // Waits until stdout, from byte `from` on, holds `text`. True when found.
  bool WaitForOutput(const std::string &text, int timeout_ms = 3000, size_t from = 0);
  // Number of occurrences of `text` in stdout.
  size_t CountOutput(const std::string &text) const;

  // Waits until a listening socket is bound to /var/cfm_socket (no request
  // is sent), and then until the receive task has printed its start line
  // ("CFM:CFMInterval = ...", or its failure; at most 2 s more), so that
  // start-up output never lands in the output of the first Command().
  bool WaitCommandSocket(int timeout_ms = 5000);
  // Waits until the daemon holds a packet socket for every protocol (its
  // WAN receive socket).
  bool WaitRxSocket(int timeout_ms = 5000);

  // Sends one request: the words joined by single blanks, no newline, then
  // shuts the write side and waits until the daemon closes the connection.
  // Returns the stdout the daemon produced from just before the request was
  // sent until it closed the connection. Adds a test failure (and returns
  // what there is) when the socket cannot be reached or the daemon does not
  // close within timeout_ms.
  std::string Command(const std::vector<std::string> &words, int timeout_ms = 5000);
  // Same for a raw request text (sent exactly as given).
  std::string CommandText(const std::string &request, int timeout_ms = 5000);
  // Runs the cfmctl tool (CFMCTL_BINARY) with the arguments; returns its
  // stdout, and its exit status through *status when given.
  std::string RunCfmctl(const std::vector<std::string> &args, int *status = nullptr, int timeout_ms = 5000);

  // --- the wire ---
  Peer &peer() { return peer_; }
  // Number of System V semaphore sets in the lab's IPC namespace.
  static int SemaphoreSetCount();
  // Runs a shell command inside the lab (e.g. "ip link set wan0 down").
  static int Shell(const std::string &command);
  static int IfIndex(const std::string &ifname);

 private:
  bool SpawnDaemon(const std::vector<std::string> &args);
  ExitInfo Reap(int timeout_ms);
  void PrepareVar();
  void PrepareLinks();
  size_t OutputSize() const;

  pid_t pid_ = -1;
  ExitInfo exit_;
  std::vector<std::string> last_args_;
  std::string out_path_;
  std::string err_path_;
  int run_ = 0;
  Peer peer_;
};

}  // namespace cfmlab
