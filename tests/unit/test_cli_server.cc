// Request parsing, the argument guards and the request reader of the
// command server, driven in-process.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "cli/server.h"
#include "cli_capture.h"
#include "core/global.h"

namespace {

class CliServer : public ::testing::Test {
 protected:
  void SetUp() override { CFM_Global_Reset(); }
};

TEST(CliNumber, DigitsOnly) {
  EXPECT_EQ(cfm_cli_is_number("0"), 1);
  EXPECT_EQ(cfm_cli_is_number("0042"), 1);
  EXPECT_EQ(cfm_cli_is_number(""), 0);
  EXPECT_EQ(cfm_cli_is_number("-4"), 0);
  EXPECT_EQ(cfm_cli_is_number("12abc"), 0);
  EXPECT_EQ(cfm_cli_is_number("0x10"), 0);
  EXPECT_EQ(cfm_cli_is_number("5\n"), 0);
  EXPECT_EQ(cfm_cli_is_number(nullptr), 0);
}

TEST_F(CliServer, WordsSplitOnSpacesOnlyAndLineFeedStaysInTheWord) {
  EXPECT_EQ(Cli("default 4 0 2"), "");
  const std::string defaults =
      "\r\n Default MD Level  : 4\r\n default_MHF_creation  : CFM MHF CREATION DEFAULT";
  EXPECT_EQ(Cli("showdefault 1"), defaults);
  EXPECT_EQ(Cli("   showdefault    0001   "), defaults);
  EXPECT_EQ(Cli("showdefault\n"), "unknown command !\n");
  EXPECT_EQ(Cli("SHOWDEFAULT 1"), "unknown command !\n");
  // A trailing line feed makes the last argument text.
  EXPECT_EQ(Cli("showdefault 1\n"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("showdefault -4"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("showdefault\t1"), "unknown command !\n");
  EXPECT_EQ(Cli(""), "");
  EXPECT_EQ(Cli("     "), "");
}

TEST_F(CliServer, GlobalCommands) {
  EXPECT_EQ(Cli("showdefault 2"), "\r\n CFM Status  : disabled");
  Cli("enable");
  EXPECT_EQ(Cli("showdefault 2"), "\r\n CFM Status  : enabled");
  Cli("disable extra words");
  EXPECT_EQ(Cli("showdefault 2"), "\r\n CFM Status  : disabled");
  EXPECT_EQ(Cli("showdefault 3"), "");
  Cli("default 4 0 1");
  Cli("default 5 0 3");  // level stored, MHF creation kept
  Cli("default 9 0 2");  // refused as a whole
  EXPECT_EQ(Cli("showdefault 1"),
            "\r\n Default MD Level  : 5\r\n default_MHF_creation  : CFM MHF CREATION NONE");
  EXPECT_EQ(Cli("debugon"), "Open CFM debug message\n");
  EXPECT_EQ(cfm_debug_msg, 1);
  EXPECT_EQ(Cli("debugoff 7"), "Close CFM debug message\n");
  EXPECT_EQ(cfm_debug_msg, 0);
}

TEST_F(CliServer, GuardsRefuseShortAndMistypedRequests) {
  GlobalEntry before = {};
  CFM_IF_Get_Global_Entry(&before);
  EXPECT_EQ(Cli("default"), "\r\nError!! Missing argument");
  EXPECT_EQ(Cli("default 3 0"), "\r\nError!! Missing argument");
  EXPECT_EQ(Cli("default x 0 2"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("default 3 0 y"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("showdefault"), "\r\nError!! Missing argument");
  GlobalEntry after = {};
  CFM_IF_Get_Global_Entry(&after);
  EXPECT_EQ(after.default_md_level, before.default_md_level);
  EXPECT_EQ(after.mhf_creation, before.mhf_creation);
}

// The request reader: a line ends at '\n' (kept), at 1023 bytes or at end of
// stream; silence for the whole timeout gives no request.
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

TEST_F(RequestReader, LineEndsAtNewlineOrEndOfStream) {
  Send("showmd\nmore");
  ASSERT_TRUE(cfm_cli_read_request(fds_[0], line_, 500));
  EXPECT_STREQ(line_, "showmd\n");
  CloseClient();
  ASSERT_TRUE(cfm_cli_read_request(fds_[0], line_, 500));
  EXPECT_STREQ(line_, "more");
}

TEST_F(RequestReader, LongLinesAreCutAt1023Bytes) {
  Send(std::string(2000, 'a'));
  ASSERT_TRUE(cfm_cli_read_request(fds_[0], line_, 500));
  EXPECT_EQ(strlen(line_), 1023u);
}

TEST_F(RequestReader, SilentClientTimesOut) {
  Send("showmd");  // no end of stream
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(cfm_cli_read_request(fds_[0], line_, 300));
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(250));
  EXPECT_LT(waited, std::chrono::milliseconds(2000));
}

TEST_F(RequestReader, ServedConnectionRunsTheRequestAndCloses) {
  Send("showdefault 2");
  CloseClient();
  std::string out = CaptureStdout([&] { cfm_cli_serve_connection(fds_[0]); });
  fds_[0] = socket(AF_UNIX, SOCK_STREAM, 0);  // TearDown closes a fresh fd
  EXPECT_EQ(out, "\r\n CFM Status  : disabled");
}

}  // namespace
