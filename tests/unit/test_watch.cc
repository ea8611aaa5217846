// Watchers: a bounded buffer each, a drop line for what a slow one lost, no
// more than 16, and the lines as text or JSON.
#include <gtest/gtest.h>

#include "cli/watch.h"
#include "harness.h"

namespace {

TEST(Watch, SlowWatcherLosesCountedEventsOthersNoneSeventeenthRefused) {
  WatchHub hub;
  int s[CFM_WATCH_MAX + 1][2];
  for (auto &pair : s) ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  int small = 4096;  // s[0] reads nothing until the end; s[1] reads all along, in JSON
  setsockopt(s[0][0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  for (size_t i = 0; i <= CFM_WATCH_MAX; ++i) EXPECT_EQ(hub.add(s[i][0], i == 1), i < CFM_WATCH_MAX) << i;
  EXPECT_EQ(harness::received(s[CFM_WATCH_MAX][1]), CFM_WATCH_REFUSED);
  EXPECT_EQ(recv(s[CFM_WATCH_MAX][1], &small, 1, 0), 0);  // and closed
  for (size_t i = 2; i <= CFM_WATCH_MAX; ++i) close(s[i][1]);
  CfmEvent e = cfm_event_make(CfmEventKind::RmepUp, 1, 2, 1, 10);
  e.time_ms = 1795989662123ull, e.level = 5, e.mac[5] = 0x55;
  snprintf(e.md_name, sizeof e.md_name, "md"), snprintf(e.ma_name, sizeof e.ma_name, "ma");
  const int kEvents = 3000;
  std::string fast, slow, more;
  for (int i = 0; i < kEvents; ++i, e.rmep++) {
    hub.publish(e);
    hub.flush();
    fast += harness::received(s[1][1]);
  }
  EXPECT_EQ(hub.count(), 2u);  // the watchers that closed their end are gone
  do {  // the slow one catches up: the drop line follows what was kept
    hub.flush();
    slow += more = harness::received(s[0][1]);
  } while (!more.empty());
  size_t lines = std::count(slow.begin(), slow.end(), '\n') - 1;
  EXPECT_LT(lines * 100, CFM_WATCH_BUFFER + 64 * 1024u);
  EXPECT_EQ(slow.substr(slow.rfind('\n', slow.size() - 2) + 1), std::to_string(kEvents - lines) + " events dropped\n");
  EXPECT_EQ(slow.substr(0, slow.find('\n')),
            "2026-11-29T22:01:02.123Z rmep-up md=md level=5 ma=ma mep=1 vid=10 rmep=0 mac=00:00:00:00:00:55");
  EXPECT_EQ(std::count(fast.begin(), fast.end(), '\n'), kEvents);
  EXPECT_EQ(fast.substr(0, fast.find('\n')),
            "{\"time\":\"2026-11-29T22:01:02.123Z\",\"event\":\"rmep-up\",\"md\":1,\"md_name\":\"md\",\"level\":5,"
            "\"ma\":2,\"ma_name\":\"ma\",\"mep\":1,\"vid\":10,\"rmep\":0,\"mac\":\"00:00:00:00:00:55\"}");
  close(s[0][1]), close(s[1][1]);
}

}  // namespace
