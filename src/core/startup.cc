#include "core/startup.h"

#include <fcntl.h>
#include <getopt.h>
#include <net/if.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/commands.h"
#include "cli/server.h"
#include "cli/watch.h"
#include "core/config_tree.h"
#include "core/event_log.h"
#include "core/events.h"
#include "core/frame_type.h"
#include "core/global.h"
#include "core/notify.h"
#include "core/os.h"
#include "core/status.h"
#include "core/timer.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "engines/ccm_rx.h"
#include "engines/lb_initiator.h"
#include "engines/lt_initiator.h"
#include "engines/pm_session.h"
#include "io/rx.h"
#include "io/tx.h"

PvcMacTable g_pvc_mac_table = {0, nullptr};
CfmExtraOptions g_cfm_extra_options = {};

namespace {

constexpr int kParseError = 0;
constexpr int kParseGo = 1;
constexpr int kParseWait = 2;

const char kUsage[] =
    "usage: cfmd -i NAME [-e] [-d] [-f eth|8023] [-w] [-t DIR] [-l NAME] [-g GROUP] [-y] [-n PROG] [-q]\n"
    "       cfmd --help | --version\n"
    "  -i NAME   the WAN interface (required)\n"
    "  -e        CFM enabled at start (else it waits for the enable command)\n"
    "  -d        debug traces and frame dumps\n"
    "  -f TYPE   frame type: eth (Ethernet II) or 8023 (802.3 with LLC/SNAP)\n"
    "  -w        wait until the interface exists (checked every 3 s)\n"
    "  -t DIR    configuration tree in the directory DIR\n"
    "  -l NAME   relay CFM frames between the WAN and the LAN interface NAME\n"
    "  -g GROUP  command socket mode 0660 with the group GROUP (else 0600)\n"
    "  -y        delay and synthetic-loss measurement\n"
    "  -n PROG   run PROG for every event (fault alarms, remote MEPs, runs, config)\n"
    "  -q        events not to syslog\n"
    "Commands go to the socket " CFM_CLI_SOCKET_PATH " (cfmctl help); see cfmd(8).\n";

// Removes the semaphore sets on the way out, then dies of the same signal so
// the exit status still says what happened. Any thread may run it, also
// while another one is creating a set.
void on_terminate(int sig) {
  cfm_notify_kill_running();
  CFM_OS_Shutdown_Semaphores();
  signal(sig, SIG_DFL);
  raise(sig);
}

void install_signal_handlers() {
  struct sigaction action = {};
  action.sa_handler = on_terminate;
  sigemptyset(&action.sa_mask);
  for (int sig : kCfmTerminationSignals) sigaddset(&action.sa_mask, sig);
  for (int sig : kCfmTerminationSignals) sigaction(sig, &action, nullptr);
  // A front end that closes its end early must never kill the daemon.
  signal(SIGPIPE, SIG_IGN);
}

// Runs "ifconfig NAME" with its output and errors in the scratch file, as
// "ifconfig %s > %s 2>&1" would, but without a shell: every name the option
// accepts is checked as it is, and none can become a shell command. When
// ifconfig cannot be run its error goes to the file like a shell's report.
void run_ifconfig(const char *ifname) {
  pid_t child = fork();
  if (child < 0) return;
  if (child == 0) {
    int fd = open(CFM_IF_SCRATCH_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(127);
    execlp("ifconfig", "ifconfig", ifname, static_cast<char *>(nullptr));
    dprintf(STDERR_FILENO, "ifconfig: %s\n", strerror(errno));
    _exit(127);
  }
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// Events go to the watchers, to syslog unless -q, and to the notify program
// of -n; a delivery thread takes them off the engines' path.
void start_events() {
  cfm_events_add_sink([](const CfmEvent &event) { cfm_watch_hub().publish(event); });
  cfm_events_set_idle([] { return cfm_watch_hub().flush() > 0; });
  if (!g_cfm_extra_options.no_syslog) cfm_events_add_sink(cfm_event_log);
  if (cfm_notify_program()[0] != '\0') cfm_events_add_sink(cfm_notify_event);
  cfm_events_start();
}

}  // namespace

CfmInfoRequest cfm_info_request(int argc, char *const *argv) {
  for (int i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    if (strcmp(arg, "--") == 0) break;
    if (strcmp(arg, "--help") == 0) return kCfmHelp;
    if (strcmp(arg, "--version") == 0) return kCfmVersion;
    if (arg[0] != '-') continue;
    // Letters in a bundle up to one that takes a value: the rest of the word,
    // or else the next word.
    for (const char *p = arg + 1; *p != '\0'; ++p) {
      if (strchr("filtgn", *p) == nullptr) continue;
      if (p[1] == '\0') ++i;
      break;
    }
  }
  return kCfmRun;
}

int cfm_check_config_enable_at(const char *path, int *status) {
  FILE *file = fopen(path, "r");
  if (file == nullptr) return 0;
  char line[128] = {0};
  bool got = fgets(line, sizeof line, file) != nullptr;
  fclose(file);
  if (!got || strncmp(line, "Enable", 6) != 0) return 0;
  const char *eq = strchr(line, '=');
  if (eq == nullptr) return 0;
  int value = atoi(eq + 1);
  if (status != nullptr) *status = value;
  return (value == 0 || value == 1) ? 1 : 0;
}

int cfm_check_config_enable(int *status) { return cfm_check_config_enable_at(CFM_CONFIG_FILE, status); }

int cfm_parse_args(int argc, char **argv, char *ifname, int *frame_type) {
  if (argc < 1 || argv == nullptr || ifname == nullptr || frame_type == nullptr) return kParseError;
  bool debug = false;
  bool wait = false;
  bool named = false;
  opterr = 0;
  optind = 0;  // full re-initialisation, so the parser can run more than once
  int opt;
  while ((opt = getopt(argc, argv, "def:i:wt:l:g:yn:q")) != -1) {
    switch (opt) {
      case 'd':
        debug = true;
        break;
      case 'e':
        cfm_force_enable();
        break;
      case 'f':
        *frame_type = pareFrameTypeStr(optarg);
        break;
      case 'i':
        snprintf(ifname, IFNAMSIZ, "%s", optarg);
        printf("CFM interface is %s\n", ifname);
        named = true;
        break;
      case 'w':
        wait = true;
        break;
      case 't':
        snprintf(g_cfm_extra_options.tree_dir, sizeof g_cfm_extra_options.tree_dir, "%s", optarg);
        break;
      case 'l':
        snprintf(g_cfm_extra_options.lan_ifname, sizeof g_cfm_extra_options.lan_ifname, "%s", optarg);
        break;
      case 'g':
        if (!cfm_cli_set_socket_group(optarg)) printf("CFM: no group %s, the command socket stays mode 0600\n", optarg);
        break;
      case 'y':
        cfm_pm_enable(true);
        break;
      case 'n':
        cfm_notify_set_program(optarg);
        break;
      case 'q':
        g_cfm_extra_options.no_syslog = true;
        break;
      default:
        break;  // unknown options are ignored
    }
  }
  if (!named) {
    puts("CFM need interface");
    return kParseError;
  }
  char *lan = g_cfm_extra_options.lan_ifname;
  if (lan[0] != '\0' && strcmp(lan, ifname) == 0) {
    // Relaying an interface to itself would send every frame back where it came from.
    printf("CFM: LAN interface %s is the WAN interface, nothing is relayed\n", lan);
    lan[0] = '\0';
  }
  if (debug) {
    cli_usr_cfm_debug_on(stdout, nullptr, 0);
  } else {
    cli_usr_cfm_debug_off(stdout, nullptr, 0);
  }
  return wait ? kParseWait : kParseGo;
}

void cfm_wait_interface(const char *ifname) {
  if (ifname == nullptr || ifname[0] == '\0') {
    puts("Null ifName for wait.");
    return;
  }
  for (;;) {
    fflush(stdout);  // the child must not inherit unwritten reports
    run_ifconfig(ifname);
    FILE *file = fopen(CFM_IF_SCRATCH_FILE, "r");
    if (file != nullptr) {
      char line[128] = {0};
      bool got = fgets(line, sizeof line, file) != nullptr;
      fclose(file);
      if (got && strstr(line, "error") == nullptr) {
        if (isCfmDebugOn()) printf("CFM endof waiting %s\n", ifname);
        return;
      }
    }
    sleep(3);
  }
}

void cfm_clear_pvc_mac() {
  CFM_OS_Deallocate_Memory(g_pvc_mac_table.macs);
  g_pvc_mac_table = {0, nullptr};
}

// Parses a MAC line: up to six ':'-separated hex pieces; true only when
// exactly six were converted.
static bool parse_pvc_mac_line(char *line, uint8_t *mac) {
  uint8_t parsed[6] = {0};
  int pieces = 0;
  char *save = nullptr;
  for (char *tok = strtok_r(line, ":", &save); tok != nullptr && pieces < 6; tok = strtok_r(nullptr, ":", &save)) {
    parsed[pieces++] = static_cast<uint8_t>(strtol(tok, nullptr, 16));
  }
  if (pieces != 6) return false;
  memcpy(mac, parsed, 6);
  return true;
}

int cfm_read_pvc_mac_at(const char *path) {
  cfm_clear_pvc_mac();
  FILE *file = fopen(path, "r");
  if (file == nullptr) {
    printf("Open %s fail\n", path);
    return 0;
  }
  int count = 0;
  bool have_count = false;
  uint8_t *macs = nullptr;
  int slot = 0;
  char line[32];
  while (fgets(line, sizeof line, file) != nullptr) {
    if (line[0] == '\0' || line[0] == '\n') continue;
    if (!have_count) {
      have_count = true;
      count = atoi(line);
      if (count < 1) break;
      // calloc rather than malloc + memset: a huge announced count costs
      // address space only, not touched pages. Freed by free() like the rest.
      macs = static_cast<uint8_t *>(calloc(static_cast<size_t>(count), 6));
      if (macs == nullptr) {
        printf("CFM: no memory for %d PVC MACs\n", count);
        count = -1;
        break;
      }
      continue;
    }
    // Lines beyond the announced count are ignored.
    if (slot < count) {
      uint8_t mac[6];
      if (parse_pvc_mac_line(line, mac)) memcpy(macs + static_cast<size_t>(slot) * 6, mac, 6);
      ++slot;
    }
  }
  fclose(file);
  if (count < 0) {
    CFM_OS_Deallocate_Memory(macs);
    return 0;
  }
  g_pvc_mac_table.count = count;
  g_pvc_mac_table.macs = macs;
  return 1;
}

int cfm_read_pvc_mac() { return cfm_read_pvc_mac_at(CFM_PVC_MAC_FILE); }

int checkPvcMac(const uint8_t *mac) {
  if (mac == nullptr) return 0;
  if (g_pvc_mac_table.count == 0) return 1;
  for (int i = 0; i < g_pvc_mac_table.count; ++i) {
    if (memcmp(mac, g_pvc_mac_table.macs + i * 6, 6) == 0) {
      if (isCfmDebugOn()) puts("match mac");
      return 1;
    }
  }
  if (isCfmDebugOn()) puts("not match mac");
  return 0;
}

void CFM_Init() {
  CFM_OS_Init();
  CFM_MD_MA_Clear();
  CFM_MEP_MIP_Init();
  // MEP_SYC exists before the receive task starts, so the task never meets
  // an uncreated lock.
  CFM_Create_MEP_SYC_Sem();
  if (CFM_Create_Rx_Task() != CFM_OK) {
    printf("\r\nCreate CFM RX failed.");
    fflush(stdout);
    CFM_OS_Fatal_Error_Handler();
  }
  CFM_Timer_Init_Tmr();
  if (cfm_pm_enabled()) cfm_pm_task_start();
  cfm_ccm_Init();
  CFM_LB_Init();
  CFM_LT_Init();
  start_events();
  cfm_cli_server_init();
  for (;;) sleep(1000);
}

int cfm_main(int argc, char **argv) {
  switch (cfm_info_request(argc, argv)) {
    case kCfmHelp:
      fputs(kUsage, stdout);
      return 0;
    case kCfmVersion:
      puts("cfmd " CFMD_VERSION);
      return 0;
    case kCfmRun:
      break;
  }
  install_signal_handlers();
  GlobalEntry entry = {0, 2, 1, 1};
  CFM_IF_Set_Global_Entry(&entry);
  int frame_type = CFM_FRAME_TYPE_UNKNOWN;

  int config_status = 0;
  if (cfm_check_config_enable(&config_status) == 0) {
    puts("Check cfm state fail");
  } else if (config_status == 0) {
    puts("Cfm is disabled by cfg_manager");
    fflush(stdout);
    exit(0);
  }

  char ifname[IFNAMSIZ] = {0};
  const char *lan = g_cfm_extra_options.lan_ifname;
  bool wait_lan = false;
  switch (cfm_parse_args(argc, argv, ifname, &frame_type)) {
    case kParseError:
      puts("cfm parse arg failed");
      fflush(stdout);
      return -1;
    case kParseWait:
      // Only the WAN is waited for; a missing LAN is opened when it appears.
      cfm_wait_interface(ifname);
      wait_lan = lan[0] != '\0' && if_nametoindex(lan) == 0;
      break;
    case kParseGo:
      break;
    default:
      puts("cfm unknown parse state");
      fflush(stdout);
      return -1;
  }

  if (g_cfm_extra_options.tree_dir[0] != '\0' && !ConfigTree::attachDirectory(g_cfm_extra_options.tree_dir)) {
    printf("CFM: configuration tree %s cannot be used\n", g_cfm_extra_options.tree_dir);
  }

  CFM_Get_Ifindex(ifname);
  if (wait_lan) {
    CFM_Open_Lan_When_Present(lan);
  } else if (lan[0] != '\0') {
    CFM_Open_Lan(ifname, lan);
  }
  cfm_read_pvc_mac();
  if (isUnknownFrameType(frame_type)) readFrameTypeFile(&frame_type);
  if (isUnknownFrameType(frame_type)) {
    setDefaultFrameType();
  } else {
    setFrameType(frame_type);
  }
  fflush(stdout);
  CFM_Init();
}
