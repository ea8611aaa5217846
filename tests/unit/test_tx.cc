// Transmission through the tx hook: padding, VID-0 tag removal, the hook's
// answer as the result, and the hook swapped while other threads send.
#include "io/tx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "core/status.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A tagged CFM frame of `length` bytes with a counting payload.
Bytes tagged(uint16_t vid, size_t length) {
  Bytes f = {1, 0x80, 0xC2, 0, 0, 0x30, 2, 0, 0, 0, 0, 1, 0x81, 0x00, static_cast<uint8_t>(0xE0 | (vid >> 8)),
             static_cast<uint8_t>(vid), 0x89, 0x02};
  for (uint8_t b = 0x10; f.size() < length; ++b) f.push_back(b);
  f.resize(length);
  return f;
}

class TxHook : public testing::Test {
 protected:
  void SetUp() override {
    cfm_set_tx_hook([this](CfmTxSide side, const uint8_t *frame, size_t length) {
      std::lock_guard<std::mutex> lock(mu_);
      frames_.emplace_back(side, Bytes(frame, frame + length));
      return answer_.load();
    });
  }
  void TearDown() override { cfm_set_tx_hook(nullptr); }
  // Sends `f` to the WAN and returns what reached the hook.
  Bytes send(const Bytes &f) {
    EXPECT_EQ(CFM_Send_Packet_To_WAN(f.data(), static_cast<uint32_t>(f.size()), 0), CFM_OK);
    std::lock_guard<std::mutex> lock(mu_);
    return frames_.empty() ? Bytes{} : frames_.back().second;
  }
  std::mutex mu_;
  std::vector<std::pair<CfmTxSide, Bytes>> frames_;
  std::atomic<bool> answer_{true};
};

// The wire cases (tags kept, VID 0 removed, padding) run in the lab; here the
// edges: only the 12 VID bits make VID 0, only 802.1Q is a tag, a frame too
// short for a tag is only padded, and a bad buffer or length is never read.
TEST_F(TxHook, VidZeroAndShortFrameEdges) {
  Bytes f = tagged(0x100, 64);
  EXPECT_EQ(send(f), f);
  f = tagged(0, 64);
  f[12] = 0x88, f[13] = 0xA8;
  EXPECT_EQ(send(f), f);
  f = tagged(0, 100);  // the tag is taken out, the frame keeps its length
  Bytes untagged = f;
  untagged.erase(untagged.begin() + 12, untagged.begin() + 16);
  untagged.resize(100, 0);
  EXPECT_EQ(send(f), untagged);
  Bytes tiny = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x81, 0x00};
  Bytes padded = tiny;
  padded.resize(64, 0);
  EXPECT_EQ(send(tiny), padded);
  Bytes longest(65535, 0x5A);  // the longest frame is handed on whole; one byte more is refused
  EXPECT_EQ(send(longest).size(), 65535u);
  longest.push_back(0);
  EXPECT_EQ(CFM_Send_Packet_To_WAN(longest.data(), 65536, 0), CFM_ERR_FAILURE);
  EXPECT_EQ(CFM_Send_Packet_To_WAN(nullptr, 64, 0), CFM_ERR_FAILURE);
  EXPECT_EQ(CFM_Send_Packet_To_WAN(tiny.data(), 0xFFFFFFFFu, 0), CFM_ERR_FAILURE);
}

TEST_F(TxHook, SideAndResultComeFromTheHook) {
  Bytes f = tagged(7, 64);
  EXPECT_EQ(CFM_Send_Packet_To_LAN(f.data(), 64, 0), CFM_OK);
  EXPECT_EQ(CFM_Send_Packet(f.data(), 64, 0), CFM_OK);
  answer_ = false;
  EXPECT_EQ(CFM_Send_Packet_To_WAN(f.data(), 64, 0), CFM_ERR_FAILURE);
  std::lock_guard<std::mutex> lock(mu_);
  ASSERT_EQ(frames_.size(), 3u);
  EXPECT_EQ(frames_[0].first, CfmTxSide::Lan);
  EXPECT_EQ(frames_[1].first, CfmTxSide::Generic);
  EXPECT_EQ(frames_[2].first, CfmTxSide::Wan);
}

// Senders on several threads while the hook is replaced and cleared: every
// send goes to exactly one hook or the (absent) LAN socket, nothing crashes.
TEST(TxHookThreads, HookSwappedWhileSending) {
  std::atomic<int> first{0}, second{0}, sent{0}, ok{0};
  std::atomic<bool> stop{false};
  Bytes f = tagged(5, 64);
  std::vector<std::thread> senders;
  for (int t = 0; t < 3; ++t) {
    senders.emplace_back([&] {
      for (; !stop; ++sent) ok += CFM_Send_Packet_To_LAN(f.data(), 64, 0) == CFM_OK;
    });
  }
  for (int round = 0; round < 200; ++round) {
    cfm_set_tx_hook([&](CfmTxSide, const uint8_t *, size_t len) { return ++first, len == 64; });
    std::this_thread::yield();
    cfm_set_tx_hook([&](CfmTxSide, const uint8_t *, size_t len) { return ++second, len == 64; });
    std::this_thread::yield();
    cfm_set_tx_hook(nullptr);  // the LAN socket is not open: those sends fail
  }
  stop = true;
  for (auto &t : senders) t.join();
  EXPECT_EQ(ok.load(), first.load() + second.load());
  EXPECT_GT(sent.load(), 0);
}

}  // namespace
