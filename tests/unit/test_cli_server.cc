// Request parsing and the request reader of the command server, driven
// in-process.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "cli/server.h"
#include "harness.h"
#include "core/global.h"

namespace {

using harness::Cli;
using harness::ExpectCli;

class CliServer : public ::testing::Test {
 protected:
  void SetUp() override { CFM_Global_Reset(); }
};

TEST(CliNumber, DigitsOnly) {
  for (const char *yes : {"0", "0042"}) EXPECT_EQ(cfm_cli_is_number(yes), 1) << yes;
  for (const char *no : {"", "-4", "12abc", "0x10", "5\n"}) EXPECT_EQ(cfm_cli_is_number(no), 0) << no;
  EXPECT_EQ(cfm_cli_is_number(nullptr), 0);
}

TEST_F(CliServer, WordsSplitOnSpacesOnly) {
  const std::string defaults = "\r\n Default MD Level  : 4\r\n default_MHF_creation  : CFM MHF CREATION DEFAULT";
  ExpectCli({{"default 4 0 2", ""}, {"   showdefault    0001   ", defaults}, {"showdefault\t1", "unknown command !\n"},
             {"SHOWDEFAULT 1", "unknown command !\n"}, {"showdefault 1\n", "\r\nError!! Invalid argument"},
             {"showdefault -4", "\r\nError!! Invalid argument"},
             {"", ""}, {"     ", ""}});
}

TEST_F(CliServer, GlobalCommands) {
  const char off[] = "\r\n CFM Status  : disabled", on[] = "\r\n CFM Status  : enabled";
  // default: level 5 with MHF code 3 stores the level only; level 9 is refused as a whole.
  ExpectCli({{"showdefault 2", off}, {"enable", ""}, {"showdefault 2", on}, {"disable extra words", ""},
             {"showdefault 2", off}, {"showdefault 3", ""}, {"default 4 0 1", ""}, {"default 5 0 3", ""},
             {"default 9 0 2", ""},
             {"showdefault 1", "\r\n Default MD Level  : 5\r\n default_MHF_creation  : CFM MHF CREATION NONE"},
             {"debugon", "Open CFM debug message\n"}});
  EXPECT_EQ(cfm_debug_msg, 1);
  EXPECT_EQ(Cli("debugoff 7"), "Close CFM debug message\n");
  EXPECT_EQ(cfm_debug_msg, 0);
}

// The request reader: a line ends at '\n' (kept), at 1023 bytes or at end of
// stream. (The timeout and serving are exercised through the real socket.)
class RequestReader : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0); }
  void TearDown() override {
    close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
  }
  void Send(const std::string &text) { ASSERT_EQ(write(fds_[1], text.data(), text.size()), (ssize_t)text.size()); }
  void CloseClient() {
    close(fds_[1]);
    fds_[1] = -1;
  }
  int fds_[2] = {-1, -1};
  char line_[CFM_CLI_LINE_MAX + 1];
};

TEST_F(RequestReader, LineEndsAtNewline1023BytesOrEndOfStream) {
  Send("showmd\n" + std::string(2000, 'a'));
  ASSERT_TRUE(cfm_cli_read_request(fds_[0], line_, 500));
  EXPECT_STREQ(line_, "showmd\n");
  ASSERT_TRUE(cfm_cli_read_request(fds_[0], line_, 500));
  EXPECT_EQ(std::string(line_), std::string(1023, 'a'));
  CloseClient();
  ASSERT_TRUE(cfm_cli_read_request(fds_[0], line_, 500));
  EXPECT_EQ(std::string(line_), std::string(977, 'a'));
}

}  // namespace
