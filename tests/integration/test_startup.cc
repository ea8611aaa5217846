// Start-up of the real daemon: configuration file, options, interface wait,
// PVC MAC file, and the clean end on SIGTERM.
#include <csignal>
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
  void ExpectStopsOnSigterm() {
    cfmlab::ExitInfo info = Stop();
    EXPECT_FALSE(info.timed_out);
    EXPECT_TRUE(info.signaled) << "exit code " << info.code;
    EXPECT_EQ(info.signal, SIGTERM);
  }
};

TEST_F(Startup, DisabledByConfigExitsZero) {
  WriteFile(kConfig, "Enable=0\n");
  ASSERT_TRUE(StartDaemon());
  cfmlab::ExitInfo info = WaitExit();
  EXPECT_TRUE(info.exited);
  EXPECT_EQ(info.code, 0);
  EXPECT_EQ(Output(), "Cfm is disabled by cfg_manager\n");
}

TEST_F(Startup, DisabledConfigWinsOverMissingInterfaceOption) {
  WriteFile(kConfig, "Enable=0\n");
  ASSERT_TRUE(StartDaemon({"-e"}));
  cfmlab::ExitInfo info = WaitExit();
  EXPECT_TRUE(info.exited);
  EXPECT_EQ(info.code, 0);
}

TEST_F(Startup, UnusableConfigIsReportedAndStartUpGoesOn) {
  const char *cases[] = {nullptr, "Enable=2\n", "enable=1\n"};
  for (const char *config : cases) {
    SCOPED_TRACE(config == nullptr ? "missing file" : config);
    if (config == nullptr) {
      RemoveFile(kConfig);
    } else {
      WriteFile(kConfig, config);
    }
    ASSERT_TRUE(StartDaemon());
    EXPECT_TRUE(WaitForOutput("Check cfm state fail\n", 2000)) << Output();
    EXPECT_TRUE(WaitForOutput("CFM interface is wan0\n", 2000)) << Output();
    ExpectStaysUp();
    ExpectStopsOnSigterm();
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
  ExpectStopsOnSigterm();
}

TEST_F(Startup, MissingInterfaceOptionFails) {
  const std::vector<std::vector<std::string>> cases = {{"-e", "-x"}, {"-i"}};
  for (const auto &args : cases) {
    ASSERT_TRUE(StartDaemon(args));
    cfmlab::ExitInfo info = WaitExit();
    EXPECT_TRUE(info.exited);
    EXPECT_EQ(info.code, 255);  // main returns -1
    EXPECT_NE(Output().find("CFM need interface\ncfm parse arg failed\n"), std::string::npos) << Output();
  }
}

TEST_F(Startup, DebugOptionAndUnknownOptions) {
  ASSERT_TRUE(StartDaemon({"-z", "-d", "-i", "wan0", "-q"}));
  EXPECT_TRUE(WaitForOutput("Open CFM debug message\n")) << Output();
  ExpectStaysUp();
}

TEST_F(Startup, LongInterfaceNameIsCutToTheSystemLimit) {
  ASSERT_TRUE(StartDaemon({"-i", "abcdefghijklmnopqrstuvwxyz0123456789"}));
  EXPECT_TRUE(WaitForOutput("CFM interface is abcdefghijklmno\n")) << Output();
  EXPECT_TRUE(WaitForOutput("Can't get abcdefghijklmno mac\n")) << Output();
  ExpectStaysUp();
}

TEST_F(Startup, UnknownInterfaceHasNoMacButDaemonRuns) {
  ASSERT_TRUE(StartDaemon({"-i", "nosuch0", "-e"}));
  EXPECT_TRUE(WaitForOutput("Can't get nosuch0 mac\n")) << Output();
  ExpectStaysUp();
  ExpectStopsOnSigterm();
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

TEST_F(Startup, SemaphoresAreRemovedOnSigtermAndSigint) {
  int before = SemaphoreSetCount();
  for (int sig : {SIGTERM, SIGINT, SIGTERM}) {
    ASSERT_TRUE(StartDaemon());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(Running()) << Output() << Errors();
    EXPECT_GT(SemaphoreSetCount(), before);
    kill(pid(), sig);
    cfmlab::ExitInfo info = WaitExit();
    EXPECT_TRUE(info.signaled);
    EXPECT_EQ(info.signal, sig);
    EXPECT_EQ(SemaphoreSetCount(), before) << "after signal " << sig;
  }
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
  ExpectStopsOnSigterm();
}

TEST_F(Startup, WaitOptionWithPresentInterfaceGoesOn) {
  ASSERT_EQ(Shell("command -v ifconfig >/dev/null"), 0) << "ifconfig (net-tools) is needed for -w";
  ASSERT_TRUE(StartDaemon({"-w", "-i", "wan0"}));
  EXPECT_TRUE(WaitForOutput("CFM: CFM_Get_Ifindex\n", 3000)) << Output();
  ExpectStaysUp();
}

}  // namespace
