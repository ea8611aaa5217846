// Watchers: command-socket connections that asked for events ("watch" or
// "watch json") and stay open, receiving one line per event. Writes never
// wait: each watcher has a bounded buffer, and one that falls behind loses
// events, counted, and gets one line saying how many when it has room again.
#pragma once
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "core/events.h"

constexpr size_t CFM_WATCH_MAX = 16;
// Bytes kept per watcher beyond what its socket took.
constexpr size_t CFM_WATCH_BUFFER = 64 * 1024;
// The line a 17th watcher gets before its connection is closed.
extern const char CFM_WATCH_REFUSED[];

class WatchHub {
 public:
  ~WatchHub();
  // Takes a connection that asked to watch (its socket non-blocking). When
  // CFM_WATCH_MAX watch already, writes the refusal, closes it, returns false.
  bool add(int fd, bool json);
  // Queues the event's line for every watcher and writes what fits.
  void publish(const CfmEvent &event);
  // Writes what each watcher can take; closes those that have gone.
  // Returns the watchers left.
  size_t flush();
  size_t count();

 private:
  struct Watcher {
    int fd;
    bool json;
    std::string pending;
    uint64_t dropped;
  };
  void append(Watcher *w, const std::string &line);
  bool write_some(Watcher *w);
  std::mutex mutex_;
  std::vector<Watcher> watchers_;
};

// The daemon's watchers; the server hands them watch requests.
WatchHub &cfm_watch_hub();
// When `line` is a watch request, gives the connection to the hub and
// returns true (the server must then forget it without closing it).
bool cfm_watch_take(const char *line, int fd);
