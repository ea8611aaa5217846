// CCMs on the wire under load: a burst of good and mangled frames, and
// commands racing a fast tick. What a CCM teaches and what is sent is checked
// in-process by the unit tests; the demo learns peers end to end.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <poll.h>
#include <sys/stat.h>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::PeerCcm;
using namespace std::chrono_literals;

// The daemon's own CCMs as the peer sees them (VID 0: untagged).
bool is_daemon_ccm(const Frame &f) {
  return f.size() > 21 && f[12] == 0x89 && f[15] == 1 && std::equal(f.begin() + 6, f.begin() + 12, cfmlab::kWanMac.begin());
}
uint32_t sequence_of(const Frame &f) { return (f[18] << 24) | (f[19] << 16) | (f[20] << 8) | f[21]; }

class CcmLab : public cfmlab::Lab {
 protected:
  // The daemon with the tick `interval` ("": 1 s) and a Down MEP 5 on port 1,
  // VID 0, in MA 1 "ma1" of MD 1 "md7" at level 7.
  void Start(const std::string &interval = "100ms", std::vector<std::string> args = DefaultArgs(),
             const char *ma = "createma 1 0 1 0 ma1") {
    if (!interval.empty()) {
      WriteFile("/var/tree/cfm/ccm_interval", interval + "\n");
      args.insert(args.end(), {"-t", "/var/tree"});
    }
    ASSERT_TRUE(StartDaemonReady(args));
    for (const char *request : {"createmd 1 0 7 0 md7", ma, "createmep 1 0 1 0 5 0 1 0 0 0 1"}) Command(request);
  }
  Frame NextCcm() { return peer().Receive(3000, is_daemon_ccm).value_or(Frame(22, 0)); }
};

// A burst is read in full: every frame repeats one sequence number, so each
// one read after the first counts one sequence error.
TEST_F(CcmLab, BurstIsReadInFull) {
  Start("");  // one-second tick: little tick work during the burst
  // Learn the peer first: the daemon's second CCM after it comes from a tick
  // that surely followed its processing.
  ASSERT_TRUE(peer().Send(PeerCcm(1)));
  NextCcm(), NextCcm();
  ASSERT_NE(Command("showremotemep").find("RemoteMepID : 9"), std::string::npos);
  Command("clearcnt");
  constexpr int kFrames = 5000;
  for (int i = 0; i < kFrames; ++i) ASSERT_TRUE(peer().Send(PeerCcm(0xABCDEF)));
  const std::string want = std::to_string(kFrames - 1) + "\n";
  std::string errors;
  for (int i = 0; i < 50 && errors != want; ++i, std::this_thread::sleep_for(100ms)) errors = Command("runtime 2");
  EXPECT_EQ(errors, want);
}

// Command handlers hold MEP_SYC across their read-modify-write of a MEP: with
// a 10 ms tick, no command is undone by a tick (runtime 1 would disagree) and
// no tick by a command (the sequence numbers on the wire would repeat).
TEST_F(CcmLab, CommandsAndTheFastTickNeverUndoEachOther) {
  Start("10ms");
  EXPECT_TRUE(WaitForOutput("CCMInterval=10"));
  std::atomic<bool> done{false};
  std::vector<uint32_t> seen;
  std::thread watcher([&] {
    while (!done) for (const Frame &f : peer().ReceiveAll(50, is_daemon_ccm)) seen.push_back(sequence_of(f));
  });
  int undone = 0;
  for (int i = 0; i < 200; ++i) {
    bool enable = i % 2 == 1;
    Command(std::string("configmep 1 0 1 0 5 0 1 0 0 0 100 0 2 ") + (enable ? "21" : "22"));
    std::this_thread::sleep_for(25ms);
    undone += Command("runtime 1") != (enable ? "Enable\n" : "Disable\n");
  }
  done = true;
  watcher.join();
  EXPECT_EQ(undone, 0);
  ASSERT_GT(seen.size(), 100u);
  size_t repeats = 0;
  for (size_t i = 1; i < seen.size(); ++i) repeats += seen[i] <= seen[i - 1];
  EXPECT_EQ(repeats, 0u);
}

