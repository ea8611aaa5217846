// The lab's peer, which every wire test builds on: it sees CFM frames only,
// with their tags, and never its own.
#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::Lab;

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
