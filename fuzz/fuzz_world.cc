#include "fuzz_world.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "cli/server.h"
#include "core/config_tree.h"
#include "core/frame_type.h"
#include "core/global.h"
#include "core/os.h"
#include "core/status.h"
#include "core/timer.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/mgmt_if.h"
#include "db/rmep_db.h"
#include "engines/ccm_rx.h"
#include "engines/lb_initiator.h"
#include "engines/lt_initiator.h"
#include "engines/pm_session.h"
#include "io/rx.h"
#include "io/tx.h"
#include "io/vlan_aux.h"

// The commands "update", "clearltr" and "clearcnt" sleep for one to three
// seconds (through CFM_OS_Sleep, which calls usleep). This definition takes
// the place of the C library's usleep in the fuzz executables only, so those
// commands run in full without stalling the fuzzer.
extern "C" int usleep(useconds_t) { return 0; }

namespace fuzz_world {
namespace {

const uint8_t kSelf[6] = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
constexpr uint32_t kStartSecond = 1000000;
uint32_t g_now = kStartSecond;

uint32_t fuzz_clock() { return g_now; }
int64_t fuzz_clock_ms() { return int64_t(g_now) * 1000; }

// The configuration tree's scratch directory, removed at exit.
char g_tree[64];
// The LAN socket's far end: a datagram written there is what the receive
// task reads from the LAN.
int g_lan_peer = -1;

void remove_scratch_tree() {
  ConfigTree::detach();
  std::error_code ignored;
  std::filesystem::remove_all(g_tree, ignored);
}

void clear_tables() {
  for (MepEntry m{}; CFM_GetNext_MEP_Entry(&m) == 1; m = MepEntry{}) CFM_Delete_MEP_Entry(&m);
  for (MipEntry m{}; CFM_GetNext_MIP_Entry(&m) == 1; m = MipEntry{}) CFM_Delete_MIP_Entry(&m);
  CFM_IF_Clean_LtrDB_Entry();
  CFM_IF_Clean_RemoteMep_Entry();
  CFM_MD_MA_Clear();
}

__attribute__((format(printf, 1, 2))) void run(const char *format, ...) {
  char line[256];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof line, format, args);
  va_end(args);
  cfm_cli_run_line(line);
}

}  // namespace

void init() {
  // Reports go to standard output, the fuzzer's own to standard error.
  // CFMD_FUZZ_STDOUT=1 keeps the reports, to read what one input does.
  const char *keep = getenv("CFMD_FUZZ_STDOUT");
  if ((keep == nullptr || strcmp(keep, "1") != 0) && freopen("/dev/null", "w", stdout) == nullptr) abort();
  atexit(CFM_OS_Remove_All_Semaphores);
  CFM_MEP_MIP_Init();
  cfm_mep_db_Init();
  CFM_Create_MEP_SYC_Sem();
  cfm_ccm_Init();
  cfm_set_system_mac(kSelf);
  CFM_LB_Init();
  CFM_LT_Init();
  cfm_set_tx_hook([](CfmTxSide, const uint8_t *, size_t) { return true; });
  CFM_OS_Set_Clock_Source(fuzz_clock);
  cfm_pm_set_clock(fuzz_clock_ms);
  // The tree in a scratch directory (on tmpfs where there is one), so rows,
  // exports and removals run for real.
  snprintf(g_tree, sizeof g_tree, "%s/cfm_fuzz_XXXXXX", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
  if (mkdtemp(g_tree) == nullptr || !ConfigTree::attachDirectory(g_tree)) abort();
  atexit(remove_scratch_tree);
  int lan[2];
  if (socketpair(AF_UNIX, SOCK_DGRAM, 0, lan) != 0 || fcntl(lan[0], F_SETFL, O_NONBLOCK) != 0) abort();
  _cfm_lan_sock_fd = lan[0];
  g_lan_peer = lan[1];
}

void reset() {
  g_now = kStartSecond;
  cfm_debug_msg = 0;
  setFrameType(CFM_FRAME_TYPE_ETH);
  clear_tables();
  ConfigTree::delStr("/runtime");
  CFM_Global_Reset();
  cfm_force_enable();
  CFM_LB_Init();
  CFM_LT_Init();
  for (int level = 0; level < 8; ++level) {
    int md = level + 1;
    run("createmd %d level %d name md", md, level);
    run("createma %d ma %d name ma", md, md);  // MA indexes are unique across MDs
    run("createmep %d md %d mep %d port 1 vid 100 dir %d", md, md, md, level % 2 + 1);
    run("configmep %d md %d mep %d port 1 vid 100 dir %d o 2 21", md, md, md, level % 2 ? 200 : 100);
  }
  // A peer at 02:11:22:33:44:55: five LBMs from level 2, one LTM from level 4.
  cfm_cli_run_line("configmep 3 md 3 mep 3 port 1 vid 100 dir 100 o 5 51 7 5 6 02:11:22:33:44:55 15 data");
  cfm_cli_run_line("configmep 5 md 5 mep 5 port 1 vid 100 dir 100 o 10 02:11:22:33:44:55 12 121");
  // Delay and loss sessions from the level 4 MEP towards the same peer.
  cfm_pm_reset();
  cfm_pm_enable(true);
  cfm_cli_run_line("pmstart dm 5 5 5 02:11:22:33:44:55 0 100 3");
  cfm_cli_run_line("pmstart slm 5 5 5 02:11:22:33:44:55 0 100 3 9");
  tick();
}

void apply_settings(uint8_t bits) {
  setFrameType((bits & 1) != 0 ? CFM_FRAME_TYPE_8023 : CFM_FRAME_TYPE_ETH);
  cfm_debug_msg = (bits & 2) != 0 ? 1 : 0;
  cfm_pm_enable((bits & 4) == 0);
}

void receive(const uint8_t *frame, size_t length) {
  CfmPacket packet = {};
  if (cfm_classify_wan_frame(frame, length, &packet) == CFM_OK) cfm_dispatch_packet(&packet);
}

void receive_from_lan(const uint8_t *frame, size_t length) {
  if (send(g_lan_peer, frame, length, MSG_DONTWAIT) != static_cast<ssize_t>(length)) return;
  CfmPacket packet = {};
  rx_lan_packet(&packet);
}

void serve(const uint8_t *request, size_t length) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) abort();
  // More than the server reads, less than the socket holds: the write
  // cannot block.
  length = std::min<size_t>(length, 2 * CFM_CLI_LINE_MAX);
  if (length > 0 && write(pair[1], request, length) != static_cast<ssize_t>(length)) abort();
  shutdown(pair[1], SHUT_WR);
  CliServer server(-1);  // serves the one connection to its end
  server.add(pair[0]);
  while (server.open() > 0) server.step(-1);
  close(pair[1]);
}

