// Command handlers driven in-process through the request parser, against the
// real database, with standard output captured; the number test and the
// request reader of the command server.
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <thread>

#include "cli/reply.h"
#include "core/config_tree.h"
#include "harness.h"

namespace fs = std::filesystem;

// Records are built with designated initializers; the fields left out are zero.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using namespace harness;

const char kMissing[] = "\r\nError!! Missing argument";
const char kInvalid[] = "\r\nError!! Invalid argument";

class CliCommands : public DbTest {
 protected:
  static void SetUpTestSuite() { CFM_Create_MEP_SYC_Sem(); }
  void SetUp() override {
    DbTest::SetUp();
    CFM_Global_Reset();
    char tmpl[] = "/tmp/cli_tree_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    tree_ = tmpl;
    ASSERT_TRUE(ConfigTree::attachDirectory(tree_.string()));
  }
  void TearDown() override {
    ConfigTree::detach();
    fs::remove_all(tree_);
  }
  // The values of keys under /runtime/cfm, one after the other.
  std::string Tree(std::initializer_list<const char *> keys) {
    std::string text;
    for (const char *key : keys) {
      std::ifstream in(tree_ / "runtime/cfm" / key);
      text.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return text;
  }
  // MD 1 "dom", MA 2 "assoc" and, unless told otherwise, MEP 10 (port 1, vid 0, Down).
  void MakeMdMa(bool with_mep = true) {
    ExpectCli({{"createmd 1 0 5 0 dom", ""}, {"createma 1 0 2 0 assoc", ""}});
    if (with_mep) ExpectCli({{"createmep 1 0 2 0 10 0 1 0 0 0 1", ""}});
  }
  MepEntry Mep(uint16_t mep_id = 10, uint8_t direction = 1) {
    MepEntry mep = {.md_id = 1, .ma_id = 2, .mep_id = mep_id, .port = 1, .direction = direction};
    EXPECT_EQ(CFM_IF_Get_MEP_Entry(&mep), 1);
    return mep;
  }
  std::string ConfigMep(const std::string &options) {
    return Cli("configmep 1 0 2 0 10 0 1 0 0 0 100 0 " + options);
  }
  fs::path tree_;
};

// configmd: an unknown value leaves the field; code 3 is passed over alone,
// then 7, then code 0 sets the level; the name is cut to 43 characters.
// MD 3 holds MA 7, but deletemd looks only at the MA of smallest index (4,
// in MD 1); a MEP is looked for before an MA.
TEST_F(CliCommands, MdAndMaFieldsTextsAndDeleteRules) {
  const char ok[] = "\r\nMD config Success!!";
  const char md_has_ma[] = "\r\n This MD has MA entry, need to delete all this MD's MA!\r\n";
  ExpectCli({{"createmd 3 0 5 4 core", ""}, {"createmd 3 0 5 4 core", "\r\nError!! MD Index exist"},
             {"createmd 1 0 2 0 one 1 14 2 21", ""}, {"configmd 9 0 6", "\r\nError!! MD Index doenn't exist"},
             {"configmd 3 0 8", "\r\nError!! MD config fail"}, {"configmd 3 1 11 2 21", ok}, {"configmd 3 2 23", ok},
             {"configmd 3 3 7 0 6 4 0123456789012345678901234567890123456789012345678", ok},
             {"createmd 5 0 1 0 " + std::string(44, 'n'), "\r\nError!! MD Table is full"},
             {"createmd 5 0 1 0 12345", ""},            // a numeric name is the text as sent
             {"createmd 6 x 2 x six 0 4 renamed", ""},  // code 0 is configmd's alone
             {"showmd", "\r\nMdIndex : 1\r\nMdFormat : charstring\r\nMdLevel : 2\r\nMhfCreation : defmhfnone\r\n"
                        "MdName : one\r\n\r\nMdIndex : 3\r\nMdFormat : none\r\nMdLevel : 6\r\n"
                        "MhfCreation : defmhfnone\r\nMdName : 0123456789012345678901234567890123456789012\r\n\r\n"
                        "MdIndex : 5\r\nMdFormat : charstring\r\nMdLevel : 1\r\nMhfCreation : defmhfdefault\r\n"
                        "MdName : 12345\r\n\r\nMdIndex : 6\r\nMdFormat : charstring\r\nMdLevel : 2\r\n"
                        "MhfCreation : defmhfdefault\r\nMdName : renamed\r\n"},
             {"createma 3 0 7 0 seven 3 29", ""}, {"createma 1 0 4 0 four 3 30 1 11", ""},
             {"createma 1 0 4 0 four", "\r\nError!! MA Index exist"},
             {"createma 2 0 5 0 x", "\r\nError!! MD Index doesn't exist"},
             {"createma 1 0 5 0 x 3 99 1 15 2 renamed", ""}, {"configma 1 0 5 3 34", "\r\nMA config Success!!"},
             {"configma 1 0 6", "\r\nError!! MA Index doesn't exist"},
             {"showma", "\r\nMdIndex : 1\r\nMaIndex : 4\r\nFormat : primaryvid\r\nName : four\r\n"
                        "CcmInterval : rfc2865vpnid\r\n\r\nMdIndex : 1\r\nMaIndex : 5\r\nFormat : charstring\r\n"
                        "Name : renamed\r\nCcmInterval : 10min\r\n\r\nMdIndex : 3\r\nMaIndex : 7\r\n"
                        "Format : charstring\r\nName : seven\r\nCcmInterval : unsignedint16\r\n"},
             {"createma 1 0 6 0 " + std::string(46, 'a'), "\r\nError!! MA Table is full"},  // 45 at most
             {"createma 1 0 6 0 " + std::string(46, 'a') + " 2 six", ""},
             {"createmep 1 0 5 0 9 0 1 0 0 0 1", ""},
             {"deletemd 1", "\r\n This MD has MEP entry, need to delete all this MD's MEP!\r\n"},
             {"deletema 1 0 5", "\r\n This MA has MEP entry, need to delete all this MA's MEP!\r\n"},
             {"deletemep 1 0 5 0 9 0 1 0 0 0 1", ""}, {"deletemd 1", md_has_ma}, {"deletemd 3", ""},
             {"deletemd 3", "\r\n This MD is not exist!\r\n"}, {"deletema 1 0 4", ""},
             {"deletema 1 0 4", "\r\n This MA is not exist!\r\n"}});
  MaNetEntry six = {.MdIndex = 1, .MaIndex = 6};
  CFM_IF_Get_MA_Net_Entry(&six);
  EXPECT_EQ(std::make_pair(std::string(six.MaName), int(six.CcmInterval)), std::make_pair(std::string("six"), 4));
}

TEST_F(CliCommands, MepCreateConfigDelete) {
  MakeMdMa(false);
  // An unknown direction still creates the MEP, as Down (deleted below), and
  // finds it when repeated; 2 creates an Up MEP.
  ExpectCli({{"createmep 1 0 3 0 10 0 1 0 0 0 1", "\r\nError!! MA Index doesn't exist"},
             {"createmep 4 0 2 0 10 0 1 0 0 0 1", "\r\nError!! MD Index doesn't exist"},
             {"createmep 1 0 2 0 10 0 1 0 0 0 1", ""}, {"createmep 1 0 2 0 11 0 1 0 0 0 7", ""},
             {"createmep 1 0 2 0 11 0 1 0 0 0 0", "\r\nError!! MEP Index exist"},
             {"createmep 1 0 2 0 12 0 1 0 0 0 2", ""},
             {"createmep 1 0 2 0 10 0 1 0 0 0 1", "\r\nError!! MEP Index exist"},
             {"createmep 1 0 2 0 9000 0 1 0 0 0 1", "\r\nError!! MEP Table is full, status: 12000011 "}});
  EXPECT_EQ(Mep(12, CFM_DIRECTION_UP).direction, CFM_DIRECTION_UP);

  EXPECT_EQ(ConfigMep("1 120 2 22 3 5 4 44 6 00:11:22:33:44:55 7 3 8 6 9 92 10 aa:bb:cc:dd:ee:ff 11 9 "
                      "13 77 14 257 15 hello 16 88 17 1"),
            "");
  MepEntry mep = Mep();
  // Active, CCI, CCM/LTM priority, lowest alarm, LBM target, count, priority, LTM flags,
  // LTM target, TTL, LBM target MEPID, its IsMEPID (low 8 bits of 257), LTM target MEPID, IsMEPID.
  EXPECT_EQ((std::vector<long long>{mep.Active, mep.CciEnabled, mep.CcmLtmPriority, mep.LowestAlarmPriority,
                               mep.LbmTargetMac[5], mep.LbmMessages, mep.LbmPriority, mep.LtmFlags,
                               mep.LtmTargetMac[0], mep.LtmTtl, mep.LbmTargetMepId, mep.LbmTargetIsMepId,
                               mep.LtmTargetMepId, mep.LtmTargetIsMepId}),
            (std::vector<long long>{0, 0, 5, 4, 0x55, 3, 6, 0x80, 0xaa, 9, 77, 1, 88, 1}));
  EXPECT_STREQ(mep.LbmDataTlv, "hello");
  EXPECT_EQ(Tree({"lbm/sending", "ltm/sending"}), "1\n1\n");

  // A refused code or value discards every option before it, silently.
  for (const char *refused : {"2 21 9 93", "2 21 1 111", "2 21 18 1", "2 21 0 0", "2 21 4 47", "2 21 12 123"}) {
    EXPECT_EQ(ConfigMep(refused), "") << refused;
    EXPECT_EQ(Mep().CciEnabled, 0u) << refused;
  }
  EXPECT_EQ(Cli("configmep 1 0 2 0 10 0 1 0 0 0 2 0 2 21"), "");  // configmep's Down is 100
  EXPECT_EQ(Mep().CciEnabled, 0u);
  EXPECT_EQ(Cli("configmep 1 0 2 0 12 0 1 0 0 0 100 0 2 21"), "\r\n This MEP is not exist!\r\n");
  // Option 15 is cut to the field's 1201 bytes (a word list, as requests
  // are limited to 1023 bytes).
  std::vector<std::string> words = {"configmep", "1", "0", "2", "0", "10", "0", "1", "0", "0", "0", "100", "0",
                                    "15", std::string(1500, 'd')};
  std::vector<CliWord> list(words.size());
  for (size_t i = 0; i < words.size(); ++i) list[i] = {words[i].data(), i + 1 < words.size() ? &list[i + 1] : nullptr};
  EXPECT_EQ(harness::stdout_of([&] { EXPECT_EQ(cfm_cli_run_command(list.data()), 2); }), "");
  EXPECT_EQ(strlen(Mep().LbmDataTlv), 1201u);
  // deletemep's Down is 1, so 100 deletes nothing.
  EXPECT_EQ(cfm_cli_run_line("deletemep 1 0 2 0 11 0 1 0 0 0 100"), 0);
  ExpectCli({{"deletemep 1 0 2 0 11 0 1 0 0 0 1", ""},
             {"deletemep 1 0 2 0 11 0 1 0 0 0 1", "\r\n This MEP is not exist!\r\n"}});
}

// Short and mistyped requests print their guard text and change nothing.
// (The hostile-input test runs every other handler short of words.)
TEST_F(CliCommands, GuardsLeaveTheDatabaseUnchanged) {
  MakeMdMa();
  auto snapshot = [] { return Cli("showmep 3") + Cli("showmd") + Cli("showma") + Cli("showdefault 1"); };
  const std::string before = snapshot();
  const std::string mep = "configmep 1 0 2 0 10 0 1 0 0 0 100 0 2 22 ";
  ExpectCli({{"createmd 7 0 1 0", kMissing},     {"createmd x 0 1 0 name", kInvalid},
             {"configmd 1 0 6 1", kMissing},     {"configmd 1 0 six", kInvalid},
             {"configma 1 0 2 3 29 2", kMissing}, {"createmep 1 0 2 0 10 0 1 0 0 0", kMissing},
             {mep + "7", kMissing},              {mep + "7 many", kInvalid},
             {mep + "-4 1", kInvalid},           {"update", kMissing}, {"configmd 1 0 6 zz 1", kInvalid}});
  EXPECT_EQ(snapshot(), before);
  EXPECT_EQ(Cli("createmd 7 x 1 0 name"), "");  // skipped words are never read
}

TEST_F(CliCommands, ShowMepBlocksAndRuntime) {
  MakeMdMa();
  ConfigMep("10 00:0a:0b:0c:0d:0e 15 data");
  const std::string head = "\r\n MdID  : 1\r\n MaID  : 2\r\n MepID : 10\r\n port  : 1\r\n vid   : 0\r\n Direct: Down\r\n";
  EXPECT_EQ(Cli("showmep 1"), head + "\r\n CCM/LTM priority  : 7\r\n CCM Transmite  : Enable\r\n CCM Sequence Errors : 0"
                                     "\r\n CCM Defect Prioity : macRemErrXcon\r\n CCM Defect : RDI CCM"
                                     "\r\n CCM sequence number  : 0\r\n");
  EXPECT_EQ(Cli("showmep 2"), head + "\r\n LTM wroking info\r\n CCM/LTM priority  : 7\r\n LTM next sequence number  : 1"
                                     "\r\n Unexpect LTR : 0\r\n Flag: None\r\n Target : 00:0a:0b:0c:0d:0e"
                                     "\r\n Target MEPID : 0\r\n Target IsMEPID : disabled\r\n TTL : 64\r\n Result: Fail"
                                     "\r\n LTM sequence number  : 0\r\n");
  EXPECT_EQ(Cli("showmep 3"), head + "\r\n ====LBM Setting info====\r\n LBM message number    : 10"
                                     "\r\n LBM priority          : 7\r\n LBM Target MEPID      : 0"
                                     "\r\n LBM Target IsMEPID    : disabled\r\n LBM Target MAC        : 00:00:00:00:00:00"
                                     "\r\n LBM DATA TLV  content : data\r\n\r\n ====LBM wroking info===="
                                     "\r\n LBM Transmit Finished\r\n LBM Transmit Result    : Fail"
                                     "\r\n LBM Transmit first sequence number      : 0"
                                     "\r\n LBM Transmit Next Lbm TransId           : 0"
                                     "\r\n Total number of valid LBR In            : 0"
                                     "\r\n Total number of valid LBR InOutOfOrder  : 0"
                                     "\r\n Total number of Bad LBR Msdu            : 0"
                                     "\r\n Total number of Transmit LBR number     : 0\r\n");
  ExpectCli({{"runtime 4", "RDI CCM\n"}, {"runtime 19", "disabled\n"}, {"runtime 17", "00:0a:0b:0c:0d:0e\n"}});
  MepEntry mep = Mep();
  mep.NextLbmTransId = 42;
  mep.CcmDefect = 9;         // out of range: no line
  mep.LtmTargetIsMepId = 2;  // likewise
  ASSERT_EQ(CFM_Update_MEP_Entry(&mep), 1);
  ExpectCli({{"runtime 9", "42\n"}, {"runtime 4", ""}, {"runtime 19", ""}, {"runtime 23", ""}});
}

TEST_F(CliCommands, RemoteMepsAndLinktraceReplies) {
  // Status TLV values past the names (port 3, interface 8) print no line.
  RemoteMepEntry rmep = {.md_id = 1, .ma_id = 2, .rmep_id = 5, .mep_id = 10, .ReceiveTime = 2500,
                         .src_mac = {0, 0, 0, 0, 0, 0x42}, .PortStatus = 2, .InterfaceStatus = 8, .port = 1,
                         .vlan_id = 100, .SequenceNum = 7};
  CFM_MEP_DB_Store_RemEntry(&rmep);
  rmep.rmep_id = 6, rmep.PortStatus = 3, rmep.InterfaceStatus = 7;
  CFM_MEP_DB_Store_RemEntry(&rmep);
  const std::string head = "\r\n MdID  : 1\r\n MaID  : 2\r\n MepID  : 10\r\n PortNumber   : 1\r\n vid   : 100\r\n RemoteMepID : ";
  const std::string middle = "\r\n SrcMacAddress : 00:00:00:00:00:42\r\n ReciveTime  : 2s\r\n SequenceNum  : 7";
  EXPECT_EQ(Cli("showremotemep"), head + "5" + middle + "\r\n PortStatusTlv  : UP" + head + "6" + middle +
                                      "\r\n InterfaceStatusTlv  : Lower Layer Down\r\n");
  LtrEntry ltr = {.md_id = 1, .ma_id = 2, .mep_id = 10, .sequence = 3, .ttl = 63, .forward = 1,
                  .LastEgressId = {0, 0, 0, 0, 0, 0, 0, 1}, .NextEgressId = {0, 0, 0xab}};
  CFM_DB_Update_LtrEntry(&ltr);
  EXPECT_EQ(Cli("showltr"),
            "\r\n MdID  : 1\r\n MaID  : 2\r\n MepID : 10\r\n Sequence Number  : 3\r\n LTR TTL : 63\r\n Forward: Yes"
            "\r\n Terminal: non-MEP\r\n Last Egress ID : 00:00:00:00:00:01\r\n Next Egress ID : ab:00:00:00:00:00\r\n");
  ExpectCli({{"clearremotemep", ""}, {"showremotemep", ""}});
}

TEST_F(CliCommands, ExportAndClearWriteTheTree) {
  MakeMdMa();
  Cli("createmep 1 0 2 0 20 0 1 0 0 0 1");
  MepEntry last = Mep(20);
  last.LbrIn = 4, last.CcmSequenceErrors = 2;
  ASSERT_EQ(CFM_Update_MEP_Entry(&last), 1);
  for (int kind = 3; kind <= 6; ++kind) EXPECT_EQ(Cli("update " + std::to_string(kind)), "");
  // The last MEP's values stay.
  EXPECT_EQ(Tree({"lbm/valid_lbr_in", "lbm/status", "ccm/sequence_err", "ccm/defect", "ltm/target_ismep"}),
            "4\nLBM Transmit Finished\n2\nRDI CCM\ndisabled\n");

  const RemoteMepEntry rmep = {.md_id = 1, .ma_id = 2, .rmep_id = 5, .src_mac = {0x10}, .vlan_id = 7};
  CFM_MEP_DB_Store_RemEntry(&rmep);
  EXPECT_EQ(Cli("update 1"), "");
  EXPECT_EQ(Tree({"rmep:1/md_id", "rmep:1/ma_id", "rmep:1/src_mac", "rmep:1/vlan_id"}),
            "dom\nassoc\n10:00:00:00:00:00\n7\n");

  LtrEntry ltr = {.md_id = 1, .mep_id = 10, .relay = 2, .mac = {2}, .ReplyIngressPort = {'e', 't', 'h', '0'}};
  CFM_DB_Update_LtrEntry(&ltr);  // no NUL in the port name
  for (int n = 1; n <= 3; ++n) ConfigTree::setInt(n, "/runtime/cfm/ltr:%d/ttl", n);
  EXPECT_EQ(Cli("update 2"), "");
  EXPECT_FALSE(fs::exists(tree_ / "runtime/cfm/ltr:2"));
  EXPECT_EQ(Tree({"ltr:1/mac", "ltr:1/relay", "ltr:1/terminal", "ltr:1/reply_ingress_port"}),
            "02:00:00:00:00:00\nFDB\nMIP\neth0\n");

  ExpectCli({{"clearcnt", ""}});
  EXPECT_EQ(Mep(20).LbrIn + Mep(20).CcmSequenceErrors, 0u);
  EXPECT_EQ(Tree({"lbm/sending"}), "0\n");
  for (int n = 1; n <= 3; ++n) ConfigTree::setInt(n, "/runtime/cfm/lbr:%d/seq", n);
  ExpectCli({{"clearlbr", ""}});
  EXPECT_FALSE(fs::exists(tree_ / "runtime/cfm/lbr:1") || fs::exists(tree_ / "runtime/cfm/lbr:3"));
}

// dumpjson: every record with every field, for the connection only (nothing
// on standard output; in-process, without a connection, it is printed);
// "never" is null; texts that could break the document are escaped; one
// section alone; an unknown section refused.
TEST_F(CliCommands, DumpJsonHoldsEveryRecordForTheConnectionOnly) {
  CFM_OS_Set_Clock_Source([] { return 1800000000u; });
  ExpectCli({{"createmd 1 0 5 0 d\"\\\x01\x7f\xff\xc3\xa9\xe2\x82", ""}, {"createma 1 0 2 0 assoc 3 32", ""},
             {"createmep 1 0 2 0 10 0 1 0 7 0 2", ""}, {"default 3 0 2", ""}, {"enable", ""},
             {"configmep 1 0 2 0 10 0 1 0 7 0 200 0 1 110 6 02:00:00:00:00:01 13 4 14 1 15 hi 9 92 "
              "10 02:00:00:00:00:02 16 5 17 1 11 9", ""}});
  MepEntry mep = {.md_id = 1, .ma_id = 2, .mep_id = 10, .port = 1, .vid = 7, .direction = CFM_DIRECTION_UP};
  ASSERT_EQ(CFM_IF_Get_MEP_Entry(&mep), 1);
  mep.LbmRuns = 2, mep.LbmResultOk = 1, mep.LbmSeqNumber = 7, mep.NextLbmTransId = 9, mep.LbrIn = 1, mep.LbrOut = 3;
  mep.LbmDropEnable = 1;
  mep.CcmDefect = 3, mep.CcmSequenceNum = 11, mep.CcmSequenceErrors = 4, mep.UnexpectedLtrIn = 6, mep.LtmSeqNumber = 8;
  ASSERT_EQ(CFM_Update_MEP_Entry(&mep), 1);
  for (uint16_t id : {5, 6}) {
    const RemoteMepEntry rmep = {.md_id = 1, .ma_id = 2, .rmep_id = id, .mep_id = 10, .RdiReceived = 1u - (id & 1),
                                 .src_mac = {2, 0, 0, 0, 0, uint8_t(id)}, .PortStatus = 2, .InterfaceStatus = 1,
                                 .port = 1, .vlan_id = 7, .SequenceNum = 99, .AgeTime = 3500,
                                 .ReceiveTimeMs = id == 5 ? 1800000000123u : 0u};
    ASSERT_EQ(CFM_MEP_DB_Store_RemEntry(&rmep), CFM_DB_FOUND);
  }
  const LtrEntry ltr = {.md_id = 1, .ma_id = 2, .mep_id = 10, .sequence = 8, .ReplyNumber = 1, .ttl = 63, .forward = 1,
                        .LastEgressId = {0, 7, 1, 2, 3, 4, 5, 6}, .relay = 2, .ReplyIngressAction = 1,
                        .ReplyIngressMac = {2, 0, 0, 0, 0, 9}, .mac = {2, 0, 0, 0, 0, 8}, .ReplyIngressPort = {'e', 't', 'h', '0'}};
  ASSERT_EQ(CFM_DB_Update_LtrEntry(&ltr), CFM_DB_FOUND);
  MipEntry mip = {.md_id = 1, .ma_id = 2, .MipId = 30, .port = 2};
  ASSERT_EQ(CFM_IF_Set_MIP_Entry(&mip), CFM_OK);
  CliReply reply;
  auto dump = [&] { CliReplyScope scope(&reply); EXPECT_EQ(cfm_cli_run_line("dumpjson"), 2); };
  EXPECT_EQ(stdout_of(dump), "");
  const std::string time = "{\"time\":\"2027-01-15T08:00:00.000Z\",";
  EXPECT_EQ(reply.text(),
            time + "\"global\":{\"enabled\":true,\"default_md_level\":3,\"mhf_creation\":2,\"sender_id_permission\":1,"
            "\"debug\":false},\"mds\":[{\"md\":1,"
            "\"md_name\":\"d\\u0022\\u005c\\u0001\\u007f\\u00ff\xc3\xa9\\u00e2\\u0082\",\"name_format\":4,\"level\":5,"
            "\"mhf_creation\":2,\"sender_id_permission\":1}],\"mas\":[{\"md\":1,\"ma\":2,\"ma_name\":\"assoc\","
            "\"name_format\":2,\"ccm_interval\":5,\"ccm_interval_ms\":10000}],\"meps\":[{\"md\":1,\"ma\":2,\"mep\":10,"
            "\"port\":1,\"vid\":7,\"direction\":\"up\",\"active\":true,\"ccm_enabled\":true,\"ccm_ltm_priority\":7,"
            "\"lowest_alarm_priority\":2,\"fng_state\":1,\"fng_alarm_time_ms\":2500,\"fng_reset_time_ms\":10000,"
            "\"defect\":3,\"ccm_sequence\":11,\"ccm_sequence_errors\":4,\"loopback\":{\"messages\":10,\"priority\":7,"
            "\"target_mac\":\"02:00:00:00:00:01\",\"target_mep\":4,\"target_is_mep\":true,\"data\":\"hi\","
            "\"drop_enable\":true,\"running\":false,\"stopped\":false,\"runs\":2,\"result\":\"success\",\"first_trans_id\":7,"
            "\"next_trans_id\":9,\"lbr_in\":1,\"lbr_in_out_of_order\":0,\"lbr_bad_msdu\":0,\"lbr_out\":3},"
            "\"linktrace\":{\"fdb_only\":true,\"target_mac\":\"02:00:00:00:00:02\",\"target_mep\":5,"
            "\"target_is_mep\":true,\"ttl\":9,\"runs\":0,\"result\":null,\"sequence\":null,\"next_sequence\":1,"
            "\"unexpected_ltr_in\":6}}],\"mips\":[{\"md\":1,\"ma\":2,\"mip\":30,\"port\":2}],"
            "\"remote_meps\":[{\"md\":1,\"ma\":2,\"mep\":10,\"rmep\":5,\"mac\":\"02:00:00:00:00:05\",\"port\":1,"
            "\"vid\":7,\"rdi\":false,\"port_status\":2,\"interface_status\":1,\"sequence\":99,"
            "\"last_ccm_time\":\"2027-01-15T08:00:00.123Z\",\"age_left_ms\":3500},{\"md\":1,\"ma\":2,\"mep\":10,"
            "\"rmep\":6,\"mac\":\"02:00:00:00:00:06\",\"port\":1,\"vid\":7,\"rdi\":true,\"port_status\":2,"
            "\"interface_status\":1,\"sequence\":99,\"last_ccm_time\":null,\"age_left_ms\":3500}],\"ltrs\":[{\"md\":1,"
            "\"ma\":2,\"mep\":10,\"sequence\":8,\"reply_number\":1,\"mac\":\"02:00:00:00:00:08\",\"ttl\":63,"
            "\"forward\":true,\"terminal_mep\":false,\"last_egress_id\":\"00:07:01:02:03:04:05:06\","
            "\"next_egress_id\":\"00:00:00:00:00:00:00:00\",\"relay_action\":\"fdb\",\"ingress_action\":1,"
            "\"ingress_mac\":\"02:00:00:00:00:09\",\"ingress_port\":\"eth0\",\"egress_action\":0,"
            "\"egress_mac\":\"00:00:00:00:00:00\",\"egress_port\":\"\"}]}\n");
  ExpectCli({{"dumpjson mip", time + "\"mips\":[{\"md\":1,\"ma\":2,\"mip\":30,\"port\":2}]}\n"},
             {"dumpjson ltrs", kInvalid}, {"dumpjson 1", kInvalid}});
  CFM_OS_Set_Clock_Source(nullptr);
  // The largest dump fits one reply: the MEPs' data texts (1201 bytes, each
  // written as six) and the replies' ports at their longest in full tables,
  // with room for the small tables (MDs, MAs, MIPs, remote MEPs: 64 KiB).
  mep = {.md_id = UINT32_MAX, .ma_id = UINT32_MAX, .direction = 1, .RowStatus = 1};
  LtrEntry big = {.md_id = UINT32_MAX, .ReplyNumber = UINT32_MAX, .ttl = UINT32_MAX, .relay = 4};
  memset(mep.LbmDataTlv, 1, CFM_LBM_DATA_TLV_SIZE), memset(big.ReplyIngressPort, 1, 4), memset(big.ReplyEgressPort, 1, 4);
  for (mep.mep_id = 1; CFM_Get_TotalMepEntries() < CFM_MAX_MEP; ++mep.mep_id) ASSERT_EQ(CFM_Update_MEP_Entry(&mep), 1);
  for (big.sequence = 1; CFM_DB_Get_TotalLtrEntries() < CFM_MAX_LTR; ++big.sequence) {
    ASSERT_EQ(CFM_DB_Update_LtrEntry(&big), CFM_DB_FOUND);
  }
  CliReply full;
  CliReplyScope scope(&full);
  cfm_cli_run_line("dumpjson");
  EXPECT_LT(full.text().size() + 64 * 1024, CFM_CLI_PRIVATE_REPLY_MAX);
  EXPECT_GT(full.text().size(), CFM_CLI_PRIVATE_REPLY_MAX / 2);
  // Relay action 4 has no name: "fdb" of the first reply is the only one.
  EXPECT_EQ(full.text().find("\"relay_action\":\"", full.text().find("\"relay_action\":\"fdb\"") + 1), std::string::npos);
}

// Words split on spaces only; a number is digits only. default: level 5
// with MHF code 3 stores the level only; level 9 is refused as a whole.
TEST_F(CliCommands, WordsAndGlobalCommands) {
  const char off[] = "\r\n CFM Status  : disabled", on[] = "\r\n CFM Status  : enabled";
  ExpectCli({{"default 4 0 2", ""}, {"default 5 0 3", ""}, {"default 9 0 1", ""},
             {"   showdefault    0001   ",
              "\r\n Default MD Level  : 5\r\n default_MHF_creation  : CFM MHF CREATION DEFAULT"},
             {"showdefault\t1", "unknown command !\n"}, {"showdefault 1\n", kInvalid}, {"showdefault 1abc", kInvalid},
             {"     ", ""}, {"showdefault 2", off}, {"enable", ""}, {"showdefault 2", on}, {"disable extra words", ""},
             {"showdefault 2", off}, {"showdefault 3", ""}, {"debugon", "Open CFM debug message\n"}});
  EXPECT_EQ(cfm_debug_msg, 1);
  EXPECT_EQ(Cli("debugoff 7"), "Close CFM debug message\n");
}

// What came back on a client so far, and "<end>" once the server has closed
// it (reset when it left bytes unread).
std::string Back(int fd) {
  errno = 0;
  std::string got = harness::received(fd);
  return errno == EAGAIN ? got : got + "<end>";
}

// A request runs only when complete: at a line feed or at 1023 bytes (what
// follows is not part of it) or at the end of the stream. All connections are
// read at once: a half-sent request holds up nobody and runs whole when it
// completes. Past the time limit, or as the oldest incomplete one when too
// many are open (never a complete one), a connection is closed unrun and one
// line names the bytes dropped.
TEST_F(CliCommands, ServerRunsOnlyCompleteRequests) {
  Cli("enable");
  struct sockaddr_un addr = {AF_UNIX, {}};
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s/socket", tree_.c_str());
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr) | listen(listener, 8), 0);
  auto client = [&](const std::string &sent, bool end) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) + write(fd, sent.data(), sent.size()),
              static_cast<ssize_t>(sent.size()));
    if (end) shutdown(fd, SHUT_WR);
    return fd;
  };
  CliServer server(listener, 1000, 3);
  auto steps = [&](int n) { stdout_of([&] { for (int i = 0; i < n; ++i) server.step(50); }); };
  const std::string on = "\r\n CFM Status  : enabled";
  testing::internal::CaptureStderr();
  int half = client("showdefault", false), whole = client(std::string(1010, ' ') + "showdefault 2x", false);
  int line = client("default 4 x\n 2", false);  // a line feed ends it: position 3 is missing
  steps(3);
  EXPECT_EQ(Back(whole) + Back(half) + Back(line), on + "<end>" + kMissing + "<end>");
  int oldest = client("deletem\"\t\x7f", false), third = client("", false);
  steps(2);
  ASSERT_EQ(write(half, " 1", 2) + shutdown(half, SHUT_WR), 2);
  int fourth = client("", false);
  steps(1);
  EXPECT_EQ(Back(half), "\r\n Default MD Level  : 2\r\n default_MHF_creation  : CFM MHF CREATION NONE<end>");
  EXPECT_EQ(Back(oldest) + std::to_string(server.open()), "<end>2");
  steps(25);  // past the limit
  EXPECT_EQ(server.open(), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "cfmd: incomplete request dropped, 3 connections open: 10 bytes \"deletem\\x22\\x09\\x7f\"\n"
            "cfmd: incomplete request dropped after 1 s: 0 bytes \"\"\n"
            "cfmd: incomplete request dropped after 1 s: 0 bytes \"\"\n");
  for (int fd : {half, whole, line, oldest, third, fourth}) close(fd);
}

}  // namespace

