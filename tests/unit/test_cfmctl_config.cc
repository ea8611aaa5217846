// cfmctl's configuration files against the daemon's own handlers, in-process:
// random configurations made through the command words come back the same
// from `show running-config` applied to a fresh daemon; --replace turns one
// configuration into another without touching a MEP that stays as it was;
// a file's bad lines are named by file and line while the others apply.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "cfmctl/conffile.h"
#include "cli/reply.h"
#include "harness.h"

using namespace cfmctl;

bool cfmctl::is_daemon_word(const std::string &word) {
  for (const CliCommand *row = cfm_cli_cmd_table; row->name != nullptr; ++row) {
    if (word == row->name) return true;
  }
  return false;
}

namespace {

// Runs `f` with standard output (the daemon's copy of each reply, cfmctl's
// reports) thrown away.
template <class F>
auto quiet(F f) {
  fflush(stdout);
  int saved = dup(1), null = open("/dev/null", O_WRONLY);
  dup2(null, 1);
  auto result = f();
  fflush(stdout);
  dup2(saved, 1), close(saved), close(null);
  return result;
}

int in_process(const std::string &request, std::string *reply) {
  CliReply kept;
  quiet([&] { CliReplyScope scope(&kept); return cfm_cli_run_line(request.c_str()); });
  *reply = kept.text();
  return kOk;
}

std::string ask(const std::string &request) {
  std::string reply;
  in_process(request, &reply);
  return reply;
}

std::string running_config() {
  Config config;
  EXPECT_EQ(fetch_config(in_process, &config), kOk);
  return running_config_text(config);
}

// Every line through cfmctl's file reader; stderr (the bad lines) returned.
std::string apply(const std::string &text, ApplyOptions options = {}, int expect = kOk) {
  testing::internal::CaptureStderr();
  int status = quiet([&] { return apply_lines(split_config("f", text), options, in_process); });
  EXPECT_TRUE(expect < 0 || status == expect) << status << " for\n" << text;
  return testing::internal::GetCapturedStderr();
}

// Sets (with a value) and reads a MEP's sequence error counter.
uint32_t mark(const cfmctl::MepKey &key, uint32_t value = 0) {
  MepEntry entry = {};
  entry.md_id = key.md, entry.ma_id = key.ma, entry.mep_id = uint16_t(key.mep), entry.port = uint8_t(key.port);
  entry.vid = uint16_t(key.vid), entry.direction = uint8_t(key.direction);
  EXPECT_EQ(CFM_IF_Get_MEP_Entry(&entry), 1);
  if (value != 0) entry.CcmSequenceErrors = value, CFM_Update_MEP_Entry(&entry);
  return entry.CcmSequenceErrors;
}

class CfmctlConfig : public harness::EngineTest {
 protected:
  void fresh() {
    clear_tables();
    GlobalEntry global = {0, 2, 1, 1};
    CFM_IF_Set_Global_Entry(&global);
    cfm_debug_msg = 0;
  }
};

// The lines of a random configuration: every option of every object by name,
// names of every length up to the longest, indexes at their limits; some
// lines are refused (a MEP of an MA of another MD), as they may be.
std::vector<std::string> random_lines(std::mt19937 &rng) {
  auto pick = [&](std::vector<const char *> names) { return std::string(names[rng() % names.size()]); };
  auto name = [&](size_t longest) {  // bytes; 'é' is two
    static const char *const kChars[] = {"a", "z", "0", "9", "-", "_", ".", "#", "\\", ":", "\xc3\xa9"};
    std::string n;
    for (size_t size = 1 + rng() % longest; n.size() < size;) n += kChars[rng() % 11];
    n.resize(n.back() == '\xa9' && n.size() > longest ? n.size() - 2 : std::min(n.size(), longest));
    return n;
  };
  std::vector<std::string> lines = {pick({"debug on", "debug off", "enable", "disable"}),
                                    "defaults --level " + std::to_string(rng() % 8) + " --mhf " + pick(kMhf)};
  // (The daemon lists no MD or MA of index 0: a configuration cannot show it.)
  const uint32_t kIndexes[] = {1, 2, 9, 2147483646, 2147483647};
  for (int md = 0, count = 1 + rng() % 3; md < count; ++md) {
    std::string m = std::to_string(kIndexes[rng() % 5]);
    lines.push_back("md create " + m + " --level " + std::to_string(rng() % 8) + " --name " + name(43) +
                    (rng() % 2 ? " --format " + pick(kMdFormats) : "") + (rng() % 2 ? " --mhf " + pick(kMhf) : ""));
    for (int ma = 0, mas = rng() % 3; ma < mas; ++ma) {
      std::string a = m + " " + std::to_string(kIndexes[rng() % 5] | 8);
      lines.push_back("ma create " + a + " --name " + name(45) + " --interval " + pick(kIntervals) +
                      (rng() % 2 ? " --format " + pick(kMaFormats) : ""));
      for (int mep = 0, meps = rng() % 4; mep < meps; ++mep) {
        std::string key = a + " " + std::to_string(1 + rng() % 8191) + " --port " + std::to_string(rng() % 9) +
                          " --vid " + std::to_string(rng() % 4096) + " --direction " + pick({"down", "up"});
        lines.push_back("mep create " + key);
        lines.push_back("mep config " + key + " --active " + pick({"yes", "no"}) + " --ccm " + pick({"on", "off"}) +
                        " --priority " + std::to_string(rng() % 8) + " --alarm-priority " + pick(kAlarms));
      }
    }
  }
  return lines;
}

std::string joined(const std::vector<std::string> &lines, std::mt19937 &rng, unsigned drop_percent) {
  std::string text;
  for (const std::string &line : lines) text += rng() % 100 < drop_percent ? "" : line + "\n";
  return text;
}

std::string listings() { return ask("showmd") + ask("showma") + ask("showmep") + ask("showdefault 1"); }

TEST_F(CfmctlConfig, RunningConfigRecreatesAndReplaceTurnsOneConfigurationIntoAnother) {
  size_t meps_kept = 0;
  for (unsigned seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    std::vector<std::string> lines = random_lines(rng);
    fresh();
    apply(joined(lines, rng, 10), {}, -1);
    const std::string made = running_config(), shown = listings();
    fresh();
    EXPECT_EQ(apply(made), "");
    ASSERT_EQ(running_config(), made);
    ASSERT_EQ(listings(), shown);
    // Another configuration from mostly the same lines, replacing this one:
    // every MEP that stays keeps its state (a mark in its counter).
    fresh();
    apply(joined(lines, rng, 20), {}, -1);
    Config before, after;
    fetch_config(in_process, &before);
    for (const MepConfig &mep : before.meps) mark(mep.key, 4242);
    EXPECT_EQ(apply(made, {.replace = true, .files = {}}), "");
    ASSERT_EQ(running_config(), made);
    fetch_config(in_process, &after);
    for (const MepConfig &mep : after.meps) {
      // (An MA moved to another MD is made again with the MEPs of its old MD.)
      auto md_of = [&](const Config &c) {
        return std::find_if(c.mas.begin(), c.mas.end(), [&](auto &ma) { return ma.ma == mep.key.ma; })->md;
      };
      bool stays = std::any_of(before.meps.begin(), before.meps.end(), [&](auto &b) { return b.key == mep.key; }) &&
                   (md_of(before) != mep.key.md || md_of(after) == mep.key.md);
      EXPECT_EQ(mark(mep.key), stays ? 4242u : 0u) << made;
      meps_kept += stays;
    }
  }
  EXPECT_GT(meps_kept, 100u);
}

// A bad line is named with its file and line, the others apply; --check
// stops at the first line cfmctl itself finds bad, sending nothing.
TEST_F(CfmctlConfig, BadLinesAreNamedAndTheOthersApply) {
  fresh();
  const std::string text =
      "# a comment\n\nmd create 1 --level 5 --name cust\nmd create 1 --level 4 --name again\n"
      "ma create 1 2 --name m --interval 2s\nfrob 1\n  ma create 1 2 --name m \\\n --interval 1s\r\n"
      "mep create 1 2 5 --vid 7\\\n";
  EXPECT_EQ(apply(text, {}, kRefused),
            "f:4: Error!! MD Index exist\nf:5: ma: --interval '2s' is not one of 10ms|100ms|1s|10s|1min|10min\n"
            "f:6: unknown command 'frob' (see cfmctl help)\n");
  EXPECT_EQ(running_config(),
            "debug off\nmd create 1 --name cust --level 5\nma create 1 2 --name m --interval 1s\n"
            "mep create 1 2 5 --vid 7\ndisable\n");
  fresh();
  auto no_daemon = [](const std::string &, std::string *) {
    ADD_FAILURE() << "sent";
    return kNoDaemon;
  };
  testing::internal::CaptureStderr();
  EXPECT_EQ(quiet([&] { return apply_lines(split_config("f", text), {.check = true, .replace = false, .files = {}}, no_daemon); }), kRefused);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "f:5: ma: --interval '2s' is not one of 10ms|100ms|1s|10s|1min|10min\n");
}

// config save: the old file's mode kept, the header, no file left beside it.
TEST_F(CfmctlConfig, SaveReplacesTheFileWhole) {
  fresh();
  char dir[] = "/tmp/cfmctl-save-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string path = std::string(dir) + "/cfmd.conf";
  close(open(path.c_str(), O_CREAT | O_WRONLY, 0640));
  ASSERT_EQ(quiet([&] { return save_config(in_process, path); }), kOk);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  std::string text(st.st_size, '\0');
  FILE *in = fopen(path.c_str(), "r");
  text.resize(fread(text.data(), 1, text.size(), in));
  fclose(in);
  EXPECT_EQ(text.substr(0, 35), "# written by cfmctl config save at ");
  EXPECT_EQ(text.substr(text.find('\n') + 1), running_config());
  EXPECT_EQ(unlink(path.c_str()) | rmdir(dir), 0);  // nothing else in it
}

}  // namespace
