// Start-up of the real daemon: configuration file, options, interface wait,
// PVC MAC file, and the clean end on SIGTERM.
#include <sys/resource.h>
#include <sys/sem.h>
#include <unistd.h>

#include <csignal>
#include <random>
#include <thread>

#include "lab.h"

namespace {

using cfmlab::Lab;

class Startup : public Lab {
 protected:
  // The daemon is up and inert: still running a moment after start.
  void ExpectStaysUp() {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(Running()) << Output() << Errors();
  }
  void ExpectEnd(cfmlab::ExitInfo info, bool exited, int code_or_signal) {
    EXPECT_FALSE(info.timed_out);
    EXPECT_EQ(info.exited, exited);
    EXPECT_EQ(exited ? info.code : info.signal, code_or_signal);
  }
};

TEST_F(Startup, DisabledByConfigExitsZeroEvenWithoutInterface) {
  WriteFile(kConfig, "Enable=0\n");
  for (const auto &args : std::vector<std::vector<std::string>>{DefaultArgs(), {"-e"}}) {
    ASSERT_TRUE(StartDaemon(args));
    ExpectEnd(WaitExit(), true, 0);
    EXPECT_EQ(Output(), "Cfm is disabled by cfg_manager\n");
  }
}

TEST_F(Startup, UnusableConfigIsReportedAndStartUpGoesOn) {
  for (const char *config : {"", "Enable=2\n", "enable=1\n"}) {
    SCOPED_TRACE(*config == 0 ? "missing file" : config);
    if (*config == 0) {
      unlink(kConfig);
    } else {
      WriteFile(kConfig, config);
    }
    ASSERT_TRUE(StartDaemon());
    EXPECT_TRUE(WaitForOutput("Check cfm state fail\n", 2000)) << Output();
    EXPECT_TRUE(WaitForOutput("CFM interface is wan0\n", 2000)) << Output();
    ExpectStaysUp();
    ExpectEnd(Stop(), false, SIGTERM);
  }
}

TEST_F(Startup, EnabledConfigStartsQuietlyAndStopsOnSigterm) {
  ASSERT_TRUE(StartDaemon());
  EXPECT_TRUE(WaitForOutput("Close CFM debug message\n"));
  ExpectStaysUp();
  std::string out = Output();
  EXPECT_EQ(out.find("Check cfm state fail"), std::string::npos) << out;
  EXPECT_EQ(out.find("Can't get"), std::string::npos) << out;
  EXPECT_EQ(out.rfind("CFM interface is wan0\n", 0), 0u) << out;
  ExpectEnd(Stop(), false, SIGTERM);
}

TEST_F(Startup, MissingInterfaceOptionFails) {
  for (const auto &args : std::vector<std::vector<std::string>>{{"-e", "-x"}, {"-i"}}) {
    ASSERT_TRUE(StartDaemon(args));
    ExpectEnd(WaitExit(), true, 255);  // main returns -1
    EXPECT_NE(Output().find("CFM need interface\ncfm parse arg failed\n"), std::string::npos) << Output();
  }
}

TEST_F(Startup, OptionsAndInterfacesThatStillRun) {
  struct Case {
    std::vector<std::string> args;
    std::vector<const char *> lines;
  } cases[] = {
      {{"-z", "-d", "-i", "wan0", "-q"}, {"Open CFM debug message\n"}},  // unknown options ignored
      {{"-i", "abcdefghijklmnopqrstuvwxyz0123456789"},                   // cut to the system limit
       {"CFM interface is abcdefghijklmno\n", "Can't get abcdefghijklmno mac\n"}},
      {{"-i", "nosuch0", "-e"}, {"Can't get nosuch0 mac\n"}},
      {{"-w", "-i", "wan0"}, {"CFM: CFM_Get_Ifindex\n"}},  // present interface: no wait
      {{"-w", "-i", "ppp#1"}, {"CFM: CFM_Get_Ifindex\n"}},  // any valid name is checked
  };
  ASSERT_EQ(Shell("command -v ifconfig >/dev/null"), 0) << "ifconfig (net-tools) is needed for -w";
  Shell("ip link add 'ppp#1' type veth peer name ppp1");
  for (const Case &c : cases) {
    ASSERT_TRUE(StartDaemon(c.args));
    for (const char *line : c.lines) EXPECT_TRUE(WaitForOutput(line)) << Output();
    ExpectStaysUp();
  }
  ExpectEnd(Stop(), false, SIGTERM);
}

// Reports printed without a newline reach the output before their task
// waits again, with no command to flush them, and a SIGTERM keeps them.
TEST_F(Startup, ReportsReachTheOutputBeforeTheTaskWaits) {
  WriteFile("/var/tree/cfm/ccm_interval", "100ms\n");
  std::vector<std::string> args = DefaultArgs();
  args.insert(args.end(), {"-t", "/var/tree"});
  ASSERT_TRUE(StartDaemonReady(args));
  EXPECT_TRUE(WaitForOutput("CCMInterval=100")) << Output();
  // An unclaimed double-tagged LTM is forwarded with a report of its own.
  cfmlab::Frame ltm = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x3D, 2, 0, 0, 0, 0, 1, 0x81, 0, 0, 10, 0x81, 0, 0, 20,
                       0x89, 0x02, 0xA0, 0x05, 0x00, 0x11};
  ltm.resize(64, 0);
  ASSERT_TRUE(peer().Send(ltm));
  const char forward[] = "CFM: Forward the CFM packet to LAN because  VID/opcode not define";
  EXPECT_TRUE(WaitForOutput(forward)) << Output();
  ExpectEnd(Stop(), false, SIGTERM);
  EXPECT_NE(Output().find("CCMInterval=100"), std::string::npos) << Output();
  EXPECT_NE(Output().find(forward), std::string::npos);
}

