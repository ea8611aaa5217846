#include "core/notify.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>

#include "cli/json.h"
#include "core/event_log.h"
#include "core/hwaddr.h"
#include "core/os.h"

extern char **environ;

namespace {

std::string g_program;
std::mutex g_mutex;
CfmWake g_wake;
std::deque<CfmEvent> g_queue;
uint64_t g_dropped = 0;
bool g_started = false;
// The running program's process group (0: none), for the signal handler.
volatile sig_atomic_t g_running = 0;

void log_both(int priority, const std::string &message) {
  fprintf(stderr, "cfmd: %s\n", message.c_str());
  cfm_event_log_line(LOG_DAEMON | priority, message);
}

void *runner_task(void *) {
  for (;;) {
    CfmEvent event;
    uint64_t dropped = 0;
    {
      std::unique_lock<std::mutex> lock(g_mutex);
      while (g_queue.empty()) g_wake.wait(g_mutex);
      event = g_queue.front();
      g_queue.pop_front();
      dropped = g_dropped;
      g_dropped = 0;
    }
    if (dropped > 0) {
      log_both(LOG_WARNING, "notify queue full: " + std::to_string(dropped) + " events not given to " + g_program);
    }
    cfm_notify_run(g_program.c_str(), event, CFM_NOTIFY_LIMIT_MS);
  }
  return nullptr;
}

std::string number(unsigned long value) { return std::to_string(value); }

// Waits for the child at most limit_ms; kills its group after that.
int wait_child(pid_t child, const char *program, int limit_ms) {
  for (int waited = 0;; waited += 10) {
    int status = 0;
    pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (done < 0 && errno != EINTR) return -1;
    if (waited >= limit_ms) break;
    usleep(10 * 1000);
  }
  kill(-child, SIGKILL);
  while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  log_both(LOG_WARNING, std::string("notify program ") + program + " killed after " + std::to_string(limit_ms / 1000) +
                            " s");
  return -1;
}

}  // namespace

void cfm_notify_set_program(const char *path) { g_program = path != nullptr ? path : ""; }

const char *cfm_notify_program() { return g_program.c_str(); }

std::vector<std::string> cfm_notify_environment(const CfmEvent &e) {
  char time[CFM_JSON_TIME_SIZE];
  std::vector<std::string> env = {
      std::string("CFM_EVENT=") + cfm_event_kind_name(e.kind), std::string("CFM_TIME=") + cfm_json_time(time, e.time_ms),
      "CFM_MD=" + std::string(e.md_name),  "CFM_MD_LEVEL=" + number(e.level)};
  if (e.has_ma) env.push_back("CFM_MA=" + std::string(e.ma_name));
  if (e.has_mep) {
    env.push_back("CFM_MEPID=" + number(e.mep));
    env.push_back("CFM_VID=" + number(e.vid));
  }
  char mac[CFM_MAC_TEXT_SIZE];
  switch (e.kind) {
    case CfmEventKind::FaultAlarm:
    case CfmEventKind::FaultCleared:
      env.push_back(std::string("CFM_DEFECT=") + cfm_event_defect_name(e.defect));
      env.push_back("CFM_DEFECT_CODE=" + number(e.defect));
      break;
    case CfmEventKind::RmepUp:
    case CfmEventKind::RmepDown:
      env.push_back("CFM_RMEPID=" + number(e.rmep));
      env.push_back(std::string("CFM_MAC=") + hwaddr_to_string(mac, e.mac));
      break;
    case CfmEventKind::LbDone:
    case CfmEventKind::LtDone:
      env.push_back(std::string("CFM_RESULT=") + (e.stopped ? "stopped" : e.ok ? "ok" : "fail"));
      env.push_back("CFM_REPLIES=" + number(e.replies));
      break;
    case CfmEventKind::PmDone:
      env.push_back(std::string("CFM_PM=") + e.pm);
      env.push_back(std::string("CFM_RESULT=") + (e.stopped ? "stopped" : "finished"));
      env.push_back("CFM_REPLIES=" + number(e.replies));
      env.push_back("CFM_LOST=" + number(e.lost));
      break;
    case CfmEventKind::Config:
      break;
  }
  return env;
}

int cfm_notify_run(const char *program, const CfmEvent &event, int limit_ms) {
  std::vector<std::string> vars = cfm_notify_environment(event);
  std::vector<char *> envp;
  for (char **p = environ; *p != nullptr; ++p) {
    if (strncmp(*p, "CFM_", 4) != 0) envp.push_back(*p);
  }
  for (std::string &v : vars) envp.push_back(v.data());
  envp.push_back(nullptr);
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  char *argv[] = {const_cast<char *>(program), nullptr};
  pid_t child = -1;
  int failed = posix_spawn(&child, program, &actions, &attr, argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(pipe_fds[0]);
  if (failed != 0) {
    close(pipe_fds[1]);
    log_both(LOG_WARNING, std::string("notify program ") + program + " cannot run: " + strerror(failed));
    return -1;
  }
  // One line, far below a pipe's capacity: written whole without waiting.
  std::string line = cfm_event_json(event) + "\n";
  fcntl(pipe_fds[1], F_SETFL, O_NONBLOCK);
  ssize_t n = write(pipe_fds[1], line.data(), line.size());
  (void)n;
  close(pipe_fds[1]);
  g_running = child;
  int status = wait_child(child, program, limit_ms);
  g_running = 0;
  return status;
}

void cfm_notify_kill_running() {
  if (g_running > 0) kill(-static_cast<pid_t>(g_running), SIGKILL);
}

void cfm_notify_event(const CfmEvent &event) {
  bool first_drop = false;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_started) {
      g_started = true;
      pthread_t thread;
      CFM_OS_Create_Task(&thread, "CFM-Notify", runner_task, 0, 0);
    }
    if (g_queue.size() < CFM_NOTIFY_QUEUE_MAX) {
      g_queue.push_back(event);
    } else {
      first_drop = ++g_dropped == 1;
    }
  }
  g_wake.notify();
  // Said at once; the number when the program has caught up.
  if (first_drop) log_both(LOG_WARNING, "notify queue full: events not given to " + g_program + " from now");
}
