// Shared in-process harness of the unit tests: real tables emptied before
// each case, a fixed system MAC, every sent frame captured through the
// transmit hook, frames built byte by byte, requests run through the command
// parser with their output captured. Semaphore sets are removed at the end.
#pragma once
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "cli/server.h"
#include "core/frame_type.h"
#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/mgmt_if.h"
#include "db/rmep_db.h"
#include "engines/ccm_rx.h"
#include "engines/ccm_tx.h"
#include "engines/lb_initiator.h"
#include "engines/lt_initiator.h"
#include "io/rx.h"
#include "io/tx.h"

namespace harness {

using Bytes = std::vector<uint8_t>;

inline const uint8_t kSelf[6] = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
inline const uint8_t kPeer[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

class SemaphoreCleanup : public ::testing::Environment {
 public:
  void TearDown() override { CFM_OS_Remove_All_Semaphores(); }
};
inline ::testing::Environment *const g_semaphore_cleanup = ::testing::AddGlobalTestEnvironment(new SemaphoreCleanup);

inline Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes &p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}
// What a socket holds now, without waiting; errno tells why the reading stopped.
inline std::string received(int fd) {
  std::string got;
  char buf[4096];
  for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) got.append(buf, size_t(n));
  return got;
}
inline Bytes mac(const uint8_t *m) { return Bytes(m, m + 6); }
inline Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
inline Bytes slice(const Bytes &b, size_t from, size_t to) { return Bytes(b.begin() + from, b.begin() + to); }
inline Bytes pad64(Bytes b) {  // as the transmit path sends it
  b.resize(64, 0);
  return b;
}
template <class F>
std::string stdout_of(F run) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  run();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}
inline std::string Cli(const std::string &line) {
  return stdout_of([&] { cfm_cli_run_line(line.c_str()); });
}
// Runs the requests in order, each expected to print exactly its text; the
// table commands (create, config, delete, showmd) answer 0 when that text is
// a refusal, 1 for showmd, 2 otherwise.
inline void ExpectCli(std::initializer_list<std::pair<std::string, std::string>> steps) {
  for (const auto &step : steps) {
    const std::string &line = step.first, &text = step.second;  // a lambda captures these
    int result = -1;
    EXPECT_EQ(stdout_of([&] { result = cfm_cli_run_line(line.c_str()); }), text) << line;
    bool refused = text.find("Error!!") != text.npos || text.find(" not exist") != text.npos ||
                   text.find("need to delete") != text.npos || text.find("still") != text.npos;
    bool table = line.rfind("create", 0) == 0 || line.rfind("config", 0) == 0 || line.rfind("delete", 0) == 0;
    if (table || line == "showmd") {
      EXPECT_EQ(result, refused ? 0 : table ? 2 : 1) << line;
    }
  }
}

// Untagged Ethernet II CFM frame: addresses, EtherType, header, then body.
inline Bytes cfm_frame(const uint8_t *dst, const uint8_t *src, uint8_t level, uint8_t opcode, uint8_t flags,
                       uint8_t first_tlv, const Bytes &body) {
  return cat({mac(dst), mac(src), {0x89, 0x02, uint8_t(level << 5), opcode, flags, first_tlv}, body});
}

// A peer's CCM at level 5 of MD "md", MA "ma", untagged (Ethernet II).
struct PeerCcm {
  uint8_t level = 5, interval = 4, port_status = 2;
  uint16_t mep_id = 2;
  uint32_t sequence = 1;
  bool rdi = false;
  std::string ma_name = "ma";

  Bytes untagged() const {
    Bytes f = cat({{0x01, 0x80, 0xC2, 0x00, 0x00, uint8_t(0x30 + level)}, mac(kPeer),
                   {0x89, 0x02, uint8_t(level << 5), 1, uint8_t((rdi ? 0x80 : 0) | interval), 70}, be32(sequence),
                   {uint8_t(mep_id >> 8), uint8_t(mep_id), 4, 2, 'm', 'd', 2, uint8_t(ma_name.size())},
                   Bytes(ma_name.begin(), ma_name.end())});
    f.resize(88, 0);
    return cat({f, {1, 0, 4, 0, 0, 0, 0, 2, 0, 1, port_status, 4, 0, 1, 1, 0}});
  }
  Bytes tagged(uint16_t vid, uint8_t prio = 7) const {
    Bytes f = untagged();
    f.insert(f.begin() + 12, {0x81, 0x00, uint8_t((prio << 5) | (vid >> 8)), uint8_t(vid)});
    return f;
  }
};

// Empty MD, MA, MEP, MIP, remote-MEP and reply tables.
class DbTest : public ::testing::Test {
 protected:
  void SetUp() override { clear_tables(); }
  static void clear_tables() {
    CFM_MD_MA_Clear();
    CFM_MEP_MIP_Reset();
    CFM_MEP_MIP_Init();
    cfm_mep_db_Reset();
    cfm_mep_db_Init();
  }
};

class EngineTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    static bool once = (CFM_Create_MEP_SYC_Sem(), cfm_ccm_Init(), true);
    (void)once;
    setFrameType(CFM_FRAME_TYPE_ETH);
    cfm_debug_msg = 0;
    set_status(1);
    cfm_set_system_mac(kSelf);
    CFM_LB_Init();
    CFM_LT_Init();
    cfm_set_tx_hook([this](CfmTxSide side, const uint8_t *frame, size_t length) {
      sent.push_back({side, Bytes(frame, frame + length)});
      (side == CfmTxSide::Lan ? lan_ : wan_).emplace_back(frame, frame + length);
      return tx_ok;
    });
  }
  void TearDown() override {
    cfm_set_tx_hook(nullptr);
    setFrameType(CFM_FRAME_TYPE_ETH);
    cfm_debug_msg = 0;
  }

  static void set_status(uint32_t status) {
    GlobalEntry global = {status, 2, 1, 1};
    CFM_IF_Set_Global_Entry(&global);
  }
  // MD `index` at `level`: with a name, character-string format; without, no name.
  static void add_md(uint32_t index, uint8_t level, const char *name = nullptr, uint8_t mhf = 2) {
    MdEntry md = {index, uint8_t(name ? 4 : 1), level, mhf, 1, {}, CFM_ROW_CREATE};
    name ? snprintf(md.MdName, sizeof md.MdName, "%s", name) : snprintf(md.MdName, sizeof md.MdName, "md%u", index);
    ASSERT_EQ(CFM_Set_MD_Entry(&md), 1);
  }
  static void add_ma(uint32_t md, uint32_t index, const char *name, uint8_t interval = 4) {
    MaNetEntry ma{md, index, 2, {}, interval, CFM_ROW_CREATE};
    snprintf(ma.MaName, sizeof ma.MaName, "%s", name);
    ASSERT_EQ(CFM_Set_MA_Net_Entry(&ma), 1);
  }
  static MepEntry add_mep(uint32_t md, uint32_t ma, uint16_t id, uint8_t port, uint16_t vid, uint8_t direction) {
    MepEntry mep = {};
    mep.md_id = md, mep.ma_id = ma, mep.mep_id = id, mep.port = port, mep.vid = vid, mep.direction = direction;
    mep.RowStatus = 1;
    EXPECT_EQ(CFM_Update_MEP_Entry(&mep), 1);
    return mep;
  }
  // A MEP sending CCMs at priority 7, with the default alarm settings.
  static MepEntry ccm_mep(uint32_t md, uint32_t ma, uint16_t id, uint16_t vid = 0, uint8_t dir = 1, uint8_t port = 1) {
    MepEntry m = add_mep(md, ma, id, port, vid, dir);
    m.CciEnabled = 1, m.CcmLtmPriority = 7, m.FngAlarmTime = 250, m.FngResetTime = 1000, m.LowestAlarmPriority = 2;
    EXPECT_EQ(CFM_Update_MEP_Entry(&m), 1);
    return m;
  }
  static MepEntry read_mep(MepEntry mep) {
    EXPECT_EQ(CFM_Get_MEP_Entry(&mep), 1);
    return mep;
  }
  static bool remote(uint32_t md, uint32_t ma, uint16_t id, RemoteMepEntry *out = nullptr) {
    RemoteMepEntry r{};
    r.md_id = md, r.ma_id = ma, r.rmep_id = id;
    bool found = CFM_MEP_DB_Get_RemEntry(&r) == CFM_DB_FOUND;
    if (out != nullptr) *out = r;
    return found;
  }
  // Hands an untagged frame to an engine the way the receive task does; the
  // buffer is exactly the frame, so any read past it is caught.
  static CfmPacket packet(Bytes &frame, uint32_t priority = 5, uint32_t vid = 100,
                          uint32_t inner_vid = CFM_NO_INNER_VID, uint32_t inner_priority = 0) {
    CfmPacket p = {};
    p.priority = priority, p.vid = vid, p.inner_priority = inner_priority, p.inner_vid = inner_vid;
    p.rx_port = 1, p.buffer = frame.data(), p.length = static_cast<uint32_t>(frame.size());
    return p;
  }
  static void deliver_ccm(Bytes frame, uint16_t vid = 0) {
    CfmPacket p = packet(frame, 0, vid);
    CFM_CCM_Process(&p);
  }

  struct Sent {
    CfmTxSide side;
    Bytes frame;
  };
  std::vector<Sent> sent;
  std::vector<Bytes> wan_, lan_;  // the same frames by side
  bool tx_ok = true;
};

}  // namespace harness
