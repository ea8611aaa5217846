// cfmctl's configuration files with the real daemon and client: saved and
// applied again after a restart, a bad line among good ones, a replace that
// adds a MEP beside one whose CCMs and remote MEPs must not notice. What the
// lines make is checked in-process by the unit tests.
#include <algorithm>

#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::PeerCcm;

// MEP 5's CCMs as the peer sees them (VID 0: untagged), and their sequence.
bool is_mep5_ccm(const Frame &f) {
  return f.size() > 23 && f[12] == 0x89 && f[15] == 1 && f[22] == 0 && f[23] == 5 &&
         std::equal(f.begin() + 6, f.begin() + 12, cfmlab::kWanMac.begin());
}
uint32_t sequence_of(const Frame &f) { return (f[18] << 24) | (f[19] << 16) | (f[20] << 8) | f[21]; }

class ConfigLab : public cfmlab::Lab {
 protected:
  // cfmctl's standard output and error, then its exit status: "[0]".
  std::string Cfmctl(const std::string &args) {
    int status = Shell(std::string(CFMCTL_BINARY) + " " + args + " >/var/lab/cfmctl.out 2>&1");
    return ReadFile("/var/lab/cfmctl.out") + "[" + std::to_string(status) + "]";
  }
  // The sequence numbers of MEP 5's CCMs for `ms`, the peer's CCMs sent meanwhile.
  std::vector<uint32_t> Sequences(int ms) {
    std::vector<uint32_t> seen;
    for (int t = 0; t < ms; t += 250) {
      peer().Send(PeerCcm(t + 1));
      for (const Frame &f : peer().ReceiveAll(250, is_mep5_ccm)) seen.push_back(sequence_of(f));
    }
    return seen;
  }
  const std::vector<std::string> args_ = {"-i", "wan0", "-e", "-t", "/var/tree"};
};

TEST_F(ConfigLab, SavedAppliedAfterRestartBadLinesNamedReplaceKeepsUntouchedMeps) {
  WriteFile("/var/tree/cfm/ccm_interval", "100ms\n");
  ASSERT_TRUE(StartDaemonReady(args_));
  for (const char *request : {"createmd 1 0 7 0 md7", "createma 1 0 1 0 ma1", "createmep 1 0 1 0 5 0 1 0 0 0 1",
                              "configmep 1 0 1 0 5 0 1 0 0 0 100 0 3 5 4 44"}) Command(request);
  const std::string saved = "debug off\nmd create 1 --name md7 --level 7\nma create 1 1 --name ma1 --interval 1s\n"
                            "mep create 1 1 5\nmep config 1 1 5 --priority 5 --alarm-priority errxcon\nenable\n";
  EXPECT_EQ(Cfmctl("show running-config"), saved + "[0]");
  // Saved over an old file: its mode kept, nothing left beside it.
  WriteFile("/var/lab/etc/cfmd.conf", "the old file\n");
  Shell("chmod 640 /var/lab/etc/cfmd.conf");
  EXPECT_EQ(Cfmctl("config save /var/lab/etc/cfmd.conf"), "cfmctl config save: /var/lab/etc/cfmd.conf written\n[0]");
  EXPECT_EQ(ReadFile("/var/lab/etc/cfmd.conf").substr(0, 35), "# written by cfmctl config save at ");
  EXPECT_EQ(Shell("test $(stat -c %a /var/lab/etc/cfmd.conf) = 640 && test $(ls -A /var/lab/etc | wc -l) = 1"), 0);
  Stop();
  // Without a daemon: --check reads the lines alone; --wait gives up.
  WriteFile("/var/lab/bad.conf", "# comment\n\nmd create 2 --name x --level 3\nmd create 1 --name again --level 4\n"
                                 "ma create 2 9 --name y --interval 2s\nfrob 1\n  mep create 1 \\\n 1 6\r\nshow running-config\nmd delete 5 \\\n");
  const std::string interval = "/var/lab/bad.conf:5: ma: --interval '2s' is not one of 10ms|100ms|1s|10s|1min|10min\n";
  EXPECT_EQ(Cfmctl("apply --check /var/lab/bad.conf"), interval + "[1]");
  EXPECT_EQ(Cfmctl("apply --wait 1 /var/lab/etc/cfmd.conf"), "cfmctl apply: no daemon answered on /var/cfm_socket within 1 s\n[3]");
  EXPECT_EQ(Cfmctl("apply --wait 3601").find("cfmctl apply: --wait '3601' is not a number from 0 to 3600\n"), 0u);

  ASSERT_TRUE(StartDaemonReady(args_));
  EXPECT_EQ(Cfmctl("apply --wait 5 /var/lab/etc/cfmd.conf"), "cfmctl apply: 6 lines, 0 failed\n[0]");
  EXPECT_EQ(Cfmctl("show running-config"), saved + "[0]");
  EXPECT_EQ(Cfmctl("apply /var/lab/bad.conf"), "/var/lab/bad.conf:4: Error!! MD Index exist\n" + interval +
                                                  "/var/lab/bad.conf:6: unknown command 'frob' (see cfmctl help)\n"
                                                  "/var/lab/bad.conf:9: 'show' is no configuration line\n"
                                                  "/var/lab/bad.conf:10: This MD is not exist!\n"
                                                  "cfmctl apply: 7 lines, 5 failed\n[1]");
  // The replace deletes MD 2 and MEP 6 (made above), makes MEP 7; MEP 5
  // goes on as it was: no gap in its CCMs' sequence, its remote MEP kept.
  WriteFile("/var/lab/new.conf", saved + "mep create 1 1 7\nlt start 1 1 5 --mepid 9\n");
  EXPECT_EQ(Cfmctl("apply --replace /var/lab/none.conf /var/lab/new.conf"), "/var/lab/none.conf: No such file or directory\n[1]");
  // (CCMs sent before, while `mep config` raced the first of them, are dropped.)
  peer().Drain();
  std::vector<uint32_t> sequences = Sequences(2000);  // CCMs resumed after the restart
  ASSERT_NE(Command("showremotemep").find("RemoteMepID : 9"), std::string::npos);
  peer().Send(PeerCcm(1));  // it ages out 3.5 s after: the replace must not take that long
  EXPECT_EQ(Cfmctl("apply --replace /var/lab/new.conf"),
            "/var/lab/new.conf:8: no configuration: left out by --replace\ncfmctl apply: mep delete 1 1 6\n"
            "cfmctl apply: md delete 2\ncfmctl apply: mep create 1 1 7\ncfmctl apply: 8 lines, 0 failed\n[0]");
  EXPECT_NE(Command("showremotemep").find("RemoteMepID : 9"), std::string::npos);
  for (uint32_t s : Sequences(2000)) sequences.push_back(s);
  ASSERT_GT(sequences.size(), 2u);
  for (size_t i = 1; i < sequences.size(); ++i) EXPECT_EQ(sequences[i], sequences[i - 1] + 1) << i;
  EXPECT_EQ(Cfmctl("show running-config"), saved.substr(0, saved.size() - 7) + "mep create 1 1 7\nenable\n[0]");
}

}  // namespace
