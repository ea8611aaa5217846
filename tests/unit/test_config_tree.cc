// The directory-backed configuration tree.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

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
  std::string overlong;  // a key of more than 511 bytes does not fit, cut or whole
  while (overlong.size() < 600) overlong += "/kkk";
  for (const char *bad : {"/../escape", "/a//b", "/a/./b", "relative", "/trailing/", overlong.c_str()})
    ConfigTree::setInt(1, "%s", bad);
  EXPECT_TRUE(fs::is_empty(root_));
  EXPECT_FALSE(fs::exists(root_.parent_path() / "escape"));
  ConfigTree::delStr("/..");
  EXPECT_TRUE(fs::exists(root_) && !ConfigTree::attachDirectory("/" + std::string(PATH_MAX, 'a')) &&
              !ConfigTree::attachDirectory("/.."));
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/../etc/passwd"), 0);
  ConfigTree::setInt(7, "/x/y");  // one-character components are keys like any other
  char raw[CFM_CONFIG_VALUE_SIZE] = "";
  EXPECT_EQ(ConfigTree::getInt(raw, "/x/y"), 7);
  EXPECT_STREQ(raw, "7");
  ConfigTree::delStr("/x");

  // (Deleting a row with everything under it is checked through the export.)
  for (int n = 1; n <= 3; ++n) ConfigTree::setInt(n, "/runtime/cfm/lbr:%d/transID", n);
  ConfigTree::setInt(1, "/runtime/cfm/lbrx:4/transID"), ConfigTree::setInt(1, "/runtime/cfm/lbq:5/transID");  // others
  EXPECT_EQ(Rows("/runtime/cfm/lbr") + Rows("relative"), 3);  // an invalid key has no rows
}

// Links planted in the tree (at a directory, at a file, at the temporary
// names of the old scheme) are refused with one line each, never followed;
// deleting one removes the link itself. A FIFO at a key does not block.
TEST_F(ConfigTreeDir, PlantedLinksAreRefusedNeverFollowed) {
  const fs::path out = root_.parent_path() / "out", cfm = root_ / "runtime/cfm";
  fs::create_directories(cfm), fs::create_directories(out), std::ofstream(out / "victim") << "7\n";
  fs::create_directory_symlink(out, cfm / "pm"), mkfifo((cfm / "fifo").c_str(), 0600);
  const std::string old_temp = ".tmp." + std::to_string(getpid()) + ".";
  for (int n = 0; n <= 64; ++n) fs::create_symlink(out / "victim", cfm / (n ? old_temp + std::to_string(n) : "leaf"));
  testing::internal::CaptureStderr();
  ConfigTree::setInt(1, "/runtime/cfm/pm/x"), ConfigTree::setInt(0, "/runtime/cfm/leaf");
  int read = ConfigTree::getInt(nullptr, "/runtime/cfm/pm/victim") + ConfigTree::getInt(nullptr, "/runtime/cfm/leaf") +
             Rows("/runtime/cfm/pm/row");
  ConfigTree::delStr("/runtime/cfm/pm/victim");
  for (int n = 0; n < 64; ++n) ConfigTree::setInt(n, "/runtime/cfm/value");
  const std::string pm = "CFM: configuration tree: /runtime/cfm/pm is a symbolic link, not followed\n";
  const std::string leaf = pm.substr(0, 38) + "leaf" + pm.substr(40);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), pm + leaf + pm + leaf + pm + pm);
  EXPECT_EQ(std::make_tuple(read, ConfigTree::getInt(nullptr, "/runtime/cfm/value"),
                            ConfigTree::getInt(nullptr, "/runtime/cfm/fifo")), std::make_tuple(0, 63, 0));
  ConfigTree::delStr("/runtime/cfm/pm");
  std::ifstream victim(out / "victim");
  std::string kept = std::string(std::istreambuf_iterator<char>(victim), {});
  EXPECT_EQ(kept + std::to_string(std::distance(fs::directory_iterator(cfm), {})), "7\n67");  // links stay, no temporary
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
