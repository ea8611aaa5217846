// Command handlers driven in-process through the request parser, against the
// real database, with standard output captured.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cli/server.h"
#include "cli_capture.h"
#include "core/config_tree.h"
#include "core/os.h"
#include "core/status.h"
#include "db/mgmt_if.h"
#include "db_test_support.h"

namespace fs = std::filesystem;

namespace {

const char kKey[] = "1 0 2 0 10 0 1 0 0 0";  // MD 1, MA 2, MEPID 10, port 1, vid 0

int sent_ltms = 0;
int fake_ltm(const LtmRequest *) {
  ++sent_ltms;
  return 1;
}

class CliCommands : public DbTest {
 protected:
  static void SetUpTestSuite() { CFM_Create_MEP_SYC_Sem(); }
  void SetUp() override {
    DbTest::SetUp();
    CFM_IF_Set_LTM_Transmitter(fake_ltm);
    char tmpl[] = "/tmp/cli_tree_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    tree_ = tmpl;
    ASSERT_TRUE(ConfigTree::attachDirectory(tree_.string()));
  }
  void TearDown() override {
    ConfigTree::detach();
    fs::remove_all(tree_);
    CFM_IF_Set_LTM_Transmitter(nullptr);
  }
  std::string Tree(const std::string &key) {
    std::ifstream in(tree_ / key);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return text;
  }
  void MakeMdMa() {
    ASSERT_EQ(Cli("createmd 1 0 5 0 dom"), "");
    ASSERT_EQ(Cli("createma 1 0 2 0 assoc"), "");
  }
  MepEntry Mep(uint16_t mep_id = 10, uint8_t direction = 1) {
    MepEntry mep = {};
    mep.md_id = 1;
    mep.ma_id = 2;
    mep.mep_id = mep_id;
    mep.port = 1;
    mep.direction = direction;
    EXPECT_EQ(CFM_IF_Get_MEP_Entry(&mep), 1);
    return mep;
  }
  std::string ConfigMep(const std::string &options) {
    return Cli(("configmep 1 0 2 0 10 0 1 0 0 0 100 0 " + options).c_str());
  }
  fs::path tree_;
};

TEST_F(CliCommands, MdLifeCycle) {
  EXPECT_EQ(Cli("createmd 3 0 5 4 core"), "");
  EXPECT_EQ(Cli("createmd 3 0 5 4 again"), "\r\nError!! MD Index exist");
  EXPECT_EQ(Cli("createmd 1 0 2 0 first 1 11"), "");
  EXPECT_EQ(Cli("configmd 3 1 11 2 21"), "\r\nMD config Success!!");
  EXPECT_EQ(Cli("configmd 3 2 23"), "\r\nMD config Success!!");  // unknown value: unchanged
  // Code 3 is passed over alone, then 7, then code 0 sets the level.
  EXPECT_EQ(Cli("configmd 3 3 7 0 6 4 0123456789012345678901234567890123456789012345678"),
            "\r\nMD config Success!!");
  MdEntry md = {};
  md.MdIndex = 3;
  ASSERT_EQ(CFM_IF_Get_MD_Entry(&md), 1);
  EXPECT_EQ(md.MdFormat, 1);
  EXPECT_EQ(md.MhfCreation, 1);
  EXPECT_EQ(md.MdLevel, 6);
  EXPECT_STREQ(md.MdName, "0123456789012345678901234567890123456789012");
  EXPECT_EQ(Cli("configmd 3 0 9"), "\r\nError!! MD config fail");
  EXPECT_EQ(Cli("configmd 4 0 1"), "\r\nError!! MD Index doenn't exist");
  EXPECT_EQ(Cli("createmd 5 0 9 0 x"), "\r\nError!! MD Table is full");
  EXPECT_EQ(Cli(("createmd 5 0 1 0 " + std::string(44, 'n')).c_str()), "\r\nError!! MD Table is full");
  EXPECT_EQ(Cli("createmd 5 0 1 0 12345"), "");  // a numeric name is the text as sent
  md.MdIndex = 5;
  ASSERT_EQ(CFM_IF_Get_MD_Entry(&md), 1);
  EXPECT_STREQ(md.MdName, "12345");
  EXPECT_EQ(Cli("deletemd 5"), "");
  EXPECT_EQ(Cli("deletemd 5"), "\r\n This MD is not exist!\r\n");
}

TEST_F(CliCommands, MepCreateConfigDelete) {
  MakeMdMa();
  EXPECT_EQ(Cli("createmep 1 0 3 0 10 0 1 0 0 0 1"), "\r\nError!! MA Index doesn't exist");
  EXPECT_EQ(Cli("createmep 4 0 2 0 10 0 1 0 0 0 1"), "\r\nError!! MD Index doesn't exist");
  EXPECT_EQ(Cli((std::string("createmep ") + kKey + " 1").c_str()), "");
  EXPECT_EQ(Cli((std::string("createmep ") + kKey + " 1").c_str()), "\r\nError!! MEP Index exist");
  EXPECT_EQ(Cli("createmep 1 0 2 0 9000 0 1 0 0 0 1"), "\r\nError!! MEP Table is full, status: 12000011 ");
  EXPECT_EQ(Cli("createmep 1 0 2 0 11 0 1 0 0 0 7"), "");  // unknown direction: still created
  Mep(11);

  EXPECT_EQ(ConfigMep("1 120 2 22 3 5 4 44 6 00:11:22:33:44:55 7 3 8 6 9 92 10 aa:bb:cc:dd:ee:ff 11 9 "
                      "13 77 14 257 15 hello 16 88 17 1"),
            "");
  MepEntry mep = Mep();
  EXPECT_EQ(mep.Active, 0u);
  EXPECT_EQ(mep.CciEnabled, 0u);
  EXPECT_EQ(mep.CcmLtmPriority, 5);
  EXPECT_EQ(mep.LowestAlarmPriority, 4);
  EXPECT_EQ(mep.LbmTargetMac[5], 0x55);
  EXPECT_EQ(mep.LbmMessages, 3u);
  EXPECT_EQ(mep.LbmPriority, 6);
  EXPECT_EQ(mep.LtmFlags, 0x80);
  EXPECT_EQ(mep.LtmTargetMac[0], 0xaa);
  EXPECT_EQ(mep.LtmTtl, 9);
  EXPECT_EQ(mep.LbmTargetMepId, 77);
  EXPECT_EQ(mep.LbmTargetIsMepId, 1u);  // low 8 bits of 257
  EXPECT_STREQ(mep.LbmDataTlv, "hello");
  EXPECT_EQ(mep.LtmTargetMepId, 88);
  EXPECT_EQ(mep.LtmTargetIsMepId, 1u);
  EXPECT_EQ(Tree("runtime/cfm/lbm/sending"), "1\n");
  EXPECT_EQ(Tree("runtime/cfm/ltm/sending"), "1\n");

  // A refused code or value discards every option before it, silently.
  for (const char *refused : {"2 21 9 93", "2 21 1 111", "2 21 18 1", "2 21 0 0", "2 21 4 47", "2 21 12 123"}) {
    EXPECT_EQ(ConfigMep(refused), "") << refused;
    EXPECT_EQ(Mep().CciEnabled, 0u) << refused;
  }
  EXPECT_EQ(Cli("configmep 1 0 2 0 10 0 1 0 0 0 2 0 2 21"), "");  // configmep's Down is 100
  EXPECT_EQ(Mep().CciEnabled, 0u);
  EXPECT_EQ(Cli("configmep 1 0 2 0 12 0 1 0 0 0 100 0 2 21"), "\r\n This MEP is not exist!\r\n");
  // Option 15 is cut to the field's 1201 bytes (a word list, as requests
  // are limited to 1023 bytes); a bad MAC keeps what parsed.
  std::vector<std::string> words = {"configmep", "1", "0", "2", "0", "10", "0", "1", "0", "0", "0", "100", "0",
                                    "15", std::string(1500, 'd'), "6", "66:77:zz"};
  std::vector<CliWord> list(words.size());
  for (size_t i = 0; i < words.size(); ++i) list[i] = {words[i].data(), i + 1 < words.size() ? &list[i + 1] : nullptr};
  EXPECT_EQ(CaptureStdout([&] { EXPECT_EQ(cfm_cli_run_command(list.data()), 2); }), "");
  mep = Mep();
  EXPECT_EQ(strlen(mep.LbmDataTlv), 1201u);
  EXPECT_EQ(mep.LbmTargetMac[0], 0x66);
  EXPECT_EQ(mep.LbmTargetMac[1], 0x77);
  EXPECT_EQ(mep.LbmTargetMac[3], 0x33);
  // A linktrace run: sent through the transmitter seam.
  EXPECT_EQ(ConfigMep("17 0 12 121"), "");
  EXPECT_EQ(sent_ltms, 1);

  EXPECT_EQ(Cli("deletemep 1 0 2 0 10 0 1 0 0 0 100"), "");  // deletemep's Down is 1
  EXPECT_EQ(Cli("deletemep 1 0 2 0 10 0 1 0 0 0 1"), "");
  EXPECT_EQ(Cli("deletemep 1 0 2 0 10 0 1 0 0 0 1"), "\r\n This MEP is not exist!\r\n");
}

// A tick stand-in reads and writes every MEP back under MEP_SYC, slowly;
// each configmep must still be what stays stored.
TEST_F(CliCommands, ConfigMepIsNotUndoneByATick) {
  MakeMdMa();
  Cli((std::string("createmep ") + kKey + " 1").c_str());
  std::atomic<bool> stop{false};
  std::thread tick([&] {
    while (!stop.load()) {
      {
        MepSycLock lock;
        MepEntry mep = {};
        while (CFM_GetNext_MEP_Entry(&mep) == 1) {
          MepEntry copy = mep;
          std::this_thread::sleep_for(std::chrono::microseconds(300));
          CFM_Update_MEP_Entry(&copy);
        }
      }
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  int lost = 0;
  for (int i = 0; i < 200; ++i) {
    bool on = i % 2 == 0;
    ConfigMep(on ? "2 21" : "2 22");
    std::this_thread::sleep_for(std::chrono::microseconds(500));
    if (Mep().CciEnabled != (on ? 1u : 0u)) ++lost;
  }
  stop = true;
  tick.join();
  EXPECT_EQ(lost, 0);
}

TEST_F(CliCommands, LoopbackStillRunningIsReported) {
  MakeMdMa();
  Cli((std::string("createmep ") + kKey + " 1").c_str());
  MepEntry mep = Mep();
  mep.LbmRunning = 1;
  ASSERT_EQ(CFM_Update_MEP_Entry(&mep), 1);
  EXPECT_EQ(ConfigMep("5 51 7 3"), "\r\n LBM is still transmiting !\r\n");
}

TEST_F(CliCommands, GuardsLeaveTheDatabaseUnchanged) {
  MakeMdMa();
  Cli((std::string("createmep ") + kKey + " 1").c_str());
  const std::string before = Cli("showmep 3") + Cli("showmd") + Cli("showma");
  for (const char *cmd : {"createmd", "configmd", "deletemd", "createma", "configma", "deletema", "createmep",
                          "configmep", "deletemep", "runtime", "update", "default", "showdefault"}) {
    EXPECT_EQ(Cli(cmd), "\r\nError!! Missing argument") << cmd;
  }
  EXPECT_EQ(Cli("createmd 7 0 1 0"), "\r\nError!! Missing argument");
  EXPECT_EQ(Cli("createmd 7 x 1 0 name"), "");  // skipped words are never read
  Cli("deletemd 7");
  EXPECT_EQ(Cli("createmd x 0 1 0 name"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("configmd 1 0"), "\r\nError!! Missing argument");
  EXPECT_EQ(Cli("configmd 1 0 6 1"), "\r\nError!! Missing argument");
  EXPECT_EQ(Cli("configmd 1 0 six"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("configma 1 0 2 3 29 2"), "\r\nError!! Missing argument");
  EXPECT_EQ(Cli("deletema 1 0 two"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("createmep 1 0 2 0 10 0 1 0 0 0"), "\r\nError!! Missing argument");
  EXPECT_EQ(ConfigMep("2 22 7"), "\r\nError!! Missing argument");
  EXPECT_EQ(ConfigMep("2 22 7 many"), "\r\nError!! Invalid argument");
  EXPECT_EQ(ConfigMep("2 22 -4 1"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("showmep x"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("runtime 1\n"), "\r\nError!! Invalid argument");
  EXPECT_EQ(Cli("showmep 3") + Cli("showmd") + Cli("showma"), before);
}

TEST_F(CliCommands, ShowMepBlocksAndRuntime) {
  MakeMdMa();
  Cli((std::string("createmep ") + kKey + " 1").c_str());
  ConfigMep("10 00:0a:0b:0c:0d:0e 15 data");
  const std::string head = "\r\n MdID  : 1\r\n MaID  : 2\r\n MepID : 10\r\n port  : 1\r\n vid   : 0\r\n Direct: Down\r\n";
  EXPECT_EQ(Cli("showmep"), head);
  EXPECT_EQ(Cli("showmep 4"), head);
  EXPECT_EQ(Cli("showmep 1"), head +
                                  "\r\n CCM/LTM priority  : 7\r\n CCM Transmite  : Enable\r\n CCM Sequence Errors : 0"
                                  "\r\n CCM Defect Prioity : macRemErrXcon\r\n CCM Defect : RDI CCM"
                                  "\r\n CCM sequence number  : 0\r\n");
  EXPECT_EQ(Cli("showmep 2"), head +
                                  "\r\n LTM wroking info\r\n CCM/LTM priority  : 7\r\n LTM next sequence number  : 1"
                                  "\r\n Unexpect LTR : 0\r\n Flag: None\r\n Target : 00:0a:0b:0c:0d:0e"
                                  "\r\n Target MEPID : 0\r\n Target IsMEPID : disabled\r\n TTL : 64\r\n Result: Fail"
                                  "\r\n LTM sequence number  : 0\r\n");
  EXPECT_EQ(Cli("showmep 3"), head +
                                  "\r\n ====LBM Setting info===="
                                  "\r\n LBM message number    : 10\r\n LBM priority          : 7"
                                  "\r\n LBM Target MEPID      : 0\r\n LBM Target IsMEPID    : disabled"
                                  "\r\n LBM Target MAC        : 00:00:00:00:00:00\r\n LBM DATA TLV  content : data\r\n"
                                  "\r\n ====LBM wroking info====\r\n LBM Transmit Finished"
                                  "\r\n LBM Transmit Result    : Fail"
                                  "\r\n LBM Transmit first sequence number      : 0"
                                  "\r\n LBM Transmit Next Lbm TransId           : 0"
                                  "\r\n Total number of valid LBR In            : 0"
                                  "\r\n Total number of valid LBR InOutOfOrder  : 0"
                                  "\r\n Total number of Bad LBR Msdu            : 0"
                                  "\r\n Total number of Transmit LBR number     : 0\r\n");
  Cli("createmep 1 0 2 0 20 0 1 0 0 0 1");
  Cli("createmep 1 0 2 0 30 0 1 0 0 0 2");
  MepEntry mep = Mep(30, 2);
  mep.NextLbmTransId = 42;
  mep.CcmDefect = 9;  // out of range: no line
  ASSERT_EQ(CFM_Update_MEP_Entry(&mep), 1);
  EXPECT_EQ(Cli("runtime 9"), "0\n0\n42\n");
  EXPECT_EQ(Cli("runtime 4"), "RDI CCM\nRDI CCM\n");
  EXPECT_EQ(Cli("runtime 17"), "00:0a:0b:0c:0d:0e\n00:00:00:00:00:00\n00:00:00:00:00:00\n");
  EXPECT_EQ(Cli("runtime 23"), "");
}

TEST_F(CliCommands, RemoteMepsAndLinktraceReplies) {
  RemoteMepEntry rmep = {};
  rmep.md_id = 1;
  rmep.ma_id = 2;
  rmep.rmep_id = 5;
  rmep.mep_id = 10;
  rmep.ReceiveTime = 2500;
  rmep.src_mac[5] = 0x42;
  rmep.PortStatus = 2;
  rmep.InterfaceStatus = 9;
  rmep.port = 1;
  rmep.vlan_id = 100;
  rmep.SequenceNum = 7;
  ASSERT_EQ(CFM_MEP_DB_RemEntry_Count(), 0u);
  CFM_MEP_DB_Store_RemEntry(&rmep);
  ASSERT_EQ(CFM_MEP_DB_RemEntry_Count(), 1u);
  EXPECT_EQ(Cli("showremotemep"),
            "\r\n MdID  : 1\r\n MaID  : 2\r\n MepID  : 10\r\n PortNumber   : 1\r\n vid   : 100\r\n RemoteMepID : 5"
            "\r\n SrcMacAddress : 00:00:00:00:00:42\r\n ReciveTime  : 2s\r\n SequenceNum  : 7\r\n PortStatusTlv  : UP");
  LtrEntry ltr = {};
  ltr.md_id = 1;
  ltr.ma_id = 2;
  ltr.mep_id = 10;
  ltr.sequence = 3;
  ltr.ttl = 63;
  ltr.forward = 1;
  ltr.LastEgressId[7] = 1;
  ltr.NextEgressId[2] = 0xab;
  CFM_DB_Update_LtrEntry(&ltr);
  EXPECT_EQ(Cli("showltr"),
            "\r\n MdID  : 1\r\n MaID  : 2\r\n MepID : 10\r\n Sequence Number  : 3\r\n LTR TTL : 63\r\n Forward: Yes"
            "\r\n Terminal: non-MEP\r\n Last Egress ID : 00:00:00:00:00:01\r\n Next Egress ID : ab:00:00:00:00:00\r\n");
  EXPECT_EQ(Cli("clearremotemep"), "");
  EXPECT_EQ(Cli("showremotemep"), "");
}

TEST_F(CliCommands, ExportAndClearWriteTheTree) {
  Cli("createmd 1 0 5 0 dom");
  Cli("createma 1 0 2 0 assoc");
  Cli((std::string("createmep ") + kKey + " 1").c_str());
  Cli("createmep 1 0 2 0 20 0 1 0 0 0 1");
  MepEntry last = Mep(20);
  last.LbrIn = 4;
  last.CcmSequenceErrors = 2;
  ASSERT_EQ(CFM_Update_MEP_Entry(&last), 1);
  for (int kind = 3; kind <= 6; ++kind) EXPECT_EQ(Cli(("update " + std::to_string(kind)).c_str()), "");
  EXPECT_EQ(Tree("runtime/cfm/lbm/valid_lbr_in"), "4\n");  // the last MEP's values stay
  EXPECT_EQ(Tree("runtime/cfm/lbm/status"), "LBM Transmit Finished\n");
  EXPECT_EQ(Tree("runtime/cfm/ccm/sequence_err"), "2\n");
  EXPECT_EQ(Tree("runtime/cfm/ccm/defect"), "RDI CCM\n");
  EXPECT_EQ(Tree("runtime/cfm/ltm/target_ismep"), "disabled\n");

  RemoteMepEntry rmep = {};
  rmep.md_id = 1;
  rmep.ma_id = 2;
  rmep.rmep_id = 5;
  rmep.vlan_id = 7;
  rmep.src_mac[0] = 0x10;
  ASSERT_EQ(CFM_MEP_DB_RemEntry_Count(), 0u);
  CFM_MEP_DB_Store_RemEntry(&rmep);
  ASSERT_EQ(CFM_MEP_DB_RemEntry_Count(), 1u);
  ConfigTree::setInt(2, "/runtime/cfm/rmep#");
  ConfigTree::setStr("stale", "/runtime/cfm/rmep:%d/md_id", 0);
  ConfigTree::setStr("stale", "/runtime/cfm/rmep:%d/md_id", 2);  // row "count" is never deleted
  EXPECT_EQ(Cli("update 1"), "");
  EXPECT_FALSE(fs::exists(tree_ / "runtime/cfm/rmep:0"));
  EXPECT_EQ(Tree("runtime/cfm/rmep:1/md_id"), "dom\n");
  EXPECT_EQ(Tree("runtime/cfm/rmep:1/ma_id"), "assoc\n");
  EXPECT_EQ(Tree("runtime/cfm/rmep:1/src_mac"), "10:00:00:00:00:00\n");
  EXPECT_EQ(Tree("runtime/cfm/rmep:1/vlan_id"), "7\n");
  EXPECT_EQ(Tree("runtime/cfm/rmep:2/md_id"), "stale\n");
  EXPECT_EQ(Tree("runtime/cfm/rmep_db"), "0\n");

  LtrEntry ltr = {};
  ltr.md_id = 1;
  ltr.mep_id = 10;
  CFM_DB_Update_LtrEntry(&ltr);  // no source MAC yet: skipped
  ltr.sequence = 1;
  ltr.mac[0] = 2;
  ltr.relay = 2;
  memcpy(ltr.ReplyIngressPort, "eth0", 4);  // no NUL in the field
  CFM_DB_Update_LtrEntry(&ltr);
  for (int n = 1; n <= 3; ++n) ConfigTree::setInt(n, "/runtime/cfm/ltr:%d/ttl", n);
  EXPECT_EQ(Cli("update 2"), "");
  EXPECT_FALSE(fs::exists(tree_ / "runtime/cfm/ltr:2"));
  EXPECT_EQ(Tree("runtime/cfm/ltr:1/mac"), "02:00:00:00:00:00\n");
  EXPECT_EQ(Tree("runtime/cfm/ltr:1/relay"), "FDB\n");
  EXPECT_EQ(Tree("runtime/cfm/ltr:1/terminal"), "MIP\n");
  EXPECT_EQ(Tree("runtime/cfm/ltr:1/reply_ingress_port"), "eth0\n");

  for (int n = 1; n <= 3; ++n) ConfigTree::setInt(n, "/runtime/cfm/lbr:%d/transID", n);
  EXPECT_EQ(Cli("clearlbr"), "");
  uint16_t rows = 9;
  ConfigTree::getRow("/runtime/cfm/lbr", &rows);
  EXPECT_EQ(rows, 0);
  EXPECT_EQ(Tree("runtime/cfm/clear"), "0\n");

  EXPECT_EQ(Cli("clearcnt"), "");
  last = Mep(20);
  EXPECT_EQ(last.LbrIn, 0u);
  EXPECT_EQ(last.CcmSequenceErrors, 0u);
  EXPECT_EQ(Tree("runtime/cfm/lbm/sending"), "0\n");
}

}  // namespace
