// The integration lab: the real daemon in private network, mount and IPC
// namespaces (entered once per test process, before any thread exists).
// Every test gets a fresh tmpfs over /var whose /var/tmp/cfm/config holds
// "Enable=1", a fresh veth pair wan0 <-> peer0 (MACs kWanMac, kPeerMac) and
// a raw-socket peer on peer0. Without root every lab test is skipped.
// A fixture overriding SetUp calls Lab::SetUp() first and returns at once
// when IsSkipped() is true.
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
using Filter = std::function<bool(const Frame &)>;

constexpr const char *kPeerIf = "peer0";
constexpr Mac kWanMac = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};
constexpr Mac kPeerMac = {0x02, 0x00, 0x00, 0x00, 0x0b, 0x02};

// EtherType 0x8902 behind up to two 802.1Q tags.
bool IsCfmFrame(const Frame &frame);
std::string MacText(const Mac &mac);  // "02:00:00:00:0a:01"
// "AA BB ..." text of a frame, for failure messages.
std::string Hex(const Frame &frame);

// Raw-socket peer: frames it receives carry their outer tag re-inserted;
// its own sends are never received.
class Peer {
 public:
  Peer() = default;
  Peer(const Peer &) = delete;
  ~Peer() { Close(); }
  bool Open(const std::string &ifname);
  void Close();
  bool Send(const Frame &frame);  // as given, no padding
  // The next frame the filter accepts within timeout_ms; others are dropped.
  std::optional<Frame> Receive(int timeout_ms, const Filter &filter = IsCfmFrame);
  std::vector<Frame> ReceiveAll(int timeout_ms, const Filter &filter = IsCfmFrame);
  void Drain();  // throws away what is queued now

 private:
  int fd_ = -1;
};

struct ExitInfo {
  bool exited = false;  // by exit() or return from main, with `code`
  int code = -1;
  bool signaled = false;  // by `signal`
  int signal = 0;
  bool timed_out = false;  // still running when the wait gave up
};

class Lab : public ::testing::Test {
 public:
  static std::vector<std::string> DefaultArgs() { return {"-i", "wan0", "-e"}; }

 protected:
  void SetUp() override;
  // Stops the daemon; a fault a sanitizer build reported fails the test.
  void TearDown() override;

  static constexpr const char *kConfig = "/var/tmp/cfm/config";
  static constexpr const char *kPvcMac = "/var/tmp/pvc_mac";
  static constexpr const char *kCommandSocket = "/var/cfm_socket";
  void WriteFile(const std::string &path, const std::string &text);  // makes its directories
  static std::string ReadFile(const std::string &path);              // "" when missing

  // Starts build/cfmd with the arguments; true once it has parsed its
  // options (the "CFM debug message" line) or has ended by itself.
  bool StartDaemon(const std::vector<std::string> &args = DefaultArgs(), int timeout_ms = 5000);
  // StartDaemon and WaitCommandSocket; adds a failure when one fails.
  bool StartDaemonReady(const std::vector<std::string> &args = DefaultArgs());
  ExitInfo Stop(int timeout_ms = 5000);  // SIGTERM, SIGKILL after timeout_ms
  ExitInfo WaitExit(int timeout_ms = 5000);
  bool Running();
  pid_t pid() const { return pid_; }

  // What the current run wrote so far.
  std::string Output() const;
  std::string Errors() const;
  bool WaitForOutput(const std::string &text, int timeout_ms = 3000);
  // Waits until the command socket listens and the receive task has
  // opened its socket and reported its start (so that start-up output never
  // lands in the output of the first command).
  bool WaitCommandSocket(int timeout_ms = 5000);

  // Sends the words joined by single blanks (no newline), shuts the write
  // side and waits until the daemon closes the connection; returns the
  // stdout produced meanwhile. Adds a failure when that does not happen.
  std::string Command(const std::vector<std::string> &words, int timeout_ms = 5000);
  std::string CommandText(const std::string &request, int timeout_ms = 5000);
  // Runs build/cfmctl; its stdout, and its exit status through *status.
  std::string RunCfmctl(const std::vector<std::string> &args, int *status = nullptr, int timeout_ms = 5000);

  Peer &peer() { return peer_; }
  static int SemaphoreSetCount();  // System V semaphore sets in the lab
  static int Shell(const std::string &command);
  static int IfIndex(const std::string &ifname);

 private:
  ExitInfo Reap(int timeout_ms);
  pid_t pid_ = -1;
  ExitInfo exit_;
  std::string out_path_, err_path_;
  int run_ = 0;
  Peer peer_;
};

}  // namespace cfmlab