void tick() {
  ++g_now;
  cfm_timer_tick();
  MepSycLock sync;  // as the delay and loss task sends
  CFM_PM_XMIT_Check();
}

void frame_input(const uint8_t *data, size_t size) {
  if (size < 1) return;
  apply_settings(data[0]);
  // The frame ends where the input ends, so any read past it is caught.
  if ((data[0] & kSettingLan) != 0) {
    receive_from_lan(data + 1, size - 1);
  } else {
    receive(data + 1, size - 1);
  }
}

void tree_input(const uint8_t *data, size_t size) {
  if (size < 1) return;
  // "/runtime/" + key, and a value after the first '=' (reset removes it all).
  std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  size_t eq = text.find('=');
  std::string key = "/runtime/" + text.substr(0, eq), value = eq == std::string::npos ? "" : text.substr(eq + 1);
  char out[CFM_CONFIG_VALUE_SIZE] = "";
  uint16_t rows = 0;
  switch (data[0] % 5) {
    case 0:
      ConfigTree::setStr(value.c_str(), "%s", key.c_str());
      break;
    case 1:
      ConfigTree::delStr("%s", key.c_str());
      break;
    case 2:
      ConfigTree::getRow(key.c_str(), &rows);
      break;
    case 3:
      ConfigTree::ConfigGet(key.c_str(), out);
      break;
    default:
      ConfigTree::setInt(ConfigTree::getInt(out, key.c_str()) + 1, "%s", key.c_str());
      break;
  }
}

void tag_input(const uint8_t *data, size_t size) {
  if (size < 5) return;
  const bool tagged = (data[0] & 1) != 0;
  const uint16_t tpid = static_cast<uint16_t>(data[1] << 8 | data[2]), tci = static_cast<uint16_t>(data[3] << 8 | data[4]);
  const uint8_t *frame = data + 5;
  size_t length = size - 5;
  // Bit 1: an output shorter than the frame with its tag.
  size_t cap = (data[0] & 2) != 0 ? length / 2 : length + 4;
  std::vector<uint8_t> apart(cap), in_place(length + 4);
  size_t written = cfm_vlan_reinsert(frame, length, tagged, tpid, tci, apart.data(), cap);
  // The same rebuilt in place, from 4 bytes into the buffer, must agree.
  memcpy(in_place.data() + 4, frame, length);
  size_t rebuilt = cfm_vlan_reinsert(in_place.data() + 4, length, tagged, tpid, tci, in_place.data(), cap);
  if (written > cap || rebuilt != written) abort();
  if (written > 0 && memcmp(apart.data(), in_place.data(), written) != 0) abort();
  if (written > 0) receive(apart.data(), written);
}

void stale_record_input(const uint8_t *data, size_t size) {
  CfmStaleRecord record;
  bool valid = cfm_parse_stale_record(reinterpret_cast<const char *>(data), size, &record);
  if (valid && (record.pid <= 1 || record.count > CFM_STALE_MAX_SETS)) abort();
  for (size_t i = 0; valid && i < record.count; ++i) {
    if (record.sets[i].id < 0 || record.sets[i].ctime < -1) abort();
  }
}

void mixed_input(const uint8_t *data, size_t size) {
  size_t at = 0;
  while (size - at >= 3) {
    uint8_t kind = data[at] % 8;
    size_t length = std::min<size_t>(static_cast<size_t>(data[at + 1]) << 8 | data[at + 2], size - at - 3);
    const uint8_t *payload = data + at + 3;
    at += 3 + length;
    switch (kind) {
      case 0:
        receive(payload, length);
        break;
      case 1:
        cfm_cli_run_line(std::string(reinterpret_cast<const char *>(payload), length).c_str());
        break;
      case 2:
        for (int n = length > 0 ? 1 + payload[0] % 8 : 1; n > 0; --n) tick();
        break;
      case 3:
        if (length > 0) apply_settings(payload[0]);
        break;
      case 4:
        receive_from_lan(payload, length);
        break;
      case 5:
        tree_input(payload, length);
        break;
      case 6:
        tag_input(payload, length);
        break;
      default:
        stale_record_input(payload, length);
        break;
    }
  }
}

}  // namespace fuzz_world
