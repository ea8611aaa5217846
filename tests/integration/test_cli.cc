// The command socket and cfmctl as separate processes: clients that misbehave,
// the tree export and the client's own exit status. The texts of every command
// are checked in-process by the unit tests.
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <thread>

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
  EXPECT_EQ(Command(std::string(5000, 'x')), "unknown command !\n");
  Command(std::string("showmd\0\xff\x01 showma", 14));
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
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "lbm"}, &status),
            "result  first_sequence  next_lbm  valid_lbr_in  valid_lbr_outoforder  bad_lbr_msdu  transmit_lbr  status\n"
            "Fail    0               0         0             0                     0             0             "
            "LBM Transmit Finished\n");
  // Remote MEPs: the flag key is 1 during the export's sleep, 0 after.
  auto start = Clock::now();
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "rmep"}, &status), "row  md_id  ma_id  rmep_id  vlan_id  src_mac\n");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(ReadFile("/var/tree/runtime/cfm/rmep_db"), "0\n");
  // Sent, but the answer (clearltr takes 3 s) did not come in time.
  EXPECT_EQ(RunCfmctl({"--timeout", "1", "clearltr"}, &status), "");
  EXPECT_EQ(status, 4);
  Stop();
  EXPECT_EQ(RunCfmctl({"showmd"}, &status), "");
  EXPECT_EQ(status, 3);
  for (const CliCommand *row = cfm_cli_cmd_table; row->name != nullptr; ++row) {
    EXPECT_NE(RunCfmctl({"help", row->name}, &status), "");
    EXPECT_EQ(status, 0) << row->name;
  }
}

// The bash completion offers pm and its words, and md and ma each their own
// name formats.
TEST(Completion, OffersPmAndEachCommandsOwnFormats) {
  for (std::string c : {"p|pm pmstart pmstop pmshow", "pm \"\"|dm slm 1dm show", "pm slm \"\"|start stop",
                        "md create 1 --format \"\"|none dnslikename macaddressanduint charstring",
                        "ma config 1 1 --format \"\"|primaryvid charstring unsignedint16 rfc2865vpnid"}) {
    FILE *shell = popen(("bash -c 'source " CFMD_DIST "/cfmctl.bash-completion; COMP_WORDS=(cfmctl " +
                         c.substr(0, c.find('|')) + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _cfmctl; " +
                         "echo ${COMPREPLY[*]}'").c_str(), "r");
    char out[256] = "";
    EXPECT_EQ(std::string(fgets(out, sizeof out, shell)), c.substr(c.find('|') + 1) + "\n") << c;
    pclose(shell);
  }
}

// Sends a request in parts, `pause` between connecting, the words and the
// end of stream; returns the reply read back on the connection.
std::string Reply(int fd, const std::string &request, std::chrono::milliseconds pause = {}) {
  std::this_thread::sleep_for(pause);
  EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size())) << request;
  std::this_thread::sleep_for(pause);
  shutdown(fd, SHUT_WR);
  std::string reply;
  char buf[512];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) reply.append(buf, static_cast<size_t>(n));
  close(fd);
  return reply;
}

