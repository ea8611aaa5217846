// Watchers: a bounded buffer each, a drop line for what a slow one lost, no
// more than 16, and the lines as text or JSON.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "cli/watch.h"

namespace {

CfmEvent rmep_up(uint16_t rmep) {
  CfmEvent e = {};
  e.kind = CfmEventKind::RmepUp;
  e.time_ms = 1795989662123ull;
  e.md = 1, e.level = 5, e.has_ma = e.has_mep = true, e.ma = 2, e.mep = 1, e.vid = 10, e.rmep = rmep;
  snprintf(e.md_name, sizeof e.md_name, "md");
  snprintf(e.ma_name, sizeof e.ma_name, "ma");
  e.mac[5] = 0x55;
  return e;
}

std::string read_all(int fd) {
  std::string got;
  char buf[4096];
  for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) got.append(buf, static_cast<size_t>(n));
  return got;
}

TEST(Watch, SlowWatcherLosesCountedEventsOthersLoseNone) {
  WatchHub hub;
  int slow[2], fast[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, slow), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fast), 0);
  int small = 4096;
  setsockopt(slow[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  ASSERT_TRUE(hub.add(slow[0], false));
  ASSERT_TRUE(hub.add(fast[0], true));
  const int kEvents = 3000;
  std::string fast_got;
  for (int i = 0; i < kEvents; ++i) {
    hub.publish(rmep_up(static_cast<uint16_t>(i)));
    hub.flush();
    fast_got += read_all(fast[1]);
  }
  std::string slow_got, more;
  do {  // the reader catches up: the drop line follows what was kept
    hub.flush();
    more = read_all(slow[1]);
    slow_got += more;
  } while (!more.empty());
  // Every event is either a line or counted in the one drop line, which
  // comes last; the buffer held at most its bound.
  size_t lines = 0, pos = 0;
  for (; (pos = slow_got.find(" rmep-up ", pos)) != std::string::npos; ++pos) ++lines;
  size_t at = slow_got.rfind('\n', slow_got.size() - 2);
  std::string last = slow_got.substr(at + 1);
  EXPECT_EQ(last, std::to_string(kEvents - lines) + " events dropped\n");
  EXPECT_LT(lines, static_cast<size_t>(kEvents));
  EXPECT_LE(slow_got.size(), CFM_WATCH_BUFFER + 64 * 1024u);
  EXPECT_EQ(std::count(fast_got.begin(), fast_got.end(), '\n'), kEvents);
  EXPECT_EQ(fast_got.substr(0, fast_got.find('\n')),
            "{\"time\":\"2026-11-29T22:01:02.123Z\",\"event\":\"rmep-up\",\"md\":1,\"md_name\":\"md\",\"level\":5,"
            "\"ma\":2,\"ma_name\":\"ma\",\"mep\":1,\"vid\":10,\"rmep\":0,\"mac\":\"00:00:00:00:00:55\"}");
  // A watcher that closed its end is forgotten at the next flush.
  close(fast[1]);
  hub.flush();
  EXPECT_EQ(hub.count(), 1u);
  close(slow[1]);
}

TEST(Watch, SeventeenthIsRefused) {
  WatchHub hub;
  int last[2] = {-1, -1};
  for (size_t i = 0; i <= CFM_WATCH_MAX; ++i) {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, last), 0);
    EXPECT_EQ(hub.add(last[0], false), i < CFM_WATCH_MAX) << i;
    if (i < CFM_WATCH_MAX) close(last[1]);
  }
  EXPECT_EQ(read_all(last[1]), CFM_WATCH_REFUSED);
  EXPECT_EQ(recv(last[1], last, 1, 0), 0);  // and closed
  close(last[1]);
  EXPECT_EQ(hub.count(), CFM_WATCH_MAX);
}

}  // namespace
