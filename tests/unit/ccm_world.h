// In-process world for the CCM and receive-path tests: real tables, sends
// captured through the transmit hook, frames built here byte by byte.
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
inline const uint8_t kSysMac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
inline const uint8_t kPeerMac[6] = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};

// A peer's CCM in the untagged form the engines get (Ethernet II).
struct PeerCcm {
  uint8_t level = 5;
  uint16_t mep_id = 2;
  uint32_t sequence = 1;
  std::string md_name = "md";
  std::string ma_name = "ma";
  uint8_t interval = 4;
  bool rdi = false;
  uint8_t port_status = 2;
  uint8_t if_status = 1;

  Bytes untagged() const {
    Bytes f(14, 0);
    const uint8_t dst[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, static_cast<uint8_t>(0x30 + level)};
    memcpy(f.data(), dst, 6);
    memcpy(f.data() + 6, kPeerMac, 6);
    f[12] = 0x89;
    f[13] = 0x02;
    Bytes pdu(74, 0);
    pdu[0] = static_cast<uint8_t>(level << 5);
    pdu[1] = 1;
    pdu[2] = static_cast<uint8_t>((rdi ? 0x80 : 0) | interval);
    pdu[3] = 70;
    for (int i = 0; i < 4; ++i) pdu[4 + i] = static_cast<uint8_t>(sequence >> (24 - 8 * i));
    pdu[8] = static_cast<uint8_t>(mep_id >> 8);
    pdu[9] = static_cast<uint8_t>(mep_id);
    size_t at = 10;
    pdu[at++] = 4;
    pdu[at++] = static_cast<uint8_t>(md_name.size());
    memcpy(&pdu[at], md_name.data(), md_name.size());
    at += md_name.size();
    pdu[at++] = 2;
    pdu[at++] = static_cast<uint8_t>(ma_name.size());
    memcpy(&pdu[at], ma_name.data(), ma_name.size());
    f.insert(f.end(), pdu.begin(), pdu.end());
    const uint8_t tlvs[] = {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, port_status, 4, 0, 1, if_status, 0};
    f.insert(f.end(), tlvs, tlvs + sizeof tlvs);
    return f;
  }
  // The same behind one 802.1Q tag, as read on the WAN.
  Bytes tagged(uint16_t vid, uint8_t prio = 7) const {
    Bytes f = untagged();
    const uint8_t tag[4] = {0x81, 0x00, static_cast<uint8_t>((prio << 5) | (vid >> 8)), static_cast<uint8_t>(vid)};
    f.insert(f.begin() + 12, tag, tag + 4);
    return f;
  }
};

class CcmWorld : public ::testing::Test {
 protected:
  std::vector<Bytes> wan_, lan_;

  void SetUp() override {
    static bool ready = [] {
      CFM_OS_Init();
      CFM_MD_MA_Clear();
      CFM_MEP_MIP_Init();
      CFM_Create_MEP_SYC_Sem();
      cfm_ccm_Init();
      atexit(CFM_OS_Remove_All_Semaphores);
      return true;
    }();
    (void)ready;
    clear_tables();
    cfm_set_system_mac(kSysMac);
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
    MepEntry mep{};
    while (CFM_GetNext_MEP_Entry(&mep) == 1) CFM_Delete_MEP_Entry(&mep), mep = MepEntry{};
    RemoteMepEntry rm{};
    while (CFM_MEP_Get_NextRemEntry(&rm) == CFM_DB_FOUND) CFM_MEP_Del_RemEntry(&rm), rm = RemoteMepEntry{};
    MaNetEntry ma{};
    while (CFM_GetNext_MA_Net_Entry(&ma) == 1) ma.RowStatus = CFM_ROW_DELETE, CFM_Set_MA_Net_Entry(&ma), ma = {};
    MdEntry md{};
    while (CFM_GetNext_MD_Entry(&md) == 1) md.RowStatus = CFM_ROW_DELETE, CFM_Set_MD_Entry(&md), md = {};
  }

  static void add_md(uint32_t index, uint8_t level, const std::string &name, uint8_t mhf = 2) {
    MdEntry md{};
    md.MdIndex = index;
    md.MdFormat = 4;
    md.MdLevel = level;
    md.MhfCreation = mhf;
    md.SenderIdPermission = 1;
    snprintf(md.MdName, sizeof md.MdName, "%s", name.c_str());
    md.RowStatus = CFM_ROW_CREATE;
    ASSERT_EQ(CFM_Set_MD_Entry(&md), 1);
  }
  static void add_ma(uint32_t md, uint32_t index, const std::string &name, uint8_t interval = 4) {
    MaNetEntry ma{};
    ma.MdIndex = md;
    ma.MaIndex = index;
    ma.MaFormat = 2;
    snprintf(ma.MaName, sizeof ma.MaName, "%s", name.c_str());
    ma.CcmInterval = interval;
    ma.RowStatus = CFM_ROW_CREATE;
    ASSERT_EQ(CFM_Set_MA_Net_Entry(&ma), 1);
  }
  static MepEntry add_mep(uint32_t md, uint32_t ma, uint16_t id, uint16_t vid = 0, uint8_t dir = 1,
                          uint8_t port = 1) {
    MepEntry m{};
    m.md_id = md;
    m.ma_id = ma;
    m.mep_id = id;
    m.port = port;
    m.vid = vid;
    m.direction = dir;
    m.Active = 1;
    m.CciEnabled = 1;
    m.FngState = 1;
    m.CcmLtmPriority = 7;
    m.FngAlarmTime = 250;
    m.FngResetTime = 1000;
    m.LowestAlarmPriority = 2;
    m.RowStatus = CFM_ROW_IN_USE;
    EXPECT_EQ(CFM_Update_MEP_Entry(&m), 1);
    return m;
  }
  static MepEntry reread(const MepEntry &key) {
    MepEntry m = key;
    EXPECT_EQ(CFM_Get_MEP_Entry(&m), 1);
    return m;
  }
  static void store(const MepEntry &m) { ASSERT_EQ(CFM_Update_MEP_Entry(&m), 1); }
  static bool remote(uint32_t md, uint32_t ma, uint16_t rmep, RemoteMepEntry *out = nullptr) {
    RemoteMepEntry r{};
    r.md_id = md;
    r.ma_id = ma;
    r.rmep_id = rmep;
    bool found = CFM_MEP_DB_Get_RemEntry(&r) == CFM_DB_FOUND;
    if (out != nullptr) *out = r;
    return found;
  }
  static uint32_t remote_count() { return CFM_MEP_DB_RemEntry_Count(); }

  // Hands an untagged CCM to the receiver as the receive task would.
  static void deliver(const Bytes &frame, uint16_t vid = 0) {
    Bytes copy = frame;  // the engine gets exactly the received bytes
    CfmPacket p{};
    p.vid = vid;
    p.inner_vid = CFM_NO_INNER_VID;
    p.from_wan = 1;
    p.buffer = copy.data();
    p.length = static_cast<uint32_t>(copy.size());
    CFM_CCM_Process(&p);
  }
};

}  // namespace ccmtest
