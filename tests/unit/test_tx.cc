// Transmission through the tx hook: the edges of VID-0 tag removal and
// padding, the hook's side and answer, and the hook swapped while other
// threads send.
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "harness.h"

using namespace harness;

namespace {

// A frame of `length` bytes with an 802.1Q tag (a short one keeps what fits).
Bytes tagged(uint16_t vid, size_t length) {
  Bytes f = cat({Bytes(12, 1), {0x81, 0x00, uint8_t(0xE0 | (vid >> 8)), uint8_t(vid)}, Bytes(48, 2)});
  f.resize(length);
  return f;
}

using Tx = EngineTest;

// The wire cases (tags kept, VID 0 removed, padding) run in the lab; here the
// edges: only the 12 VID bits make VID 0, a frame too short for a tag is
// only padded, and a bad buffer or length is never read.
TEST_F(Tx, VidZeroAndShortFrameEdgesSideAndResult) {
  const std::pair<Bytes, Bytes> cases[] = {
      {tagged(0x100, 64), tagged(0x100, 64)}, {tagged(0, 14), pad64(tagged(0, 14))}, {Bytes(65535), Bytes(65535)}};
  for (const auto &[in, out] : cases) {
    EXPECT_EQ(CFM_Send_Packet_To_WAN(in.data(), static_cast<uint32_t>(in.size()), 0), CFM_OK);
    EXPECT_EQ(sent.back().frame, out) << in.size();
  }
  Bytes f(65536, 0);  // one byte over the longest
  EXPECT_EQ(CFM_Send_Packet_To_WAN(f.data(), 65536, 0), CFM_ERR_FAILURE);
  EXPECT_EQ(CFM_Send_Packet_To_WAN(nullptr, 64, 0), CFM_ERR_FAILURE);
  EXPECT_EQ(CFM_Send_Packet_To_WAN(f.data(), 0xFFFFFFFFu, 0), CFM_ERR_FAILURE);
  EXPECT_EQ(sent.size(), 3u);
  EXPECT_EQ(CFM_Send_Packet_To_LAN(f.data(), 64, 0), CFM_OK);
  tx_ok = false;
  EXPECT_EQ(CFM_Send_Packet_To_WAN(f.data(), 64, 0), CFM_ERR_FAILURE);
  EXPECT_EQ(sent[3].side, CfmTxSide::Lan);
  EXPECT_EQ(sent[4].side, CfmTxSide::Wan);
}

// In a batch the frames wait, then leave in order; a refused one is reported
// with the text given for it, and with debug on a frame leaves at once,
// after those queued before it.
TEST_F(Tx, BatchedSendsLeaveInOrderAndReportTheirOwnFailures) {
  auto send = [](uint16_t vid, bool lan = false) {
    Bytes f = tagged(vid, 64);
    return lan ? CFM_Send_Packet_To_LAN(f.data(), 64, 0) : CFM_Send_Packet_To_WAN(f.data(), 64, 0);
  };
  tx_ok = false;
  std::string out = stdout_of([&] {
    cfm_tx_batch_begin();
    cfm_tx_report_failure(send(1), "one ");
    send(2, true);
    cfm_tx_report_failure(CFM_ERR_FAILURE, "unsent ");
    cfm_tx_report_failure(send(3), "three ");
    EXPECT_TRUE(sent.empty());
    cfm_tx_batch_end();
  });
  EXPECT_EQ(out, "unsent one three ");
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[1].side, CfmTxSide::Lan);
  EXPECT_EQ(sent[2].frame, tagged(3, 64));
  cfm_tx_batch_begin();
  send(4);
  cfm_debug_msg = 1;
  stdout_of([&] { send(5); });
  EXPECT_EQ(sent.size(), 5u);
  EXPECT_EQ(sent[3].frame, tagged(4, 64));
  cfm_tx_batch_end();
}

// Senders on several threads while the hook is set and cleared: every
// send goes to exactly one hook or the LAN socket, which refuses it (a UDP
// socket given a packet address), nothing crashes.
TEST(TxHookThreads, HookSwappedWhileSending) {
  _cfm_lan_sock_fd = socket(AF_INET, SOCK_DGRAM, 0);
  std::atomic<int> hooked{0}, sent{0}, ok{0};
  std::atomic<bool> stop{false};
  Bytes f = tagged(5, 64);
  std::vector<std::thread> senders;
  for (int t = 0; t < 3; ++t) {
    senders.emplace_back([&] {
      for (; !stop; ++sent) ok += CFM_Send_Packet_To_LAN(f.data(), 64, 0) == CFM_OK;
    });
  }
  // Swap until the senders have been running a while: on a loaded machine
  // they may not be scheduled during the first rounds.
  for (int round = 0; round < 200 || sent < 1000; ++round) {
    cfm_set_tx_hook([&](CfmTxSide, const uint8_t *, size_t len) { return ++hooked, len == 64; });
    std::this_thread::yield();
    cfm_set_tx_hook(nullptr);
  }
  stop = true;
  for (auto &t : senders) t.join();
  close(_cfm_lan_sock_fd.exchange(-1));
  EXPECT_EQ(ok.load(), hooked.load());
  EXPECT_GT(sent.load(), 0);
}

}  // namespace