// Events of a peer that stops and resumes its 100 ms CCMs, by watch, syslog
// and the notify program: one alarm for the lost continuity within the alarm
// time plus 3.5 intervals (and a tick), one clear after the reset time.
class EventLab : public CcmLab {
 protected:
  using Clock = std::chrono::steady_clock;
  // The daemon with `prog` for -n and syslog to log_, a JSON watcher, the peer.
  void StartWatched(const std::string &prog) {
    log_ = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un addr = {AF_UNIX, "/var/log.sock"};
    ASSERT_EQ(bind(log_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    setenv("CFMD_SYSLOG_PATH", "/var/log.sock", 1);
    WriteFile("/var/notify", prog), chmod("/var/notify", 0755);
    Start("100ms", {"-i", "wan0", "-e", "-n", "/var/notify"}, "createma 1 0 1 0 ma1 3 30");
    watch_ = Connect();
    ASSERT_EQ(send(watch_, "watch json\n", 11, 0), 11);
    Command("runtime 1");  // served after the watch request: the watcher is in place
    peer_ = std::thread([this] {
      for (uint32_t seq = 1; !done_; ++seq, std::this_thread::sleep_for(100ms)) sending_ && peer().Send(PeerCcm(seq, 3));
    });
  }
  void TearDown() override {
    done_ = true;
    if (peer_.joinable()) peer_.join();
    close(watch_), close(log_), unsetenv("CFMD_SYSLOG_PATH");
    CcmLab::TearDown();
  }
  // Milliseconds from `since` until a watch line holding `what` came (-1: not
  // within timeout_ms). Syslog datagrams are read as they come, as a log
  // daemon would (the socket holds few).
  long Await(const std::string &what, int timeout_ms, Clock::time_point since = Clock::now()) {
    char buf[4096];
    for (auto end = Clock::now() + std::chrono::milliseconds(timeout_ms); Clock::now() < end;) {
      for (ssize_t n; (n = recv(log_, buf, sizeof buf, MSG_DONTWAIT)) > 0;) syslog_ += std::string(buf, size_t(n)) + "\n";
      for (size_t nl; (nl = lines_.find('\n', scanned_)) != std::string::npos;) {
        bool hit = lines_.substr(scanned_, nl - scanned_).find(what) != std::string::npos;
        scanned_ = nl + 1;
        if (hit) return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
      }
      struct pollfd p = {watch_, POLLIN, 0};
      ssize_t n = poll(&p, 1, 50) > 0 ? recv(watch_, buf, sizeof buf, 0) : 0;
      if (n > 0) lines_.append(buf, size_t(n));
    }
    return -1;
  }
  int watch_ = -1, log_ = -1;
  std::atomic<bool> done_{false}, sending_{true};
  std::thread peer_;
  std::string lines_, syslog_;
  size_t scanned_ = 0;
};

TEST_F(EventLab, PeerStopsAndResumes) {
  // The program has the daemon's environment and the event's, and runs one at a time.
  StartWatched("#!/bin/sh\nprintf '(' >>/var/order; echo \"$CFMD_SYSLOG_PATH $CFM_EVENT $CFM_DEFECT_CODE $CFM_RMEPID $(cat)\" "
               ">>/var/notify.log; sleep 0.1; printf ')' >>/var/order\n");
  ASSERT_GE(Await("\"rmep-up\"", 3000), 0);
  std::this_thread::sleep_for(3s);  // heard all along: no alarm
  sending_ = false;
  auto stopped = Clock::now();
  EXPECT_GE(Await("\"rmep-down\"", 3000), 0);
  // The peer's last CCM came up to 100 ms before; a margin for a loaded machine.
  long alarm = Await("\"fault-alarm\"", 6000, stopped);
  EXPECT_TRUE(alarm >= 2500 + 350 - 200 && alarm <= 2500 + 350 + 100 + 1500) << alarm;
  sending_ = true;
  auto resumed = Clock::now();
  EXPECT_GE(Await("\"rmep-up\"", 3000), 0);
  long cleared = Await("\"fault-cleared\"", 14000, resumed);
  EXPECT_TRUE(cleared >= 10000 - 200 && cleared <= 10000 + 100 + 1500) << cleared;
  Await("never", 1000);
  std::string ran = ReadFile("/var/notify.log");
  // What came by each way, and how often.
  const std::vector<std::tuple<const std::string *, std::string, size_t>> want = {
      {&lines_, "fault-alarm", 1}, {&lines_, "fault-cleared", 1}, {&lines_, "\"defect\":\"remote CCM\",\"defect_code\":3", 2},
      {&syslog_, "<27>", 1}, {&syslog_, "<29>", 1},  // daemon.err: the alarm, daemon.notice: the clear
      {&syslog_, "fault-alarm md=md7 level=7 ma=ma1 mep=5 vid=0 defect=\"remote CCM\" defect_code=3", 1},
      {&ran, "/var/log.sock fault-alarm 3  {\"time\"", 1}, {&ran, "/var/log.sock fault-cleared 3  {", 1}};
  for (const auto &[text, what, n] : want) EXPECT_EQ(Count(*text, what), n) << what << "\n" << *text;
  EXPECT_GE(Count(ran, "rmep-up  9 {"), 2u);  // a late CCM of the loaded peer may age it out once more
  EXPECT_EQ(SchemaErrors(lines_, "event", true), "");
  EXPECT_EQ(Errors(), "");  // no notify event was lost
  EXPECT_EQ(ReadFile("/var/order").find("(("), std::string::npos);
}

// A watcher that never reads and a program that sleeps neither delay the
// CCMs nor cost a reading watcher an event.
TEST_F(EventLab, StalledConsumersDelayNothing) {
  StartWatched("#!/bin/sh\nsleep 60\n");
  int stalled = Connect();
  ASSERT_EQ(send(stalled, "watch\n", 6, 0), 6);
  ASSERT_GE(Await("\"rmep-up\"", 3000), 0);
  std::atomic<bool> measuring{true};
  long worst = 0, frames = 0;  // the largest gap between the daemon's 100 ms CCMs
  std::thread ccms([&] {
    for (auto last = Clock::now(); measuring;) {
      if (!peer().Receive(50, is_daemon_ccm)) continue;
      worst = std::max<long>(worst, std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last).count());
      last = Clock::now(), ++frames;
    }
  });
  const std::string changed = "\"object\":\"mep\",\"action\":\"changed\"";
  std::thread reader([&] { while (Await(changed, 3000) >= 0) {} });  // until 3 s pass without one
  size_t changes = 0;  // for 3 s: far more lines than the stalled watcher's buffer holds
  for (auto end = Clock::now() + 3s; Clock::now() < end; ++changes) {
    Command(std::string("configmep 1 0 1 0 5 0 1 0 0 0 100 0 4 4") + "23"[changes % 2]);
  }
  measuring = false;
  ccms.join(), reader.join();
  close(stalled);
  EXPECT_EQ(Count(lines_, changed), changes);
  EXPECT_NE(Errors().find("cfmd: notify queue full: "), std::string::npos);
  EXPECT_GT(frames, 10);
  EXPECT_LT(worst, 1000);
}

// The example notify program renews the lease of a running udhcpc (a stub
// that dies of the signal) after the delay bounds, only when continuity at
// the customer level comes back.
TEST_F(CcmLab, NotifyExampleRenewsTheLease) {
  const std::string run = "CFMD_RENEW_DELAY_MIN=1 CFMD_RENEW_DELAY_MAX=2 CFMD_RENEW_LOG=/var/renew.log " CFMD_DIST
                          "/notify-dhcp-renew";
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(Shell("cp \"$(command -v sleep)\" /var/udhcpc && { /var/udhcpc 30; echo $? >/var/stub.status; } & "
                  "sleep 0.3; for e in fault-alarm:5 rmep-up:4 rmep-down:5 fault-cleared:5; do CFM_EVENT=${e%:*} "
                  "CFM_MD_LEVEL=${e#*:} " + run + "; done; wait"), 0);
  long ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  std::string log = ReadFile("/var/renew.log");  // only the last one renews
  ASSERT_TRUE(log == "fault-cleared 1 udhcpc\n" || log == "fault-cleared 2 udhcpc\n") << log;
  EXPECT_GE(ms, (log[14] - '0') * 1000);
  EXPECT_EQ(ReadFile("/var/stub.status"), "138\n");  // 128 + SIGUSR1
}

}  // namespace
