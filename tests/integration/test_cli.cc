// The command socket of the real daemon: every command family with its exact
// texts, the request parser, the argument guards, hostile clients, the tree
// export and the cfmctl client.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "cli/server.h"
#include "lab.h"

namespace {

using cfmlab::Lab;
using Clock = std::chrono::steady_clock;

const char kTree[] = "/var/tree";
// CFM stays disabled, so no engine changes the MEPs while they are listed.
const std::vector<std::string> kQuietArgs = {"-i", "wan0"};

class Cli : public Lab {
 protected:
  // A request on MEP 10 (MD 1, MA 2, port 1, VID 0); options follow a 0.
  std::vector<std::string> MepWords(const std::string &command, const std::string &direction,
                                    std::vector<std::string> options = {}) {
    std::vector<std::string> words = {command, "1", "0", "2", "0", "10", "0", "1", "0", "0", "0", direction};
    if (!options.empty()) options.insert(options.begin(), "0");
    words.insert(words.end(), options.begin(), options.end());
    return words;
  }
  void MakeMep() {
    ASSERT_EQ(Command({"createmd", "1", "0", "5", "0", "dom"}), "");
    ASSERT_EQ(Command({"createma", "1", "0", "2", "0", "assoc"}), "");
    ASSERT_EQ(Command(MepWords("createmep", "1")), "");
  }
  std::string Database() { return Command({"showmd"}) + Command({"showma"}) + Command({"showmep", "3"}); }
  // Opens a connection and leaves it silent.
  int Connect() {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kCommandSocket);
    EXPECT_EQ(connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr), 0);
    return fd;
  }
};

TEST_F(Cli, MdAndMaLifeCycle) {
  ASSERT_TRUE(StartDaemonReady());
  EXPECT_EQ(Command({"createmd", "3", "0", "5", "4", "core"}), "");
  EXPECT_EQ(Command({"createmd", "3", "0", "5", "4", "core"}), "\r\nError!! MD Index exist");
  EXPECT_EQ(Command({"createmd", "1", "0", "2", "0", "one", "1", "12", "2", "21"}), "");
  EXPECT_EQ(Command({"configmd", "3", "3", "7", "0", "6"}), "\r\nMD config Success!!");
  EXPECT_EQ(Command({"configmd", "9", "0", "6"}), "\r\nError!! MD Index doenn't exist");
  EXPECT_EQ(Command({"configmd", "3", "0", "8"}), "\r\nError!! MD config fail");
  EXPECT_EQ(Command({"showmd"}),
            "\r\nMdIndex : 1\r\nMdFormat : dnslikename\r\nMdLevel : 2\r\nMhfCreation : defmhfnone\r\nMdName : one\r\n"
            "\r\nMdIndex : 3\r\nMdFormat : charstring\r\nMdLevel : 6\r\nMhfCreation : defmhfdefault\r\nMdName : core\r\n");
  EXPECT_EQ(Command({"createma", "3", "0", "7", "0", "seven", "3", "29"}), "");
  EXPECT_EQ(Command({"createma", "1", "0", "4", "0", "four", "3", "30", "1", "11"}), "");
  EXPECT_EQ(Command({"createma", "1", "0", "4", "0", "four"}), "\r\nError!! MA Index exist");
  EXPECT_EQ(Command({"createma", "2", "0", "5", "0", "x"}), "\r\nError!! MD Index doesn't exist");
  EXPECT_EQ(Command({"createma", "1", "0", "5", "0", "x", "3", "99", "1", "15", "2", "renamed"}), "");
  EXPECT_EQ(Command({"configma", "1", "0", "5", "3", "34"}), "\r\nMA config Success!!");
  EXPECT_EQ(Command({"configma", "1", "0", "6"}), "\r\nError!! MA Index doesn't exist");
  EXPECT_EQ(Command({"showma"}),
            "\r\nMdIndex : 1\r\nMaIndex : 4\r\nFormat : primaryvid\r\nName : four\r\nCcmInterval : rfc2865vpnid\r\n"
            "\r\nMdIndex : 1\r\nMaIndex : 5\r\nFormat : charstring\r\nName : renamed\r\nCcmInterval : 10min\r\n"
            "\r\nMdIndex : 3\r\nMaIndex : 7\r\nFormat : charstring\r\nName : seven\r\nCcmInterval : unsignedint16\r\n");
  // MD 3 holds MA 7, but only the MA of smallest index (4, in MD 1) is
  // looked at.
  EXPECT_EQ(Command({"deletemd", "1"}), "\r\n This MD has MA entry, need to delete all this MD's MA!\r\n");
  EXPECT_EQ(Command({"deletemd", "3"}), "");
  EXPECT_EQ(Command({"deletemd", "3"}), "\r\n This MD is not exist!\r\n");
  EXPECT_EQ(Command({"deletema", "1", "0", "4"}), "");
  EXPECT_EQ(Command({"deletema", "1", "0", "4"}), "\r\n This MA is not exist!\r\n");
  EXPECT_TRUE(Running());
}