// The reply on the connection is what the daemon prints for the request;
// cfmctl prints it and its exit status tells a refusal (1), bad words (2).
TEST_F(Lab, RepliesComeBackOnTheConnection) {
  ASSERT_TRUE(StartDaemonReady());
  struct stat st = {};
  ASSERT_EQ(stat(CFM_CLI_SOCKET_PATH, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  int status = -1;
  const std::pair<std::vector<std::string>, std::string> runs[] = {
      {{"createmd", "1", "0", "5", "0", "dom"}, ""},
      {{"createmd", "1", "0", "5", "0", "dom"}, "\r\nError!! MD Index exist\n"},
      {{"foo"}, "unknown command !\n"},
      {{"showmd"}, "\r\nMdIndex : 1\r\nMdFormat : charstring\r\nMdLevel : 5\r\nMhfCreation : defmhfdefault\r\nMdName : dom\r\n"},
      {{"md", "create", "4", "--level", "3", "--name", "100", "--format", "dnslikename"}, ""},
      {{"ma", "create", "4", "7", "--name", "assoc", "--interval", "10s"}, ""},
      {{"mep", "create", "4", "7", "20", "--direction", "up", "--vid", "5"}, ""},
      {{"mep", "config", "4", "7", "20", "--direction", "up", "--vid", "5", "--ccm", "on"}, ""},
      {{"md", "delete", "4"}, "\r\n This MD has MEP entry, need to delete all this MD's MEP!\r\n"}};
  for (const auto &[args, reply] : runs) {
    size_t from = Output().size();
    EXPECT_EQ(RunCfmctl(args, &status), reply) << args[0];
    EXPECT_EQ(status, reply.find("!") == std::string::npos ? 0 : 1) << args[0];
    std::string printed = Output().substr(from);
    EXPECT_EQ(printed + (printed.empty() || printed.back() == '\n' ? "" : "\n"), reply) << args[0];
  }
  EXPECT_EQ(RunCfmctl({"deletemep", "4", "0", "7", "0", "20", "0", "1", "0", "5", "0", "200"}, &status), "");
  EXPECT_EQ(status, 1);  // the daemon refuses the wrong direction code silently
  size_t from = Output().size();
  for (const std::vector<std::string> &bad : std::vector<std::vector<std::string>>{
           {"--bogus"}, {"md", "create", "5", "--level", "8", "--name", "x"}, {"mep", "create", "4", "7", "20", "--dir", "up"},
           {"lb", "start", "4", "7", "20", "--target", "02:00:00:00:00"}, {"show", "everything"}, {"help", "nothing"},
           {"lt", "stop", "4", "7", "20"},  // a linktrace is one LTM: nothing to stop
           {"md", "create", "5", "--level", "1", "--name", "a b"}, {"defaults", "--level", "8"}}) {
    EXPECT_EQ(RunCfmctl(bad, &status), "");
    EXPECT_EQ(status, 2) << bad[0];
  }
  EXPECT_EQ(Output().size(), from);  // none of them was sent
}

// A connection that does not wait on a full listen queue (tried for 2 s), or -1.
int ConnectSoon() {
  struct sockaddr_un addr = {AF_UNIX, CFM_CLI_SOCKET_PATH};
  int fd = -1;
  for (int tries = 0; fd < 0 && tries < 2000; ++tries, std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) fd = (close(fd), -1);
  }
  return fd;
}

// A request runs only when complete, however late, also while others wait;
// hundreds of silent, half-sent or never-reading clients hold up nobody, and
// beyond 256 open connections the oldest incomplete ones are closed.
TEST_F(Lab, SlowAndSilentClientsAreServedWithoutHoldingOthers) {
  ASSERT_TRUE(StartDaemonReady());
  const std::string enabled = "\r\n CFM Status  : enabled";
  for (const char *request : {"createmd 2 0 1 0 two", "createmd 21 0 1 0 twentyone"}) ASSERT_EQ(Command(request), "");
  int split = Connect();
  EXPECT_EQ(send(split, "deletemd 2", 10, MSG_NOSIGNAL), 10);
  int waiting = Connect();
  std::this_thread::sleep_for(std::chrono::seconds(3));
  EXPECT_EQ(Reply(split, "1"), "");
  EXPECT_EQ(Command("deletemd 21") + Command("deletemd 2"), "\r\n This MD is not exist!\r\n");  // 2 was kept
  close(waiting);
  // 400 clients, every second with part of a request; the first 100 go
  // away without waiting for an answer.
  std::vector<int> idle;
  for (int i = 0; i < 400; ++i) {
    idle.push_back(ConnectSoon());
    ASSERT_GE(idle.back(), 0) << i;
    if (i % 2 == 1) send(idle.back(), "deletemd", 8, MSG_NOSIGNAL);
    if (i < 100) idle.back() = close(idle.back()) - 1;  // -1: poll skips it
  }
  auto start = Clock::now();
  EXPECT_EQ(Reply(Connect(), "showdefault 2"), enabled);
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(500));
  for (int i = 0; i < 400; close(idle[i++])) {  // the 300 + 1 - 256 oldest incomplete ones closed
    struct pollfd pfd = {idle[i], POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), i >= 100 && i < 145 ? 1 : 0) << i;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the closed ones run and go
  // Out of descriptors (the limit at the daemon's lowest free one), accept
  // fails: reported once, and the waiting client is served when descriptors
  // are free again.
  struct rlimit old = {}, tight = {};
  ASSERT_EQ(prlimit(pid(), RLIMIT_NOFILE, nullptr, &old), 0);
  struct stat st;
  while (lstat(("/proc/" + std::to_string(pid()) + "/fd/" + std::to_string(tight.rlim_cur)).c_str(), &st) == 0)
    ++tight.rlim_cur;
  tight.rlim_max = old.rlim_max;
  ASSERT_EQ(prlimit(pid(), RLIMIT_NOFILE, &tight, nullptr), 0);
  waiting = Connect();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_EQ(prlimit(pid(), RLIMIT_NOFILE, &old, nullptr), 0);
  EXPECT_EQ(Reply(waiting, "showdefault 2"), enabled);
  std::string errors = Errors();
  EXPECT_EQ(errors.find("server accept fail, reason: Too many open files"), errors.rfind("server accept fail"));
  EXPECT_NE(errors.find("server accept fail"), std::string::npos) << errors;
  EXPECT_TRUE(Running());
}

}  // namespace

