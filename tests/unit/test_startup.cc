// Start-up helpers run in-process: the enable file, the command line and the
// PVC MAC table.
#include "core/startup.h"

#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "harness.h"

namespace {

using namespace harness;

// Writes `text` to this process's scratch file (removed after each case) and returns its path.
const std::string kScratch = "/tmp/cfm_unit_" + std::to_string(getpid());
const char *Scratch(const std::string &text) {
  std::ofstream(kScratch) << text;
  return kScratch.c_str();
}

class StartupInput : public testing::Test {
 protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    CFM_Global_Reset();
    cfm_debug_msg = 0;
    cfm_clear_pvc_mac();
    unlink(kScratch.c_str());
  }
};

TEST_F(StartupInput, ConfigEnableFile) {
  const std::string long_line = "Enable" + std::string(125, ' ') + "=1\n";  // only 127 characters are read
  struct Case { const char *text; int result, status; } cases[] = {  // status -99: untouched
      {"Enable=1\n", 1, 1},    {"Enable=2\n", 0, 2},    {"Enable = 1\n", 1, 1}, {"Enable\n", 0, -99},
      {"enable=1\n", 0, -99},  {"Enable=abc\n", 1, 0},  {long_line.c_str(), 0, -99},
  };
  for (const Case &c : cases) {
    int status = -99;
    EXPECT_EQ(cfm_check_config_enable_at(Scratch(c.text), &status), c.result) << c.text;
    EXPECT_EQ(status, c.status) << c.text;
  }
}

// Unknown options and stray words are ignored; the last -i and the last -f
// count; the name is bounded to the system limit; no -i is a failure. The
// words follow argv[0].
TEST_F(StartupInput, OptionsAndTheirResults) {
  struct Case { std::vector<std::string> words; int result; const char *ifname, *out; int frame_type; } cases[] = {
      {{"-i", "wan0"}, 1, "wan0", "CFM interface is wan0\nClose CFM debug message\n", CFM_FRAME_TYPE_UNKNOWN},
      {{"-w", "-d", "-e", "-i", "ppp0", "-f", "8023"}, 2, "ppp0", "CFM interface is ppp0\nOpen CFM debug message\n",
       CFM_FRAME_TYPE_8023},
      {{"-x", "-i", "a0", "-q", "-i", "b0", "-f", "ethernet"}, 1, "b0", "", CFM_FRAME_TYPE_ETH},
      {{"-i", std::string(40, 'x'), "-f", "8023", "-f", "802"}, 1, "xxxxxxxxxxxxxxx", "", CFM_FRAME_TYPE_UNKNOWN},
      {{"-i", "wan0", "-l", "wan0"}, 1, "wan0", "CFM: LAN interface wan0 is the WAN interface, nothing is relayed\n",
       CFM_FRAME_TYPE_UNKNOWN},
      {{"-e", "-w", "-f", "eth"}, 0, "", "CFM need interface\n", CFM_FRAME_TYPE_ETH},
  };
  for (Case &c : cases) {
    c.words.insert(c.words.begin(), "cfmd");
    std::vector<char *> argv;
    for (auto &w : c.words) argv.push_back(w.data());
    argv.push_back(nullptr);
    char ifname[IFNAMSIZ] = "";
    int result = -1, frame_type = CFM_FRAME_TYPE_UNKNOWN;
    std::string out = stdout_of([&] {
      result = cfm_parse_args(static_cast<int>(c.words.size()), argv.data(), ifname, &frame_type);
    });
    EXPECT_EQ(result, c.result) << out;
    EXPECT_STREQ(ifname, c.ifname);
    EXPECT_NE(out.find(c.out), std::string::npos) << out;
    EXPECT_EQ(frame_type, c.frame_type) << out;
  }
  EXPECT_EQ(isCfmEnable(), 1u);  // -e of the second case stays
  EXPECT_STREQ(g_cfm_extra_options.lan_ifname, "");
}

// Lines past the announced count are ignored and blank lines not counted; a
// malformed line keeps its slot, all zero; upper case and short pieces parse;
// a seventh piece is not read; missing lines stay zero; count 0 or no count line
// give an empty table, which accepts every address.
TEST_F(StartupInput, PvcMacFile) {
  const Bytes a = {0, 0x11, 0x22, 0x33, 0x44, 0x55}, b = {0, 0x11, 0x22, 0x33, 0x44, 0x66}, z(6, 0);
  const struct { const char *text; int result; Bytes macs, probe; int match; } cases[] = {
      {"2\n00:11:22:33:44:55\n\n00:11:22:33:44:66\n00:00:00:00:00:77\n", 1, cat({a, b}), {0, 0, 0, 0, 0, 0x77}, 0},
      {"3\n00:11:22:33:44\nAA:b:0C:d:E:f\nzz-yy\n", 1, cat({z, {0xaa, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f}, z}), z, 1},
      {"1\n00:11:22:33:44:55:66\n", 1, a, b, 0},
      {"4\n00:11:22:33:44:55\n", 1, cat({a, z, z, z}), a, 1},
      {"0\n00:11:22:33:44:55\n", 1, {}, b, 1},
      {"\n\nabc\n", 1, {}, b, 1},
      {"-3\n00:11:22:33:44:55\n", 0, {}, b, 1},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(cfm_read_pvc_mac_at(Scratch(c.text)), c.result) << c.text;
    const uint8_t *macs = g_pvc_mac_table.macs;
    EXPECT_EQ(macs ? Bytes(macs, macs + 6 * g_pvc_mac_table.count) : Bytes{}, c.macs) << c.text;
    EXPECT_EQ(checkPvcMac(c.probe.data()), c.match) << c.text;
  }
  EXPECT_EQ(checkPvcMac(nullptr), 0);
}

