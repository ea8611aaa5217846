// Start-up helpers run in-process: the enable file, the command line and the
// PVC MAC table.
#include "core/startup.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "core/frame_type.h"
#include "core/global.h"

namespace {

struct TempFile {
  explicit TempFile(const std::string &text) {
    char name[] = "/tmp/cfm_unit_XXXXXX";
    close(mkstemp(name));
    path_ = name;
    std::ofstream(path_) << text;
  }
  ~TempFile() { unlink(path_.c_str()); }
  const char *path() const { return path_.c_str(); }
  std::string path_;
};

// Runs cfm_parse_args on the words (argv[0] added); stdout is swallowed.
struct ParseResult {
  int result;
  char ifname[IFNAMSIZ + 8];
  int frame_type;
  std::string out;
};
ParseResult parse(std::vector<std::string> words) {
  words.insert(words.begin(), "cfmd");
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  ParseResult r;
  memset(r.ifname, 'Z', sizeof r.ifname);
  r.frame_type = CFM_FRAME_TYPE_UNKNOWN;
  testing::internal::CaptureStdout();
  r.result = cfm_parse_args(static_cast<int>(words.size()), argv.data(), r.ifname, &r.frame_type);
  r.out = testing::internal::GetCapturedStdout();
  return r;
}

class StartupInput : public testing::Test {
 protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    CFM_Global_Reset();
    cfm_debug_msg = 0;
    cfm_clear_pvc_mac();
  }
};

TEST_F(StartupInput, ConfigEnableFile) {
  struct Case { const char *text; int result, status; } cases[] = {  // status -99: untouched
      {"Enable=1\n", 1, 1},        {"Enable=0", 1, 0},          {"Enable=2\n", 0, 2},
      {"Enable=-1\n", 0, -1},      {"Enable = 1\n", 1, 1},      {"EnableX=1\n", 1, 1},
      {"Enable\n", 0, -99},        {"enable=1\n", 0, -99},      {"", 0, -99},
      {"\nEnable=1\n", 0, -99},    {"Enable=abc\n", 1, 0},      {"Enable=1=0\n", 1, 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text);
    TempFile file(c.text);
    int status = -99;
    EXPECT_EQ(cfm_check_config_enable_at(file.path(), &status), c.result);
    EXPECT_EQ(status, c.status);
  }
  int status = -99;
  EXPECT_EQ(cfm_check_config_enable_at("/nonexistent/cfm/config", &status), 0);
  EXPECT_EQ(status, -99);
  // Only the first 127 characters of the first line count.
  TempFile long_line(std::string("Enable") + std::string(125, ' ') + "=1\n");
  EXPECT_EQ(cfm_check_config_enable_at(long_line.path(), &status), 0);
}

// Unknown options and stray words are ignored; the last -i and the last -f
// count; the name is bounded to the system limit; no -i is a failure.
TEST_F(StartupInput, OptionsAndTheirResults) {
  struct Case {
    std::vector<std::string> words;
    int result;
    const char *ifname, *out;
    int frame_type;
  } cases[] = {
      {{"-i", "wan0"}, 1, "wan0", "CFM interface is wan0\nClose CFM debug message\n", CFM_FRAME_TYPE_UNKNOWN},
      {{"-w", "-d", "-e", "-i", "ppp0", "-f", "8023"}, 2, "ppp0", "CFM interface is ppp0\nOpen CFM debug message\n",
       CFM_FRAME_TYPE_8023},
      {{"-x", "-i", "a0", "-q", "-i", "b0", "-f", "ethernet"}, 1, "b0", nullptr, CFM_FRAME_TYPE_ETH},
      {{"-i", std::string(40, 'x'), "-f", "8023", "-f", "802"}, 1, "xxxxxxxxxxxxxxx", nullptr, CFM_FRAME_TYPE_UNKNOWN},
      {{}, 0, nullptr, "CFM need interface\n", CFM_FRAME_TYPE_UNKNOWN},
      {{"-e", "-w", "-f", "eth"}, 0, nullptr, "CFM need interface\n", CFM_FRAME_TYPE_ETH},
      {{"-i"}, 0, nullptr, "CFM need interface\n", CFM_FRAME_TYPE_UNKNOWN},
  };
  for (const Case &c : cases) {
    ParseResult r = parse(c.words);
    EXPECT_EQ(r.result, c.result) << r.out;
    if (c.ifname != nullptr) { EXPECT_STREQ(r.ifname, c.ifname); }
    EXPECT_EQ(r.ifname[IFNAMSIZ], 'Z');  // nothing written past the buffer
    if (c.out != nullptr) { EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out; }
    EXPECT_EQ(r.frame_type, c.frame_type) << r.out;
  }
  EXPECT_EQ(isCfmEnable(), 1u);  // -e of the second case stays
}

// Reads `text` as the PVC MAC file; returns the table's addresses.
std::vector<uint8_t> ReadPvc(const std::string &text, int result = 1) {
  TempFile file(text);
  EXPECT_EQ(cfm_read_pvc_mac_at(file.path()), result) << text;
  const uint8_t *macs = g_pvc_mac_table.macs;
  return macs ? std::vector<uint8_t>(macs, macs + 6 * g_pvc_mac_table.count) : std::vector<uint8_t>{};
}

TEST_F(StartupInput, PvcMacFile) {
  const uint8_t a[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
  const uint8_t b[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};
  const uint8_t zero[6] = {0}, extra[6] = {0, 0, 0, 0, 0, 0x77};
  // Lines beyond the announced count are ignored, blank lines are not counted.
  EXPECT_EQ(ReadPvc("2\n00:11:22:33:44:55\n\n00:11:22:33:44:66\n00:00:00:00:00:77\n"),
            (std::vector<uint8_t>{0, 0x11, 0x22, 0x33, 0x44, 0x55, 0, 0x11, 0x22, 0x33, 0x44, 0x66}));
  EXPECT_EQ(checkPvcMac(a) + checkPvcMac(b), 2);
  EXPECT_EQ(checkPvcMac(extra), 0);
  EXPECT_EQ(checkPvcMac(nullptr), 0);
  // Malformed lines keep their slot, all zero; upper case and short pieces parse.
  EXPECT_EQ(ReadPvc("3\n00:11:22:33:44\nAA:b:0C:d:E:f\nzz-yy\n"),
            (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0xaa, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(checkPvcMac(zero), 1);  // a zero slot matches the zero address
  // A seventh piece is not read.
  EXPECT_EQ(ReadPvc("1\n00:11:22:33:44:55:66\n"), (std::vector<uint8_t>{0, 0x11, 0x22, 0x33, 0x44, 0x55}));
  // Fewer lines than announced: the rest stay zero.
  EXPECT_EQ(ReadPvc("4\n00:11:22:33:44:55\n"), (std::vector<uint8_t>{0, 0x11, 0x22, 0x33, 0x44, 0x55,
                                                                  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                                  0, 0, 0, 0, 0, 0}));
  // An empty table (count 0, no count line, an empty file) accepts every address.
  for (const char *empty : {"0\n00:11:22:33:44:55\n", "\n\nabc\n", ""}) {
    EXPECT_EQ(ReadPvc(empty), std::vector<uint8_t>{}) << empty;
    EXPECT_TRUE(g_pvc_mac_table.count == 0 && g_pvc_mac_table.macs == nullptr);
    EXPECT_EQ(checkPvcMac(b), 1);
  }
  ReadPvc("-3\n00:11:22:33:44:55\n", 0);
  EXPECT_TRUE(g_pvc_mac_table.count == 0 && g_pvc_mac_table.macs == nullptr);
}

}  // namespace
