// The command socket and cfmctl as separate processes: clients that misbehave,
// the tree export and the client's own exit status. The texts of every command
// are checked in-process by the unit tests.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "cli/server.h"
#include "lab.h"

namespace {

using cfmlab::Lab;
using Clock = std::chrono::steady_clock;
const char kTree[] = "/var/tree";

TEST_F(Lab, HostileClientsDoNotStopTheServer) {
  ASSERT_TRUE(StartDaemonReady());
  // The defaults the daemon starts with.
  EXPECT_EQ(Command("showdefault 1"), "\r\n Default MD Level  : 2\r\n default_MHF_creation  : CFM MHF CREATION NONE");
  // A silent client is dropped after two seconds; the next one is served.
  int silent = Connect();
  ASSERT_GE(silent, 0);
  auto start = Clock::now();
  EXPECT_EQ(Command("showdefault 2"), "\r\n CFM Status  : enabled");
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(3500));
  struct pollfd pfd = {silent, POLLIN, 0};
  EXPECT_EQ(poll(&pfd, 1, 1000), 1);
  char byte;
  EXPECT_EQ(read(silent, &byte, 1), 0);
  close(silent);
  EXPECT_EQ(Command(std::string(5000, 'x')), "unknown command !\n");
  Command(std::string("showmd\0\xff\x01 showma", 14));
  for (int i = 0; i < 300; ++i) {  // clients that go away without waiting
    int fd = Connect();
    EXPECT_GE(fd, 0);
    if (i % 3 == 0) (void)!write(fd, "showdefault 9", 13);
    close(fd);
  }
  EXPECT_EQ(Command("showdefault 2", 10000), "\r\n CFM Status  : enabled");
  EXPECT_TRUE(Running());
}

TEST_F(Lab, CfmctlSendsRequestsAndReadsTheTree) {
  ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-t", kTree}));
  int status = -1;
  EXPECT_EQ(RunCfmctl({"createmd", "1", "0", "5", "0", "dom"}, &status), "");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Command("createma 1 0 2 0 assoc"), "");
  EXPECT_EQ(Command("createmep 1 0 2 0 10 0 1 0 0 0 1"), "");
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "ltm", "--json"}, &status),
            "[{\"sequence_num\":1,\"unexpect_ltr\":0,\"flag\":\"None\",\"target\":\"00:00:00:00:00:00\","
            "\"target_mepid\":0,\"target_ismep\":\"disabled\",\"ttl\":64,\"result\":\"Fail\",\"ltm_sequence\":0}]\n");
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "lbm"}, &status),
            "result  first_sequence  next_lbm  valid_lbr_in  valid_lbr_outoforder  bad_lbr_msdu  transmit_lbr  status\n"
            "Fail    0               0         0             0                     0             0             "
            "LBM Transmit Finished\n");
  // Remote MEPs: the flag key is 1 during the export's sleep, 0 after.
  auto start = Clock::now();
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "rmep"}, &status), "row  md_id  ma_id  rmep_id  vlan_id  src_mac\n");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(ReadFile("/var/tree/runtime/cfm/rmep_db"), "0\n");
  Stop();
  EXPECT_EQ(RunCfmctl({"showmd"}, &status), "");
  EXPECT_EQ(status, 1);
  std::string help = RunCfmctl({"--help"}, &status);
  EXPECT_EQ(status, 0);
  for (const CliCommand *row = cfm_cli_cmd_table; row->name != nullptr; ++row) {
    EXPECT_NE(help.find(std::string("  ") + row->name + " "), std::string::npos) << row->name;
  }
}

}  // namespace