long long ChangeTime(int id) {
  semid_ds ds = {};
  return semctl(id, 0, IPC_STAT, &ds) == 0 ? static_cast<long long>(ds.sem_ctime) : -1;
}

// A dead run's record removes only the sets that still look as recorded
// (private key, mode 0, one semaphore, the recorded change time; records
// without times remove nothing); a pid of 1 or less or not below the
// kernel's pid_max removes nothing. The record is written with times, never
// through a link left at its temporary name.
TEST_F(StartupInput, StaleSetRecord) {
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  int ours = semget(IPC_PRIVATE, 1, IPC_CREAT), older = semget(IPC_PRIVATE, 1, IPC_CREAT);
  int foreign = semget(0x5e000000 + getpid(), 1, IPC_CREAT | 0644);  // as ipcmk -S 1 makes it
  // Private, but each unlike the daemon's in one way: its mode, its size.
  int readable = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600), pair = semget(IPC_PRIVATE, 2, IPC_CREAT);
  const std::string set = " " + std::to_string(ours) + ":" + std::to_string(ChangeTime(ours));
  long pid_max = 0;
  std::ifstream("/proc/sys/kernel/pid_max") >> pid_max;
  for (const std::string &pid : std::vector<std::string>{"0", "-5", "1", std::to_string(pid_max)})
    CFM_OS_Remove_Stale_Sets(Scratch(pid + set));
  EXPECT_EQ(std::make_tuple(cfm_pid_max(Scratch("32768\n")), cfm_pid_max(Scratch("x")), cfm_pid_max("/nonexistent")),
            std::make_tuple(32768L, 4194304L, 4194304L));
  EXPECT_GE(ChangeTime(ours), 0);
  std::string record = std::to_string(dead) + " " + std::to_string(older) + ":" + std::to_string(ChangeTime(older) - 5);
  for (int id : {foreign, readable, pair}) record += " " + std::to_string(id) + ":" + std::to_string(ChangeTime(id));
  CFM_OS_Remove_Stale_Sets(Scratch(record + set));
  EXPECT_EQ(std::make_tuple(ChangeTime(ours) >= 0, ChangeTime(older) >= 0, ChangeTime(foreign) >= 0,
                            ChangeTime(readable) >= 0, ChangeTime(pair) >= 0),
            std::make_tuple(false, true, true, true, true));
  CFM_OS_Remove_Stale_Sets(Scratch(std::to_string(dead) + " " + std::to_string(older) + " " + std::to_string(foreign)));
  EXPECT_EQ(std::make_pair(ChangeTime(older) >= 0, ChangeTime(foreign) >= 0), std::make_pair(true, true));
  for (int id : {foreign, older, readable, pair}) semctl(id, 0, IPC_RMID);

  const std::string target = kScratch + ".target", tmp = kScratch + ".tmp";
  std::ofstream(target) << "keep";
  ASSERT_EQ(symlink(target.c_str(), tmp.c_str()), 0);
  CFM_OS_Init(kScratch.c_str());
  int mine = CFM_OS_Create_Semaphore("t", 1, 1), sets = CFM_OS_Semaphore_Count();
  CFM_OS_Init("");
  std::ifstream written(kScratch), kept(target);
  std::string text((std::istreambuf_iterator<char>(written)), {}), keep((std::istreambuf_iterator<char>(kept)), {});
  CfmStaleRecord parsed;
  ASSERT_TRUE(cfm_parse_stale_record(text.data(), text.size(), &parsed)) << text;
  const CfmStaleSet &last = parsed.sets[parsed.count - 1];
  EXPECT_EQ(std::make_tuple(parsed.pid, last.id, last.ctime), std::make_tuple(long{getpid()}, mine, ChangeTime(mine)));
  EXPECT_EQ(keep, "keep");
  CFM_OS_Delete_Semaphore(mine);
  EXPECT_EQ(CFM_OS_Semaphore_Count(), sets - 1);
  // A set the daemon made goes at the next start once its process is gone.
  int left = CFM_OS_Create_Semaphore("t", 1, 1);
  CFM_OS_Remove_Stale_Sets(Scratch(std::to_string(dead) + " " + std::to_string(left) + ":" + std::to_string(ChangeTime(left))));
  EXPECT_EQ(ChangeTime(left), -1);
  // Negative ids and ids past 2^31 - 1 are passed over, at most 64 sets are
  // read, and a number of more than 18 digits (leading zeros too) ends the
  // record.
  std::string many = "77 -3 4294967296 4:9";
  for (int i = 0; i < 70; ++i) many += " 5";
  ASSERT_TRUE(cfm_parse_stale_record(many.data(), many.size(), &parsed));
  EXPECT_EQ(std::make_tuple(parsed.count, parsed.sets[0].id, parsed.sets[0].ctime), std::make_tuple(size_t{64}, 4, 9LL));
  EXPECT_TRUE(cfm_parse_stale_record("77 4 0000000000000000000077 5", 29, &parsed) && parsed.count == 1);
  EXPECT_TRUE(cfm_parse_stale_record("77 4:95", 6, &parsed) && parsed.sets[0].ctime == 9);  // read to its length only
  unlink(target.c_str());
}

}  // namespace
