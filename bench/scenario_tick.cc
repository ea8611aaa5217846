// Tick: the 10 ms tick with 64 remote MEPs learnt (10 min CCMs, so they
// stay) and no frames arriving: CPU per tick and share of a core.
#include "harness.h"

namespace bench {

void scenario_tick(Run &run) {
  const int tick_s = run.opt.quick ? 2 : 10;
  Daemon &d = run.daemon;
  set_tick("10ms");
  d.Start({"-i", "wan0", "-e", "-t", "/var/tree"});
  d.Commands({"createmd 1 0 5 0 md5", "createma 1 0 1 0 ma 3 34", "createmep 1 0 1 0 5 0 1 0 0 0 1"});
  double tick_us = 0, tick_pct = 0;
  int tick_remotes = 0;
  {
    RawSocket tx;
    tx.Open("peer0", false);
    if (learn_remotes(d, tx, remote_ccms(7, 5, "md5", "ma"))) {
      sleep_ms(500);
      int64_t cpu0 = d.Cpu(), s0 = mono_ns();
      sleep_ms(tick_s * 1000);
      double elapsed = double(mono_ns() - s0);
      double cpu = double(d.Cpu() - cpu0);
      tick_pct = 100.0 * cpu / elapsed;
      tick_us = cpu / 1e3 / (elapsed / 1e7);  // one tick every 10 ms
      tick_remotes = count_of(d.Command("showremotemep"), "RemoteMepID :");
    }
  }
  d.Stop();
  run.table.Add(Section::kTick, "10 ms tick, 64 remote MEPs: CPU per tick (us)", fmt("%.1f", tick_us),
                std::to_string(tick_remotes) + " remote MEPs at the end");
  run.table.Add(Section::kTick, "10 ms tick, 64 remote MEPs: share of a core", fmt("%.3f%%", tick_pct),
                "goal <= 1%");
}

}  // namespace bench
