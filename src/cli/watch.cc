#include "cli/watch.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

const char CFM_WATCH_REFUSED[] = "cfmd: watch refused: 16 watchers already\n";

namespace {

std::string dropped_line(uint64_t dropped, bool json) {
  std::string n = std::to_string(dropped);
  return json ? "{\"event\":\"dropped\",\"dropped\":" + n + "}\n" : n + " events dropped\n";
}

// The longest drop line, kept free so that it always fits.
constexpr size_t kDropLineRoom = 48;

}  // namespace

WatchHub::~WatchHub() {
  for (const Watcher &w : watchers_) close(w.fd);
}

bool WatchHub::add(int fd, bool json) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (watchers_.size() >= CFM_WATCH_MAX) {
    ssize_t n = send(fd, CFM_WATCH_REFUSED, sizeof CFM_WATCH_REFUSED - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)n;
    close(fd);
    return false;
  }
  watchers_.push_back({fd, json, std::string(), 0});
  return true;
}

void WatchHub::append(Watcher *w, const std::string &line) {
  size_t room = CFM_WATCH_BUFFER - w->pending.size();
  if (w->dropped > 0 && room >= line.size() + kDropLineRoom) {
    w->pending += dropped_line(w->dropped, w->json);
    w->dropped = 0;
    room = CFM_WATCH_BUFFER - w->pending.size();
  }
  if (w->dropped == 0 && room >= line.size() + kDropLineRoom) {
    w->pending += line;
  } else {
    w->dropped += 1;
  }
}

// False when the watcher has gone.
bool WatchHub::write_some(Watcher *w) {
  if (w->pending.empty() && w->dropped > 0) w->pending = dropped_line(w->dropped, w->json), w->dropped = 0;
  while (!w->pending.empty()) {
    ssize_t n = send(w->fd, w->pending.data(), w->pending.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return true;
    if (n <= 0) return false;
    w->pending.erase(0, static_cast<size_t>(n));
  }
  // A client that closed its end (not just its sending side) has gone.
  struct pollfd pfd = {w->fd, 0, 0};
  return !(poll(&pfd, 1, 0) == 1 && (pfd.revents & (POLLHUP | POLLERR)) != 0);
}

void WatchHub::publish(const CfmEvent &event) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (watchers_.empty()) return;
  std::string text = cfm_event_text(event) + "\n";
  std::string json = cfm_event_json(event) + "\n";
  for (Watcher &w : watchers_) append(&w, w.json ? json : text);
}

size_t WatchHub::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (size_t i = watchers_.size(); i-- > 0;) {
    if (write_some(&watchers_[i])) continue;
    close(watchers_[i].fd);
    watchers_.erase(watchers_.begin() + static_cast<long>(i));
  }
  return watchers_.size();
}

size_t WatchHub::count() {
  std::lock_guard<std::mutex> lock(mutex_);
  return watchers_.size();
}

// At namespace scope: a function-local static's thread-safe guard would
// bring the exception runtime into the router's build.
WatchHub g_watch_hub;

WatchHub &cfm_watch_hub() { return g_watch_hub; }

bool cfm_watch_take(const char *line, int fd) {
  std::string request(line);
  request.erase(request.find_last_not_of("\r\n ") + 1);  // npos + 1: all of it
  if (request != "watch" && request != "watch json") return false;
  cfm_watch_hub().add(fd, request == "watch json");
  return true;
}
