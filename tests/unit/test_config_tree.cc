// The directory-backed configuration tree.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "core/config_tree.h"
#include "core/timer.h"

namespace fs = std::filesystem;

namespace {

uint16_t Rows(const char *key) {
  uint16_t rows = 9;
  ConfigTree::getRow(key, &rows);
  return rows;
}

class ConfigTreeDir : public ::testing::Test {
 protected:
  // The tree sits one level inside a private directory, so a key that
  // wrongly escapes it can only reach that directory, never /tmp itself.
  void SetUp() override {
    char tmpl[] = "/tmp/cfgtree_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = fs::path(tmpl) / "tree";
    fs::create_directory(root_);
    ASSERT_TRUE(ConfigTree::attachDirectory(root_.string()));
  }
  void TearDown() override {
    ConfigTree::detach();
    fs::remove_all(root_.parent_path());
  }
  fs::path root_;
};

TEST_F(ConfigTreeDir, KeysStayInsideAndRowsAreCounted) {
  for (const char *bad : {"/../escape", "/a//b", "/a/./b", "relative", "/trailing/"}) ConfigTree::setInt(1, "%s", bad);
  EXPECT_TRUE(fs::is_empty(root_));
  EXPECT_FALSE(fs::exists(root_.parent_path() / "escape"));
  ConfigTree::delStr("/..");
  EXPECT_TRUE(fs::exists(root_));
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/../etc/passwd"), 0);
  ConfigTree::setInt(7, "/x/y");  // one-character components are keys like any other
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/x/y"), 7);
  ConfigTree::delStr("/x");

  // (Deleting a row with everything under it is checked through the export.)
  for (int n = 1; n <= 3; ++n) ConfigTree::setInt(n, "/runtime/cfm/lbr:%d/transID", n);
  ConfigTree::setInt(1, "/runtime/cfm/lbrx:4/transID");  // another table
  EXPECT_EQ(Rows("/runtime/cfm/lbr"), 3);
}

// Links planted in the tree (a directory, a file, the temporary names of
// the old scheme) are refused with one line each on standard error, never
// followed; a FIFO at a key does not block a read.
TEST_F(ConfigTreeDir, PlantedLinksAreRefusedNeverFollowed) {
  const fs::path out = root_.parent_path() / "outside", cfm = root_ / "runtime" / "cfm";
  fs::create_directories(out);
  fs::create_directories(cfm);
  std::ofstream(out / "victim") << "7\n";
  fs::create_directory_symlink(out, cfm / "pm");
  fs::create_symlink(out / "victim", cfm / "leaf");
  const std::string old_temp = ".tmp." + std::to_string(getpid()) + ".";
  for (int n = 1; n <= 64; ++n) fs::create_symlink(out / "victim", cfm / (old_temp + std::to_string(n)));
  ASSERT_EQ(mkfifo((cfm / "fifo").c_str(), 0600), 0);
  uint16_t rows = 9;
  testing::internal::CaptureStderr();
  ConfigTree::setInt(1, "/runtime/cfm/pm/x");
  ConfigTree::setInt(0, "/runtime/cfm/leaf");
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/runtime/cfm/pm/victim") + ConfigTree::getInt(nullptr, "/runtime/cfm/leaf"), 0);
  ConfigTree::getRow("/runtime/cfm/pm/row", &rows);
  ConfigTree::delStr("/runtime/cfm/pm/victim");
  for (int n = 0; n < 64; ++n) ConfigTree::setInt(n, "/runtime/cfm/value");
  const std::string log = testing::internal::GetCapturedStderr();
  const std::string pm = "CFM: configuration tree: /runtime/cfm/pm is a symbolic link, not followed\n";
  const std::string leaf = "CFM: configuration tree: /runtime/cfm/leaf is a symbolic link, not followed\n";
  EXPECT_EQ(log, pm + leaf + pm + leaf + pm + pm);
  EXPECT_EQ(rows, 0);
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/runtime/cfm/value"), 63);
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/runtime/cfm/fifo"), 0);
  int entries = 0;
  for (const auto &e : fs::directory_iterator(cfm)) entries += fs::is_symlink(e.symlink_status());
  EXPECT_EQ(entries, 66);  // the links stay; no temporary file is left
  EXPECT_EQ(std::distance(fs::directory_iterator(cfm), fs::directory_iterator()), 68);
  std::ifstream victim(out / "victim");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(victim), {}), "7\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 1);
  ConfigTree::delStr("/runtime/cfm/pm");  // removes the link itself
  EXPECT_FALSE(fs::exists(fs::symlink_status(cfm / "pm")));
  EXPECT_TRUE(fs::exists(out / "victim"));
}

// Two writers and a reader of one key: every value read is one written whole.
TEST_F(ConfigTreeDir, ConcurrentWritersAndReadersSeeWholeValues) {
  auto writer = [](int t) {
    for (int i = 0; i < 300; ++i) ConfigTree::setInt(t * 100000 + i, "/runtime/cfm/shared");
  };
  std::thread a(writer, 1), b(writer, 2);
  int torn = 0;
  for (int i = 0; i < 300; ++i) {
    char text[CFM_CONFIG_VALUE_SIZE] = "";
    ConfigTree::ConfigGet("/runtime/cfm/shared", text);
    torn += text[0] != '\0' && atoi(text) % 100000 >= 300;
  }
  a.join();
  b.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/runtime/cfm/shared") % 100000, 299);
}

// The timer's period is read from /cfm/ccm_interval: 10ms, 100ms or 1s;
// anything else, or no value, gives one second.
TEST_F(ConfigTreeDir, TimerPeriodFromTheTree) {
  EXPECT_EQ(cfm_timer_period_ms(), 1000u);
  for (auto [text, ms] : {std::pair<const char *, uint32_t>{"10ms", 10}, {"100ms", 100}, {"1s", 1000}, {"10", 1000}}) {
    ConfigTree::setStr(text, "/cfm/ccm_interval");
    EXPECT_EQ(cfm_timer_period_ms(), ms) << text;
  }
}

}  // namespace