TEST_F(Cli, MepCommandsAndListings) {
  ASSERT_TRUE(StartDaemonReady(kQuietArgs));
  MakeMep();
  EXPECT_EQ(Command(MepWords("createmep", "1")), "\r\nError!! MEP Index exist");
  EXPECT_EQ(Command({"createmep", "1", "0", "3", "0", "10", "0", "1", "0", "0", "0", "1"}),
            "\r\nError!! MA Index doesn't exist");
  EXPECT_EQ(Command({"createmep", "1", "0", "2", "0", "0", "0", "1", "0", "0", "0", "1"}),
            "\r\nError!! MEP Table is full, status: 12000011 ");
  EXPECT_EQ(Command({"deletemd", "1"}), "\r\n This MD has MEP entry, need to delete all this MD's MEP!\r\n");
  EXPECT_EQ(Command({"deletema", "1", "0", "2"}),
            "\r\n This MA has MEP entry, need to delete all this MA's MEP!\r\n");

  EXPECT_EQ(Command(MepWords("configmep", "100",
                             {"1", "110", "2", "22", "3", "4", "4", "46", "6", "00:11:22:33:44:55", "7", "5", "8", "2",
                              "9", "92", "10", "66:77:88:99:aa:bb", "11", "30", "13", "12", "14", "1", "15", "payload",
                              "16", "21", "17", "1"})),
            "");
  const std::string head =
      "\r\n MdID  : 1\r\n MaID  : 2\r\n MepID : 10\r\n port  : 1\r\n vid   : 0\r\n Direct: Down\r\n";
  EXPECT_EQ(Command({"showmep"}), head);
  EXPECT_EQ(Command({"showmep", "1"}), head +
                                           "\r\n CCM/LTM priority  : 4\r\n CCM Transmite  : Disable"
                                           "\r\n CCM Sequence Errors : 0\r\n CCM Defect Prioity : noXcon"
                                           "\r\n CCM Defect : RDI CCM\r\n CCM sequence number  : 0\r\n");
  EXPECT_EQ(Command({"showmep", "2"}), head +
                                           "\r\n LTM wroking info\r\n CCM/LTM priority  : 4"
                                           "\r\n LTM next sequence number  : 1\r\n Unexpect LTR : 0"
                                           "\r\n Flag: useFDBonly\r\n Target : 66:77:88:99:aa:bb"
                                           "\r\n Target MEPID : 21\r\n Target IsMEPID : enabled\r\n TTL : 30"
                                           "\r\n Result: Fail\r\n LTM sequence number  : 0\r\n");
  std::string lbm = Command({"showmep", "3"});
  EXPECT_NE(lbm.find("\r\n LBM message number    : 5\r\n LBM priority          : 2"
                     "\r\n LBM Target MEPID      : 12\r\n LBM Target IsMEPID    : enabled"
                     "\r\n LBM Target MAC        : 00:11:22:33:44:55\r\n LBM DATA TLV  content : payload\r\n"),
            std::string::npos)
      << lbm;
  EXPECT_EQ(Command({"runtime", "3"}), "noXcon\n");
  EXPECT_EQ(Command({"runtime", "16"}), "useFDBonly\n");
  EXPECT_EQ(Command({"runtime", "0"}), "");

  // Refusals: a bad value after a good one, configmep's own direction codes.
  EXPECT_EQ(Command(MepWords("configmep", "100", {"2", "21", "9", "93"})), "");
  EXPECT_EQ(Command({"runtime", "1"}), "Disable\n");
  EXPECT_EQ(Command(MepWords("configmep", "1", {"2", "21"})), "");
  EXPECT_EQ(Command({"runtime", "1"}), "Disable\n");
  EXPECT_EQ(Command(MepWords("configmep", "100", {"2", "21"})), "");
  EXPECT_EQ(Command({"runtime", "1"}), "Enable\n");
  EXPECT_EQ(Command({"createmep", "1", "0", "2", "0", "20", "0", "1", "0", "0", "0", "1"}), "");
  EXPECT_EQ(Command({"runtime", "1"}), "Enable\nEnable\n");

  EXPECT_EQ(Command(MepWords("deletemep", "100")), "");
  EXPECT_EQ(Command(MepWords("deletemep", "1")), "");
  EXPECT_EQ(Command(MepWords("deletemep", "1")), "\r\n This MEP is not exist!\r\n");
  EXPECT_EQ(Command(MepWords("configmep", "100")), "\r\n This MEP is not exist!\r\n");
}

