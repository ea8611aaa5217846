// In-process harness for the loopback and linktrace engines: empty tables,
// a fixed system MAC, every sent frame captured, frames built byte by byte.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "core/frame_type.h"
#include "core/global.h"
#include "core/os.h"
#include "db/mgmt_if.h"
#include "engines/lb_initiator.h"
#include "engines/lt_initiator.h"
#include "io/rx.h"
#include "io/tx.h"

namespace harness {

using Bytes = std::vector<uint8_t>;

inline const uint8_t kSelf[6] = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
inline const uint8_t kPeer[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

struct Sent {
  CfmTxSide side;
  Bytes frame;
};

// Removes the semaphore sets the tables created once all tests ran.
class SemaphoreCleanup : public ::testing::Environment {
 public:
  void TearDown() override { CFM_OS_Remove_All_Semaphores(); }
};

inline void clear_tables() {
  for (MepEntry m{}; CFM_GetNext_MEP_Entry(&m) == 1; m = MepEntry{}) CFM_Delete_MEP_Entry(&m);
  for (MipEntry m{}; CFM_GetNext_MIP_Entry(&m) == 1; m = MipEntry{}) CFM_Delete_MIP_Entry(&m);
  CFM_IF_Clean_LtrDB_Entry();
  CFM_IF_Clean_RemoteMep_Entry();
  CFM_MD_MA_Clear();
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes &p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}
inline Bytes mac(const uint8_t *m) { return Bytes(m, m + 6); }
inline Bytes be32(uint32_t v) {
  return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
          static_cast<uint8_t>(v)};
}
inline Bytes slice(const Bytes &b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }
// A frame as the transmit path sends it: padded to the Ethernet minimum.
inline Bytes pad64(Bytes b) {
  b.resize(64, 0);
  return b;
}
template <class F>
std::string stdout_of(F run) {
  testing::internal::CaptureStdout();
  run();
  return testing::internal::GetCapturedStdout();
}

// Untagged Ethernet II CFM frame: addresses, EtherType, header, then body.
inline Bytes cfm_frame(const uint8_t *dst, const uint8_t *src, uint8_t level, uint8_t opcode, uint8_t flags,
                       uint8_t first_tlv, const Bytes &body) {
  return cat({mac(dst), mac(src), {0x89, 0x02, static_cast<uint8_t>(level << 5), opcode, flags, first_tlv}, body});
}

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CFM_MEP_MIP_Init();
    cfm_mep_db_Init();
    clear_tables();
    setFrameType(CFM_FRAME_TYPE_ETH);
    cfm_debug_msg = 0;
    GlobalEntry global = {1, 2, 1, 1};
    CFM_IF_Set_Global_Entry(&global);
    cfm_set_system_mac(kSelf);
    CFM_LB_Init();
    CFM_LT_Init();
    cfm_set_tx_hook([this](CfmTxSide side, const uint8_t *frame, size_t length) {
      sent.push_back({side, Bytes(frame, frame + length)});
      return tx_ok;
    });
  }
  void TearDown() override {
    cfm_set_tx_hook(nullptr);
    clear_tables();
  }

  void add_md(uint32_t index, uint8_t level) {
    MdEntry md = {index, 1, level, 2, 1, {}, 0};
    snprintf(md.MdName, sizeof md.MdName, "md%u", index);
    ASSERT_EQ(CFM_Set_MD_Entry(&md), 1);
  }
  MepEntry add_mep(uint32_t md, uint32_t ma, uint16_t id, uint8_t port, uint16_t vid, uint8_t direction) {
    MepEntry mep = {};
    mep.md_id = md, mep.ma_id = ma, mep.mep_id = id, mep.port = port, mep.vid = vid, mep.direction = direction;
    mep.RowStatus = 1;
    EXPECT_EQ(CFM_Update_MEP_Entry(&mep), 1);
    return mep;
  }
  MepEntry read_mep(MepEntry mep) {
    EXPECT_EQ(CFM_Get_MEP_Entry(&mep), 1);
    return mep;
  }
  // Hands an untagged frame to an engine the way the receive task does.
  CfmPacket packet(Bytes &frame, uint32_t priority = 5, uint32_t vid = 100,
                   uint32_t inner_vid = CFM_NO_INNER_VID, uint32_t inner_priority = 0) {
    CfmPacket p = {};
    p.priority = priority, p.vid = vid, p.inner_priority = inner_priority, p.inner_vid = inner_vid;
    p.rx_port = 1, p.buffer = frame.data(), p.length = static_cast<uint32_t>(frame.size());
    return p;
  }

  std::vector<Sent> sent;
  bool tx_ok = true;
};

}  // namespace harness
