// The transmission module and the WAN socket layer on a real veth pair.
#include <net/if.h>

#include <cstring>
#include <fstream>

#include "core/global.h"
#include "core/status.h"
#include "io/tx.h"
#include "io/wan_socket.h"
#include "lab.h"

namespace {

using cfmlab::Frame;
using cfmlab::Lab;

// A CFM frame from wan0 to peer0 with the given tags (VIDs) and `length` bytes.
Frame make_frame(std::vector<uint16_t> vids, size_t length, uint8_t priority = 3) {
  Frame f(cfmlab::kPeerMac.begin(), cfmlab::kPeerMac.end());
  f.insert(f.end(), cfmlab::kWanMac.begin(), cfmlab::kWanMac.end());
  for (uint16_t vid : vids) f.insert(f.end(), {0x81, 0x00, uint8_t((priority << 5) | (vid >> 8)), uint8_t(vid)});
  f.insert(f.end(), {0x89, 0x02, 0x40, 0x03, 0x00, 0x04});
  for (uint8_t b = 1; f.size() < length; ++b) f.push_back(b);
  f.resize(length);
  return f;
}

// Frames leave with their tags, padded to 64; a VID 0 tag is taken out.
TEST_F(Lab, FramesLeaveInWireFormAndInterfaceFactsAreRead) {
  ASSERT_EQ(CFM_Get_Ifindex("wan0"), static_cast<int>(if_nametoindex("wan0")));
  uint8_t mac[6];
  ASSERT_EQ(CFM_Get_System_Mac(mac), CFM_OK);
  EXPECT_EQ(memcmp(mac, cfmlab::kWanMac.data(), 6), 0);
  const std::pair<std::vector<uint16_t>, size_t> cases[] = {{{100}, 90}, {{4095}, 64}, {{10, 20}, 120},
                                                            {{5}, 40},    {{0}, 80},     {{0}, 40}};
  for (const auto &[vids, length] : cases) {
    Frame sent = make_frame(vids, length);
    ASSERT_EQ(CFM_Send_Packet_To_WAN(sent.data(), static_cast<uint32_t>(sent.size()), 3), CFM_OK);
    if (vids == std::vector<uint16_t>{0}) sent.erase(sent.begin() + 12, sent.begin() + 16);
    sent.resize(std::max<size_t>(64, length), 0);
    EXPECT_EQ(peer().Receive(2000).value_or(Frame()), sent);
  }
  // Without the LAN socket nothing is sent and the failure is reported.
  cfm_debug_msg = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(CFM_Send_Packet_To_LAN(make_frame({7}, 64).data(), 64, 0), CFM_ERR_FAILURE);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("CFM: Send the packet Fail\n"), std::string::npos);
  cfm_debug_msg = 0;
}

// Outer tags come back, the CFM groups are joined, and reads never exceed
// the buffer.
TEST_F(Lab, WanSocketRestoresTagsAndJoinsGroups) {
  const char *step = nullptr;
  int fd = cfm_wan_socket_open(static_cast<int>(if_nametoindex("wan0")), &step);
  ASSERT_GE(fd, 0) << step;
  std::ifstream mcast("/proc/net/dev_mcast");
  std::string line, groups;
  while (std::getline(mcast, line)) {
    if (line.find(" wan0 ") != std::string::npos) groups += line.substr(line.rfind(' ') + 1) + " ";
  }
  for (const char *group : {"0180c2000030", "0180c2000037", "0180c2000038", "0180c200003f"}) {
    EXPECT_NE(groups.find(group), std::string::npos) << group << " not in: " << groups;
  }
  auto read_cfm = [&](uint8_t *buf, size_t cap) -> long {
    for (int tries = 0; tries < 200; ++tries) {
      long got = cfm_wan_socket_wait(fd, 20) ? cfm_wan_socket_read(fd, buf, cap) : -1;
      if (got > 0 && (cap < 64 || cfmlab::IsCfmFrame(Frame(buf, buf + got)))) return got;
    }
    return -1;
  };
  uint8_t buf[1600];
  for (const Frame &sent : {make_frame({100}, 64, 5), make_frame({0}, 70), make_frame({300, 7}, 100), make_frame({}, 64)}) {
    ASSERT_TRUE(peer().Send(sent));
    long got = read_cfm(buf, sizeof buf);
    EXPECT_EQ(Frame(buf, buf + std::max(got, 0L)), sent);
  }
  // Cut to the caller's buffer, with the tag still in place.
  Frame sent = make_frame({42}, 80);
  ASSERT_TRUE(peer().Send(sent));
  memset(buf, 0xEE, sizeof buf);
  ASSERT_EQ(read_cfm(buf, 20), 20);
  EXPECT_EQ(Frame(buf, buf + 20), Frame(sent.begin(), sent.begin() + 20));
  EXPECT_EQ(buf[20], 0xEE);
  close(fd);
}

}  // namespace
