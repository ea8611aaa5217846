// The integration lab: the real daemon in private network, mount and IPC
// namespaces (entered once per test process, before any thread exists).
// Every test gets a fresh tmpfs over /var whose /var/tmp/cfm/config holds
// "Enable=1", a fresh veth pair wan0 <-> peer0 (MACs kWanMac, kPeerMac) and
// a raw-socket peer on peer0. Without root every lab test is skipped.
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
using Filter = std::function<bool(const Frame &)>;

constexpr std::array<uint8_t, 6> kWanMac = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};
constexpr std::array<uint8_t, 6> kPeerMac = {0x02, 0x00, 0x00, 0x00, 0x0b, 0x02};

bool IsCfmFrame(const Frame &frame);  // EtherType 0x8902 behind up to two tags
// A CCM of peer MEP 9 (kPeerMac) in MA "ma1" of MD "md7" at level 7, behind
// a VID 0 tag; `interval` is the code in its flags (4: 1 s).
Frame PeerCcm(uint32_t sequence, uint8_t interval = 4);

// Raw-socket peer: frames it receives carry their outer tag re-inserted;
// its own sends are never received.
class Peer {
 public:
  ~Peer() { Close(); }
  bool Open(const std::string &ifname);
  void Close();
  bool Send(const Frame &frame);  // as given, no padding
  // The next frame the filter accepts within timeout_ms; others are dropped.
  std::optional<Frame> Receive(int timeout_ms, const Filter &filter = IsCfmFrame);
  std::vector<Frame> ReceiveAll(int timeout_ms, const Filter &filter = IsCfmFrame);
  void Drain() { ReceiveAll(0, nullptr); }

 private:
  int fd_ = -1;
};

struct ExitInfo {
  bool timed_out = false;  // still running when the wait gave up
  int code = -1;           // exit() code, or -1
  int signal = 0;          // the terminating signal, or 0
};

class Lab : public ::testing::Test {
 public:
  static std::vector<std::string> DefaultArgs() { return {"-i", "wan0", "-e"}; }

 protected:
  void SetUp() override;
  void TearDown() override;  // stops the daemon; a sanitizer report fails the test

  static constexpr const char *kConfig = "/var/tmp/cfm/config";
  static void WriteFile(const std::string &path, const std::string &text);  // makes its directories
  static std::string ReadFile(const std::string &path);                     // "" when missing
  static size_t Count(const std::string &text, const std::string &what);  // occurrences of `what`
  static int Shell(const std::string &command);
  static bool AddLink(const std::string &name, const std::string &peer);  // a veth pair, up
  static int SemaphoreSetCount();                                         // System V sets in the lab

  // Starts build/cfmd; true once it has parsed its options (the "CFM debug
  // message" line) or has ended by itself, within timeout_ms.
  bool StartDaemon(const std::vector<std::string> &args = DefaultArgs(), int timeout_ms = 5000);
  // StartDaemon, then waits until the command socket listens and the receive
  // task has reported its start; adds a failure when that does not happen.
  bool StartDaemonReady(const std::vector<std::string> &args = DefaultArgs());
  ExitInfo Stop();  // SIGTERM, SIGKILL after 5 s
  ExitInfo WaitExit(int timeout_ms = 5000);
  bool Running() { return pid_ > 0 && WaitExit(0).timed_out; }
  pid_t pid() const { return pid_; }

  std::string Output() const { return ReadFile(out_path_); }  // what the current run wrote so far
  std::string Errors() const { return ReadFile(err_path_); }
  bool WaitForOutput(const std::string &text, int timeout_ms = 3000);

  // Sends the request, shuts the write side, waits until the daemon closes
  // the connection; returns the stdout produced meanwhile. Adds a failure
  // when that does not happen.
  std::string Command(const std::string &request, int timeout_ms = 5000);
  static int Connect();  // a connection to the command socket, or -1
  // Runs build/cfmctl; its stdout, and its exit status through *status.
  std::string RunCfmctl(const std::vector<std::string> &args, int *status);

  // What is wrong with `json` as a document of dist/json/<schema>.schema.json
  // (every line one document when `lines`); "" when it is valid.
  static std::string SchemaErrors(const std::string &json, const std::string &schema, bool lines = false);

  Peer &peer() { return peer_; }

 private:
  pid_t pid_ = -1;
  ExitInfo exit_;
  std::string out_path_, err_path_;
  int run_ = 0;
  Peer peer_;
};

}  // namespace cfmlab