TEST_F(Startup, PvcMacFileMissingIsReported) {
  ASSERT_TRUE(StartDaemon());
  EXPECT_TRUE(WaitForOutput("Open /var/tmp/pvc_mac fail\n")) << Output();
  Stop();
  WriteFile(kPvcMac, "1\n00:11:22:33:44:55\n");
  ASSERT_TRUE(StartDaemon());
  ExpectStaysUp();
  EXPECT_EQ(Output().find("pvc_mac fail"), std::string::npos) << Output();
}

TEST_F(Startup, SemaphoresAreRemovedOnEveryTerminationSignal) {
  struct rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);  // SIGQUIT would dump one
  int before = SemaphoreSetCount();
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGTERM}) {
    ASSERT_TRUE(StartDaemon());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(Running()) << Output() << Errors();
    EXPECT_GT(SemaphoreSetCount(), before);
    kill(pid(), sig);
    ExpectEnd(WaitExit(), false, sig);
    EXPECT_EQ(SemaphoreSetCount(), before) << "after signal " << sig;
  }
}

// A signal at any moment of start-up, on whichever thread it lands, leaves no
// set; a killed run's sets go at the next start; another program's set stays.
TEST_F(Startup, NoSemaphoreSetOutlivesEarlySignalsOrKills) {
  int foreign = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
  ASSERT_GE(foreign, 0);
  ASSERT_EQ(semctl(foreign, 0, SETVAL, 7), 0);
  std::mt19937 random(std::random_device{}());
  // Signals the daemon `delay_us` after its start (once ready when < 0);
  // returns how many sets it added.
  auto run = [&](int sig, int delay_us) {
    int before = SemaphoreSetCount();
    StartDaemon(DefaultArgs(), 0);
    if (delay_us < 0) {
      EXPECT_TRUE(WaitCommandSocket()) << Output();
    } else {
      usleep(delay_us);
    }
    kill(pid(), sig);
    EXPECT_EQ(WaitExit().signal, sig);
    return SemaphoreSetCount() - before;
  };
  int leaking_starts = 0;
  for (int i = 0; i < 300; ++i) leaking_starts += run(SIGTERM, static_cast<int>(random() % 10001)) > 0;
  for (int i = 0; i < 20; ++i) {
    int killed = run(SIGKILL, -1);
    EXPECT_GT(killed, 0);
    leaking_starts += run(SIGTERM, -1) != -killed;  // the killed run's sets went too
  }
  EXPECT_EQ(leaking_starts, 0);
  EXPECT_EQ(SemaphoreSetCount(), 1);
  EXPECT_EQ(semctl(foreign, 0, GETVAL), 7);
}

TEST_F(Startup, WaitOptionWaitsUntilTheInterfaceExists) {
  ASSERT_EQ(Shell("command -v ifconfig >/dev/null"), 0) << "ifconfig (net-tools) is needed for -w";
  ASSERT_TRUE(StartDaemon({"-i", "late0", "-w", "-d"}));
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_TRUE(Running());
  EXPECT_EQ(Output().find("CFM endof waiting"), std::string::npos) << Output();
  ASSERT_EQ(Shell("ip link add late0 type veth peer name late1"), 0);
  EXPECT_TRUE(WaitForOutput("CFM endof waiting late0\n", 5000)) << Output();
  EXPECT_TRUE(WaitForOutput("CFM: CFM_Get_Ifindex\n", 1000)) << Output();
  EXPECT_EQ(Output().find("Can't get late0 mac"), std::string::npos) << Output();
  ExpectEnd(Stop(), false, SIGTERM);
}

}  // namespace
