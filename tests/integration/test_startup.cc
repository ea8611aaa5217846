// Start-up and end of the real daemon: the enable file, a missing interface
// option, the interface wait, the PVC MAC file, reports that reach the output
// on their own, and the clean end on a signal.
#include <sys/resource.h>
#include <sys/sem.h>
#include <unistd.h>

#include <csignal>
#include <random>
#include <thread>

#include "lab.h"

namespace {

using cfmlab::Lab;
using Startup = Lab;

// Each start prints its lines, then ends with the code given or (-1) stays
// up: a missing PVC MAC file and an unusable enable file are reported and
// start-up goes on.
TEST_F(Startup, StartsOrEndsAndReports) {
  Shell("ip link add 'ppp#1' type veth peer name ppp1");
  struct Case {
    const char *config;  // nullptr: no file
    std::vector<std::string> args;
    int code;
    std::vector<const char *> lines;
  } cases[] = {
      {"Enable=0\n", {"-e"}, 0, {"Cfm is disabled by cfg_manager\n"}},
      {"Enable=0\n", {"-e", "--version"}, 0, {"cfmd " CFMD_VERSION "\n"}},
      {"Enable=1\n", {"-i", "wan0", "x", "--help"}, 0, {"usage: cfmd -i NAME [-e]"}},
      {"Enable=1\n", {"-i", "--help", "-dt", "--version"}, -1, {"CFM interface is --help\n"}},  // values
      {"Enable=1\n", {"-eiwan0", "--", "--help"}, -1, {"CFM interface is wan0\n"}},
      {"Enable=1\n", {"-e", "-x"}, 255, {"CFM need interface\ncfm parse arg failed\n"}},
      {"Enable=1\n", {"-i"}, 255, {"CFM need interface\ncfm parse arg failed\n"}},
      {nullptr, DefaultArgs(), -1, {"Check cfm state fail\n", "CFM interface is wan0\n", "Open /var/tmp/pvc_mac fail\n"}},
      {"Enable=2\n", {"-z", "-d", "-i", "wan0", "-q"}, -1, {"Check cfm state fail\n", "Open CFM debug message\n"}},
      {"Enable=1\n", {"-i", "nosuch0", "-e"}, -1, {"Can't get nosuch0 mac\n"}},
      {"Enable=1\n", {"-w", "-i", "ppp#1"}, -1, {"CFM: CFM_Get_Ifindex\n"}},  // present interface: no wait
  };
  for (const Case &c : cases) {
    c.config ? WriteFile(kConfig, c.config) : (void)unlink(kConfig);
    ASSERT_TRUE(StartDaemon(c.args));
    if (c.code >= 0) {
      EXPECT_EQ(WaitExit().code, c.code);
    }
    for (const char *line : c.lines) EXPECT_TRUE(WaitForOutput(line)) << Output();
    if (c.code < 0) std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(Running(), c.code < 0) << Output() << Errors();
  }
  // -g: a group by name or number opens the socket to it; an unknown one leaves it private.
  for (auto [group, mode] : {std::pair{"daemon", "daemon 660"}, {"1", "daemon 660"}, {"nosuch", "root 600"}}) {
    ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-g", group}));
    EXPECT_EQ(Shell(std::string("[ \"$(stat -c '%G %a' /var/cfm_socket)\" = '") + mode + "' ]"), 0) << group;
    EXPECT_EQ(Output().find("CFM: no group nosuch") != std::string::npos, *group == 'n') << Output();
    Stop();
  }
  WriteFile("/var/tmp/pvc_mac", "1\n00:11:22:33:44:55\n");
  ASSERT_TRUE(StartDaemonReady());
  EXPECT_EQ(Output().find("pvc_mac fail"), std::string::npos) << Output();
  EXPECT_EQ(Output().find("Check cfm state fail"), std::string::npos) << Output();
}

// Reports printed without a newline reach the output before their task
// waits again, with no command to flush them, and a SIGTERM keeps them.
TEST_F(Startup, ReportsReachTheOutputBeforeTheTaskWaits) {
  WriteFile("/var/tree/cfm/ccm_interval", "100ms\n");
  ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-e", "-t", "/var/tree"}));
  EXPECT_TRUE(WaitForOutput("CCMInterval=100")) << Output();
  // An unclaimed double-tagged LTM is forwarded with a report of its own.
  cfmlab::Frame ltm = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3D, 2, 0, 0, 0, 0, 1, 0x81, 0, 0, 10, 0x81, 0, 0, 20,
                       0x89, 0x02, 0xA0, 0x05, 0x00, 0x11};
  ltm.resize(64, 0);
  ASSERT_TRUE(peer().Send(ltm));
  const char forward[] = "CFM: Forward the CFM packet to LAN because  VID/opcode not define";
  EXPECT_TRUE(WaitForOutput(forward)) << Output();
  EXPECT_EQ(Stop().signal, SIGTERM);
  EXPECT_NE(Output().find(forward), std::string::npos);
}