// The reply stream: every byte reaches standard output; the copy for the
// connection stops at 64 KiB with one cut line and is sent without
// blocking. Other threads keep printing to standard output alone.
TEST(CommandReply, CopiesStdoutUpTo64KiBForTheServingThreadOnly) {
  const std::string big(CFM_CLI_REPLY_MAX + 100, 'x');
  CliReply reply;
  std::string printed = stdout_of([&] {
    CliReplyScope scope(&reply);
    fputs("y", stdout);
    fputs(big.c_str(), cfm_cli_out());
    std::thread([] { EXPECT_EQ(cfm_cli_out(), stdout); }).join();
  });
  EXPECT_EQ(cfm_cli_out(), stdout);
  EXPECT_EQ(printed, "y" + big);
  EXPECT_EQ(reply.text(), big.substr(0, CFM_CLI_REPLY_MAX) + CFM_CLI_REPLY_CUT_LINE);
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  int small = 4096;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  size_t sent = reply.send_to(fds[0]);  // the peer does not read: no wait
  EXPECT_GT(sent, 0u);
  EXPECT_LT(sent, reply.text().size());
  close(fds[1]);
  EXPECT_EQ(reply.send_to(fds[0]), 0u);  // the peer has gone: no SIGPIPE
  close(fds[0]);
  // A private reply (dumpjson's: nothing on standard output) holds up to
  // 1 MiB, cut without a line, and is sent whole to a client that reads.
  const std::string huge(CFM_CLI_PRIVATE_REPLY_MAX + 1, 'z');
  CliReply own;
  own.make_private();
  own.keep(huge.data(), huge.size());
  EXPECT_EQ(own.text(), huge.substr(0, CFM_CLI_PRIVATE_REPLY_MAX));
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  std::string got;
  std::thread reader([&] {
    char buf[4096];
    for (ssize_t n; (n = read(fds[1], buf, sizeof buf)) > 0;) got.append(buf, static_cast<size_t>(n));
  });
  EXPECT_EQ(own.send_to(fds[0]), CFM_CLI_PRIVATE_REPLY_MAX);
  close(fds[0]);
  reader.join();
  EXPECT_EQ(got, own.text());
}