TEST_F(Cli, ParserRules) {
  ASSERT_TRUE(StartDaemonReady());
  Command({"createmd", "1", "0", "2", "0", "one"});
  const std::string md = Command({"showmd"});
  ASSERT_FALSE(md.empty());
  EXPECT_EQ(CommandText("showmd\n"), "unknown command !\n");
  EXPECT_EQ(CommandText("   showmd   "), md);
  EXPECT_EQ(CommandText("SHOWMD"), "unknown command !\n");
  EXPECT_EQ(CommandText("showdefault    0002"), "\r\n CFM Status  : enabled");
  EXPECT_EQ(CommandText("showdefault 2\n"), "\r\nError!! Invalid argument");
  EXPECT_EQ(CommandText("showdefault -4"), "\r\nError!! Invalid argument");
  EXPECT_EQ(CommandText("configmd 0042 0 3"), "\r\nError!! MD Index doenn't exist");
  EXPECT_EQ(CommandText("createmd 0042 0 3 0 12abc"), "");
  EXPECT_NE(Command({"showmd"}).find("MdIndex : 42\r\nMdFormat : charstring\r\nMdLevel : 3"), std::string::npos);
  EXPECT_EQ(CommandText(""), "");
  EXPECT_EQ(CommandText("      "), "");
}

TEST_F(Cli, CommandsWithoutArgumentsChangeNothing) {
  ASSERT_TRUE(StartDaemonReady());
  MakeMep();
  const std::string before = Database();
  const std::string missing = "\r\nError!! Missing argument";
  const std::set<std::string> reading = {"default",  "showdefault", "createmd",  "configmd",  "deletemd",
                                         "createma", "configma",    "deletema",  "createmep", "configmep",
                                         "deletemep", "runtime",    "update"};
  for (const CliCommand *row = cfm_cli_cmd_table; row->name != nullptr; ++row) {
    const std::string command = row->name;
    std::string out = Command({command}, 8000);
    if (reading.count(command) != 0) {
      EXPECT_EQ(out, missing) << command;
    }
    ASSERT_TRUE(Running()) << command;
  }
  EXPECT_EQ(Database(), before);
  // Short requests and mistyped words are refused the same way.
  EXPECT_EQ(Command({"createmep", "1", "0", "2"}), missing);
  EXPECT_EQ(Command(MepWords("configmep", "100", {"2", "22", "7"})), missing);
  EXPECT_EQ(Command(MepWords("configmep", "100", {"2", "22", "7", "x"})), "\r\nError!! Invalid argument");
  EXPECT_EQ(Command({"createma", "1", "0", "two", "0", "x"}), "\r\nError!! Invalid argument");
  EXPECT_EQ(Database(), before);
}