// A signal at any moment of start-up, on whichever thread it lands, leaves no
// set; every termination signal removes them; a killed run's sets go at the
// next start; another program's set stays.
TEST_F(Startup, NoSemaphoreSetOutlivesSignalsOrKills) {
  struct rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);  // SIGQUIT would dump one
  int foreign = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
  ASSERT_GE(foreign, 0);
  ASSERT_EQ(semctl(foreign, 0, SETVAL, 7), 0);
  std::mt19937 random(std::random_device{}());
  // Signals the daemon `delay_us` after its start (once ready when < 0);
  // returns how many sets it added.
  auto run = [&](int sig, int delay_us) {
    int before = SemaphoreSetCount();
    if (delay_us < 0) {
      EXPECT_TRUE(StartDaemonReady());
    } else {
      StartDaemon(DefaultArgs(), 0);
      usleep(delay_us);
    }
    kill(pid(), sig);
    EXPECT_EQ(WaitExit().signal, sig);
    return SemaphoreSetCount() - before;
  };
  int leaking_starts = 0;
  for (int i = 0; i < 300; ++i) leaking_starts += run(SIGTERM, static_cast<int>(random() % 10001)) > 0;
  const int signals[] = {SIGTERM, SIGINT, SIGHUP, SIGQUIT};
  for (int i = 0; i < 20; ++i) {
    int killed = run(SIGKILL, -1);
    EXPECT_GT(killed, 0);
    leaking_starts += run(signals[i % 4], -1) != -killed;  // the killed run's sets went too
  }
  EXPECT_EQ(leaking_starts, 0);
  EXPECT_EQ(SemaphoreSetCount(), 1);
  EXPECT_EQ(semctl(foreign, 0, GETVAL), 7);
}

// -w waits for the WAN only; a LAN named with -l is opened once it appears.
TEST_F(Startup, WaitOptionWaitsUntilTheInterfaceExists) {
  ASSERT_EQ(Shell("command -v ifconfig >/dev/null"), 0) << "ifconfig (net-tools) is needed for -w";
  ASSERT_TRUE(StartDaemon({"-i", "late0", "-w", "-d", "-l", "late2"}));
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_TRUE(Running());
  EXPECT_EQ(Output().find("CFM endof waiting"), std::string::npos) << Output();
  ASSERT_TRUE(AddLink("late0", "late1"));
  EXPECT_TRUE(WaitForOutput("CFM endof waiting late0\n", 5000)) << Output();
  EXPECT_TRUE(WaitForOutput("CFM: CFM_Get_Ifindex\n", 1000)) << Output();
  EXPECT_EQ(Output().find("Can't get late0 mac"), std::string::npos) << Output();
  ASSERT_TRUE(AddLink("late2", "late3"));
  EXPECT_TRUE(WaitForOutput("CFM endof waiting late2\n", 3000)) << Output();
  EXPECT_EQ(Output().find("cannot be used"), std::string::npos) << Output();
  EXPECT_EQ(Stop().signal, SIGTERM);
}

}  // namespace
