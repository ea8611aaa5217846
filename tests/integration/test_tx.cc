// The transmission module and the WAN socket layer on a real veth pair.
#include <net/if.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "core/frame_type.h"
#include "core/global.h"
#include "io/rx.h"
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

// The kernel filter loses nothing and keeps nothing else: the fuzz seed
// frames and thousands of mutations of them, sent from the peer, reach a
// filtered socket exactly when the classifier acts on them under one of the
// frame types, and a debug-filtered one exactly when they carry an 802.1Q
// outer tag, as an unfiltered socket on the same link shows. Every frame the
// LAN relay would send on is among those the filter keeps, frames cut short
// of the Ethernet minimum around the common header too.
TEST_F(Lab, KernelFilterKeepsExactlyWhatTheClassifierActsOn) {
  int index = static_cast<int>(if_nametoindex("wan0"));
  int all = cfm_wan_socket_open(index, nullptr);
  int filtered = cfm_wan_socket_open(index, nullptr, true);
  cfm_debug_msg = 1;
  int tagged = cfm_wan_socket_open(index, nullptr, true);
  cfm_debug_msg = 0;
  ASSERT_TRUE(all >= 0 && filtered >= 0 && tagged >= 0);
  for (int fd : {all, filtered, tagged}) {
    int bytes = 64 << 20;  // the whole run queued at once
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);
  }
  std::vector<Frame> seeds;
  for (const auto &entry : std::filesystem::directory_iterator(CFMD_FUZZ_CORPUS "/frame")) {
    std::ifstream in(entry.path(), std::ios::binary);
    Frame input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (input.size() > 1) seeds.emplace_back(input.begin() + 1, input.end());  // past the settings byte
  }
  std::mt19937 rng(20261124);
  std::vector<Frame> inputs = seeds;
  while (inputs.size() < 4000) {
    Frame f = seeds[rng() % seeds.size()];
    for (unsigned flips = rng() % 4; flips > 0; --flips) f[rng() % f.size()] = rng() % 2 ? uint8_t(rng()) : 0x89;
    if (rng() % 3 == 0) f.resize(rng() % (f.size() + 1));
    inputs.push_back(f);
  }
  for (size_t cut = 34; cut < 54; ++cut) {  // 17 to 26 bytes, one tag or two, level 5
    Frame f = make_frame(std::vector<uint16_t>(1 + cut % 2, 100), 64);
    f[cut % 2 ? 22 : 18] = 5 << 5, f.resize(cut / 2);
    inputs.push_back(f);
  }
  for (const Frame &f : inputs) {
    if (f.size() >= 14 && f.size() <= 1514) peer().Send(f);
  }
  auto read_all = [](int fd) {
    std::vector<Frame> frames;
    uint8_t buf[1600];
    for (long got; cfm_wan_socket_wait(fd, 500) && (got = cfm_wan_socket_read(fd, buf, sizeof buf)) >= 0;) {
      frames.emplace_back(buf, buf + got);
    }
    return frames;
  };
  std::vector<Frame> wire = read_all(all), kept = read_all(filtered), kept_tagged = read_all(tagged);
  bool forwarded = false;
  cfm_set_tx_hook([&](CfmTxSide, const uint8_t *, size_t) { return forwarded = true; });
  auto acts = [&](const Frame &f) {
    for (int type : {CFM_FRAME_TYPE_ETH, CFM_FRAME_TYPE_8023}) {
      setFrameType(type);
      CfmPacket packet{};
      forwarded = false;
      if (cfm_classify_wan_frame(f.data(), f.size(), &packet) == CFM_OK) packet.release(packet.buffer);
      if (packet.length > 0 || forwarded) return true;
    }
    return false;
  };
  std::vector<Frame> want, want_tagged;
  std::pair<size_t, size_t> relayed{0, 0};  // by the LAN relay, and of those not kept
  testing::internal::CaptureStdout();  // the forward text of every relayed frame
  for (const Frame &f : wire) {
    forwarded = false;
    cfm_relay_lan_frame(f.data(), f.size());
    relayed.first += forwarded, relayed.second += forwarded && std::find(kept.begin(), kept.end(), f) == kept.end();
    if (acts(f)) want.push_back(f);
    if (f.size() >= 14 && f[12] == 0x81 && f[13] == 0x00) want_tagged.push_back(f);
  }
  testing::internal::GetCapturedStdout();
  cfm_set_tx_hook(nullptr);
  setDefaultFrameType();
  EXPECT_GT(want.size(), seeds.size() / 2);
  EXPECT_LT(want.size(), wire.size());
  EXPECT_TRUE(kept == want) << kept.size() << " kept, " << want.size() << " acted on";
  EXPECT_TRUE(kept_tagged == want_tagged) << kept_tagged.size() << " kept, " << want_tagged.size() << " tagged";
  EXPECT_TRUE(relayed.first > 0 && relayed.second == 0) << relayed.first << " relayed, " << relayed.second << " not kept";
  for (int fd : {all, filtered, tagged}) close(fd);
}

}  // namespace