TEST_F(Cli, HostileClientsDoNotStopTheServer) {
  ASSERT_TRUE(StartDaemonReady());
  // A silent client is dropped after two seconds; the next one is served.
  int silent = Connect();
  auto start = Clock::now();
  EXPECT_EQ(Command({"showdefault", "2"}), "\r\n CFM Status  : enabled");
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(3500));
  struct pollfd pfd = {silent, POLLIN, 0};
  EXPECT_EQ(poll(&pfd, 1, 1000), 1);
  char byte;
  EXPECT_EQ(read(silent, &byte, 1), 0);  // closed by the daemon
  close(silent);

  EXPECT_EQ(CommandText(std::string(5000, 'x')), "unknown command !\n");
  std::string binary;
  for (int i = 0; i < 2000; ++i) binary += static_cast<char>((i * 37) & 0xff);
  CommandText(binary);
  CommandText("createmd 1 0 2 0 \x01\x02\xff\x7f");
  CommandText(std::string("showmd\0showma", 13));
  CommandText("\n\n\n");
  // A client that goes away without waiting.
  for (int i = 0; i < 300; ++i) {
    int fd = Connect();
    if (i % 3 == 0) (void)!write(fd, "showdefault 9", 13);
    close(fd);
  }
  EXPECT_EQ(Command({"showdefault", "2"}, 10000), "\r\n CFM Status  : enabled");
  EXPECT_TRUE(Running());
}

TEST_F(Cli, UpdateWritesTheTreeAndCfmctlReadsIt) {
  std::vector<std::string> args = kQuietArgs;
  args.insert(args.end(), {"-t", kTree});
  ASSERT_TRUE(StartDaemonReady(args));
  MakeMep();
  Command(MepWords("configmep", "100", {"4", "43", "9", "92"}));
  EXPECT_EQ(ReadFile("/var/tree/runtime/cfm/lbm/sending"), "1\n");
  EXPECT_EQ(Command({"update", "3"}), "");
  EXPECT_EQ(ReadFile("/var/tree/runtime/cfm/ccm/defect_priority"), "remErrXcon\n");
  int status = -1;
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "ltm", "--json"}, &status),
            "[{\"sequence_num\":1,\"unexpect_ltr\":0,\"flag\":\"useFDBonly\",\"target\":\"00:00:00:00:00:00\","
            "\"target_mepid\":0,\"target_ismep\":\"disabled\",\"ttl\":64,\"result\":\"Fail\",\"ltm_sequence\":0}]\n");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "lbm"}, &status),
            "result  first_sequence  next_lbm  valid_lbr_in  valid_lbr_outoforder  bad_lbr_msdu  transmit_lbr  status\n"
            "Fail    0               0         0             0                     0             0             "
            "LBM Transmit Finished\n");
  // Remote MEPs: the flag key is 1 during the export's sleep, 0 after.
  auto start = Clock::now();
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "rmep"}, &status), "row  md_id  ma_id  rmep_id  vlan_id  src_mac\n");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(ReadFile("/var/tree/runtime/cfm/rmep_db"), "0\n");
  // clearlbr removes the loopback rows.
  WriteFile("/var/tree/runtime/cfm/lbr:1/transID", "5\n");
  WriteFile("/var/tree/runtime/cfm/lbr:2/transID", "6\n");
  EXPECT_EQ(Command({"clearlbr"}), "");
  EXPECT_EQ(ReadFile("/var/tree/runtime/cfm/lbr:1/transID"), "");
  EXPECT_EQ(ReadFile("/var/tree/runtime/cfm/clear"), "0\n");
  // cfmctl sends words as one request and waits for the close.
  EXPECT_EQ(RunCfmctl({"createmd", "7", "0", "1", "0", "viactl"}, &status), "");
  EXPECT_EQ(status, 0);
  EXPECT_NE(Command({"showmd"}).find("MdName : viactl"), std::string::npos);
  Stop();
  EXPECT_EQ(RunCfmctl({"showmd"}, &status), "");
  EXPECT_EQ(status, 1);
  // The help names every command of the table.
  std::string help = RunCfmctl({"--help"}, &status);
  EXPECT_EQ(status, 0);
  for (const CliCommand *row = cfm_cli_cmd_table; row->name != nullptr; ++row) {
    EXPECT_NE(help.find(std::string("  ") + row->name + " "), std::string::npos) << row->name;
  }
}

}  // namespace