namespace {

// Every value a named command takes by name reaches the daemon as the code of
// its command table: read back from the daemon's own listings.
TEST_F(Lab, NamedValuesReachTheDaemonAsTheirCodes) {
  ASSERT_TRUE(StartDaemonReady());
  int status = -1;
  auto run = [&](std::vector<std::string> args) {
    std::string reply = RunCfmctl(args, &status);
    EXPECT_EQ(status, 0) << args[0] << " " << args[1] << ": " << reply;
    return reply;
  };
  const char *md_formats[] = {"none", "dnslikename", "macaddressanduint", "charstring"};
  const char *ma_formats[] = {"primaryvid", "charstring", "unsignedint16", "rfc2865vpnid"};
  const char *intervals[][2] = {{"10ms", "unsignedint16"}, {"100ms", "rfc2865vpnid"}, {"1s", "10ms100ms1s"},
                                {"10s", "10s"},           {"1min", "1min"},             {"10min", "10min"}};
  for (int i = 0; i < 4; ++i) {
    std::string md = std::to_string(i + 1), mhf = i % 2 ? "default" : "none";
    run({"md", "create", md, "--level", md, "--name", "d" + md, "--format", md_formats[i], "--mhf", mhf});
    EXPECT_NE(run({"md", "show"}).find("MdIndex : " + md + "\r\nMdFormat : " + md_formats[i] + "\r\nMdLevel : " + md +
                                       "\r\nMhfCreation : defmhf" + mhf),
              std::string::npos) << md_formats[i];
  }
  for (int i = 0; i < 6; ++i) {
    std::string ma = std::to_string(i + 1);
    run({"ma", "create", "1", ma, "--name", "a" + ma, "--format", ma_formats[i % 4], "--interval", intervals[i][0]});
    EXPECT_NE(run({"ma", "show"}).find("MaIndex : " + ma + "\r\nFormat : " + ma_formats[i % 4] + "\r\nName : a" + ma +
                                       "\r\nCcmInterval : " + intervals[i][1]),
              std::string::npos) << intervals[i][0];
  }
  run({"ma", "config", "1", "6", "--name", "renamed", "--format", "primaryvid", "--interval", "1s"});
  EXPECT_NE(run({"ma", "show"}).find("MaIndex : 6\r\nFormat : primaryvid\r\nName : renamed\r\nCcmInterval : 10ms100ms1s"),
            std::string::npos);
  run({"md", "config", "4", "--name", "dd", "--level", "6", "--mhf", "none", "--format", "none"});
  EXPECT_NE(run({"md", "show"}).find("MdIndex : 4\r\nMdFormat : none\r\nMdLevel : 6\r\nMhfCreation : defmhfnone\r\nMdName : dd"),
            std::string::npos);
  run({"mep", "create", "1", "1", "30", "--vid", "7", "--direction", "up"});
  const char *alarms[][2] = {{"alldef", "All Defect"}, {"macremerrxcon", "macRemErrXcon"}, {"remerrxcon", "remErrXcon"},
                             {"errxcon", "errXcon"},   {"xcon", "xcon"},                   {"noxcon", "noXcon"}};
  for (const auto &[name, shown] : alarms) {
    run({"mep", "config", "1", "1", "30", "--vid", "7", "--direction", "up", "--alarm-priority", name, "--ccm", "off"});
    EXPECT_NE(run({"show", "mep", "ccm"}).find(std::string("Transmite  : Disable\r\n CCM Sequence Errors : 0\r\n CCM Defect "
                                                           "Prioity : ") + shown + "\r\n"),
              std::string::npos) << name;
  }
  run({"lt", "start", "1", "1", "30", "--vid", "7", "--direction", "up", "--target", "02:00:00:00:0b:02", "--ttl", "9"});
  EXPECT_NE(run({"mep", "show", "lt"}).find("Target : 02:00:00:00:0b:02\r\n Target MEPID : 0\r\n Target IsMEPID : "
                                            "disabled\r\n TTL : 9"), std::string::npos);
  EXPECT_NE(run({"show", "lbr"}).find("LBM Setting info"), std::string::npos);
  // A second start is refused while the run goes on (also before its first
  // LBM); stop ends it.
  std::vector<std::string> lb = {"lb", "start", "1",  "1", "30", "--vid", "7", "--direction", "up",
                                 "--target", "02:00:00:00:0b:02", "--count", "9"};
  run(lb);
  EXPECT_EQ(RunCfmctl(lb, &status), "\r\n LBM is still transmiting !\r\n");
  EXPECT_EQ(status, 1);
  lb.resize(9);
  lb[1] = "stop";
  run(lb);
  // status lists a MEP's replies to its last linktrace only (each LTM sent
  // records one reply row here, where no bridge answers).
  run({"mep", "create", "1", "1", "31"});
  for (int i = 0; i < 2; ++i) run({"lt", "start", "1", "1", "31", "--target", "02:00:00:00:0b:02", "--ttl", "5"});
  std::string screen = run({"status"});
  EXPECT_NE(screen.find("MEP 31  MD 1 (d1)  MA 1 (a1)  port 1  VID 0  Down\n"), std::string::npos) << screen;
  EXPECT_NE(screen.find("linktrace: Success, target 02:00:00:00:0b:02, ttl 5, 1 replies\n"), std::string::npos) << screen;
  EXPECT_NE(screen.find("loopback: stopped, "), std::string::npos) << screen;
  EXPECT_EQ(RunCfmctl({"md", "create", "9", "extra", "--level", "1", "--name", "x"}, &status), "");
  EXPECT_EQ(status, 2);
}

}  // namespace
