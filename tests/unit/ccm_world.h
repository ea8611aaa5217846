// In-process world for the CCM and receive-path tests: real tables, sends
// captured through the transmit hook, peer CCMs built here byte by byte.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"
#include "engines/ccm_rx.h"
#include "engines/ccm_tx.h"
#include "io/rx.h"
#include "io/tx.h"

namespace ccmtest {

using Bytes = std::vector<uint8_t>;
inline const uint8_t kPeerMac[6] = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};

// A peer's CCM at level 5 of MD "md", MA "ma", untagged (Ethernet II).
struct PeerCcm {
  uint8_t level = 5, interval = 4, port_status = 2;
  uint16_t mep_id = 2;
  uint32_t sequence = 1;
  bool rdi = false;
  std::string ma_name = "ma";

  Bytes untagged() const {
    Bytes f = {0x01, 0x80, 0xC2, 0x00, 0x00, static_cast<uint8_t>(0x30 + level)};
    f.insert(f.end(), kPeerMac, kPeerMac + 6);
    f.insert(f.end(), {0x89, 0x02, static_cast<uint8_t>(level << 5), 1, static_cast<uint8_t>((rdi ? 0x80 : 0) | interval),
                       70});
    for (int shift = 24; shift >= 0; shift -= 8) f.push_back(static_cast<uint8_t>(sequence >> shift));
    f.insert(f.end(), {static_cast<uint8_t>(mep_id >> 8), static_cast<uint8_t>(mep_id), 4, 2, 'm', 'd', 2,
                       static_cast<uint8_t>(ma_name.size())});
    f.insert(f.end(), ma_name.begin(), ma_name.end());
    f.resize(88, 0);
    f.insert(f.end(), {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, port_status, 4, 0, 1, 1, 0});
    return f;
  }
  Bytes tagged(uint16_t vid, uint8_t prio = 7) const {
    Bytes f = untagged();
    f.insert(f.begin() + 12, {0x81, 0x00, static_cast<uint8_t>((prio << 5) | (vid >> 8)), static_cast<uint8_t>(vid)});
    return f;
  }
};

class CcmWorld : public ::testing::Test {
 protected:
  std::vector<Bytes> wan_, lan_;

  void SetUp() override {
    static bool ready = [] {
      CFM_MD_MA_Clear();
      CFM_MEP_MIP_Init();
      CFM_Create_MEP_SYC_Sem();
      cfm_ccm_Init();
      return atexit(CFM_OS_Remove_All_Semaphores) == 0;
    }();
    ASSERT_TRUE(ready);
    clear_tables();
    const uint8_t mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    cfm_set_system_mac(mac);
    cfm_set_tx_hook([this](CfmTxSide side, const uint8_t *frame, size_t length) {
      (side == CfmTxSide::Lan ? lan_ : wan_).emplace_back(frame, frame + length);
      return true;
    });
    set_status(1);
  }
  void TearDown() override {
    cfm_set_tx_hook({});
    clear_tables();
  }

  static void set_status(uint32_t status) {
    GlobalEntry g;
    CFM_IF_Get_Global_Entry(&g);
    g.status = status;
    CFM_IF_Set_Global_Entry(&g);
  }
  static void clear_tables() {
    for (MepEntry m{}; CFM_GetNext_MEP_Entry(&m) == 1;) CFM_Delete_MEP_Entry(&m);
    for (RemoteMepEntry r{}; CFM_MEP_Get_NextRemEntry(&r) == CFM_DB_FOUND;) CFM_MEP_Del_RemEntry(&r);
    for (MaNetEntry a{}; CFM_GetNext_MA_Net_Entry(&a) == 1;) a.RowStatus = CFM_ROW_DELETE, CFM_Set_MA_Net_Entry(&a);
    for (MdEntry d{}; CFM_GetNext_MD_Entry(&d) == 1;) d.RowStatus = CFM_ROW_DELETE, CFM_Set_MD_Entry(&d);
  }
  static void add_md(uint32_t index, uint8_t level, const char *name, uint8_t mhf = 2) {
    MdEntry md{index, 4, level, mhf, 1, {}, CFM_ROW_CREATE};
    snprintf(md.MdName, sizeof md.MdName, "%s", name);
    ASSERT_EQ(CFM_Set_MD_Entry(&md), 1);
  }
  static void add_ma(uint32_t md, uint32_t index, const char *name, uint8_t interval = 4) {
    MaNetEntry ma{md, index, 2, {}, interval, CFM_ROW_CREATE};
    snprintf(ma.MaName, sizeof ma.MaName, "%s", name);
    ASSERT_EQ(CFM_Set_MA_Net_Entry(&ma), 1);
  }
  static MepEntry add_mep(uint32_t md, uint32_t ma, uint16_t id, uint16_t vid = 0, uint8_t dir = 1, uint8_t port = 1) {
    MepEntry m{};
    m.md_id = md, m.ma_id = ma, m.mep_id = id, m.port = port, m.vid = vid, m.direction = dir;
    m.CciEnabled = 1, m.CcmLtmPriority = 7, m.FngAlarmTime = 250, m.FngResetTime = 1000, m.LowestAlarmPriority = 2;
    EXPECT_EQ(CFM_Update_MEP_Entry(&m), 1);
    return m;
  }
  static MepEntry reread(MepEntry m) {
    EXPECT_EQ(CFM_Get_MEP_Entry(&m), 1);
    return m;
  }
  static bool remote(uint32_t md, uint32_t ma, uint16_t id, RemoteMepEntry *out = nullptr) {
    RemoteMepEntry r{};
    r.md_id = md, r.ma_id = ma, r.rmep_id = id;
    bool found = CFM_MEP_DB_Get_RemEntry(&r) == CFM_DB_FOUND;
    if (out != nullptr) *out = r;
    return found;
  }
  // Hands an untagged CCM to the receiver as the receive task would; the
  // buffer is exactly the frame, so any read past it is caught.
  static void deliver(Bytes frame, uint16_t vid = 0) {
    CfmPacket p{};
    p.vid = vid, p.inner_vid = CFM_NO_INNER_VID, p.rx_port = 1;
    p.buffer = frame.data(), p.length = static_cast<uint32_t>(frame.size());
    CFM_CCM_Process(&p);
  }
};

}  // namespace ccmtest
