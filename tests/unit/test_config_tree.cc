// The directory-backed configuration tree.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "core/config_tree.h"

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

TEST_F(ConfigTreeDir, RowsAreCountedAndDeletedWithEverythingUnderAndKeysStayInside) {
  for (int n = 1; n <= 3; ++n) ConfigTree::setInt(n, "/runtime/cfm/lbr:%d/transID", n);
  ConfigTree::setInt(1, "/runtime/cfm/lbr:x/transID");   // not a row number
  ConfigTree::setInt(1, "/runtime/cfm/lbrx:4/transID");  // another table
  ConfigTree::setInt(1, "/runtime/cfm/lbr");             // the table key itself
  EXPECT_EQ(Rows("/runtime/cfm/lbr"), 3);
  ConfigTree::delStr("/runtime/cfm/lbr:%d", 2);
  EXPECT_FALSE(fs::exists(root_ / "runtime/cfm/lbr:2"));
  EXPECT_EQ(Rows("/runtime/cfm/lbr"), 2);
  EXPECT_EQ(Rows("/runtime/nothing/here"), 0);
  fs::remove_all(root_ / "runtime");

  // Keys cannot leave the directory.
  fs::path outside = root_.parent_path() / (root_.filename().string() + "_escape");
  ConfigTree::setInt(1, "%s", ("/../" + outside.filename().string()).c_str());
  EXPECT_FALSE(fs::exists(outside));
  for (const char *bad : {"/a//b", "/a/./b", "relative", "/trailing/"}) ConfigTree::setInt(1, "%s", bad);
  EXPECT_TRUE(fs::is_empty(root_));
  ConfigTree::delStr("/..");
  EXPECT_TRUE(fs::exists(root_));
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/../etc/passwd"), 0);
}

TEST_F(ConfigTreeDir, ConcurrentWritersAndReadersSeeWholeValues) {
  std::vector<std::thread> threads;
  std::atomic<int> torn{0};
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 300; ++i) ConfigTree::setInt(t * 100000 + i, "/runtime/cfm/shared");
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < 300; ++i) {
      char text[CFM_CONFIG_VALUE_SIZE] = "";
      ConfigTree::ConfigGet("/runtime/cfm/shared", text);
      if (text[0] != '\0' && atoi(text) % 100000 >= 300) ++torn;
      Rows("/runtime/cfm/shared");
    }
  });
  for (auto &th : threads) th.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_EQ(ConfigTree::getInt(nullptr, "/runtime/cfm/shared") % 100000, 299);
}

}  // namespace
