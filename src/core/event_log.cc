#include "core/event_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

#include "core/os.h"

namespace {

std::mutex g_mutex;
int g_fd = -1;

void send_datagram(const std::string &datagram) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_fd < 0) g_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (g_fd < 0) return;
  const char *path = getenv("CFMD_SYSLOG_PATH");
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path != nullptr && path[0] != '\0' ? path : "/dev/log");
  ssize_t n = sendto(g_fd, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                     reinterpret_cast<const struct sockaddr *>(&addr), sizeof addr);
  (void)n;
}

}  // namespace

int cfm_event_log_priority(CfmEventKind kind) {
  switch (kind) {
    case CfmEventKind::FaultAlarm:
      return LOG_DAEMON | LOG_ERR;
    case CfmEventKind::FaultCleared:
      return LOG_DAEMON | LOG_NOTICE;
    default:
      return LOG_DAEMON | LOG_INFO;
  }
}

std::string cfm_event_log_datagram(int priority, const std::string &message, uint64_t ms) {
  time_t seconds = static_cast<time_t>(ms / 1000);
  struct tm local;
  localtime_r(&seconds, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
  char head[80];
  snprintf(head, sizeof head, "<%d>%s cfmd[%d]: ", priority, stamp, static_cast<int>(getpid()));
  return head + message;
}

void cfm_event_log_line(int priority, const std::string &message) {
  send_datagram(cfm_event_log_datagram(priority, message, CFM_OS_Get_Wall_Ms()));
}

void cfm_event_log(const CfmEvent &event) {
  std::string text = cfm_event_text(event);
  // The log has its own time stamp.
  size_t space = text.find(' ');
  send_datagram(cfm_event_log_datagram(cfm_event_log_priority(event.kind), text.substr(space + 1), event.time_ms));
}
