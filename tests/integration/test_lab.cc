// The lab's own promises that other tests build on: a command returns exactly
// the output it caused, restarts give a fresh run, the peer filters noise.
#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::Lab;

TEST_F(Lab, CommandReturnsOnlyItsOwnOutput) {
  ASSERT_TRUE(StartDaemon());
  ASSERT_TRUE(WaitCommandSocket());
  EXPECT_EQ(Command({"debugon"}), "Open CFM debug message\n");
  std::string shown = Command({"showdefault"});
  EXPECT_FALSE(shown.empty());
  EXPECT_EQ(Output().find(shown), Output().size() - shown.size());
  ASSERT_TRUE(Restart());
  ASSERT_TRUE(WaitCommandSocket());
  EXPECT_EQ(Output().find("Open CFM debug message"), std::string::npos) << "a restart starts a new output";
  EXPECT_EQ(Command({"debugoff"}), "Close CFM debug message\n");
}

TEST_F(Lab, PeerSeesOnlyCfmFramesAndNotItsOwn) {
  Frame ipv4(60, 0);
  ipv4[0] = 0xff;
  ipv4[12] = 0x08;
  Frame cfm = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x30, 2, 0, 0, 0, 0, 1, 0x81, 0x00, 0x00, 0x05, 0x89, 0x02};
  cfm.resize(64, 0);
  EXPECT_FALSE(cfmlab::IsCfmFrame(Frame(cfm.begin(), cfm.begin() + 17)));

  // A second peer on wan0 plays the far side.
  cfmlab::Peer wan;
  ASSERT_TRUE(wan.Open("wan0"));
  ASSERT_TRUE(wan.Send(ipv4));
  ASSERT_TRUE(wan.Send(cfm));
  EXPECT_EQ(peer().Receive(2000), cfm);
  ASSERT_TRUE(peer().Send(cfm));
  EXPECT_FALSE(peer().Receive(200).has_value());
  EXPECT_TRUE(wan.Receive(2000).has_value());
}

}  // namespace
