// Idle: one MEP sending 1 s CCMs on the 1 s tick; its CPU and memory.
#include "harness.h"

namespace bench {

void scenario_idle(Run &run) {
  const int idle_s = run.opt.quick ? 2 : 10;
  Daemon &d = run.daemon;
  d.Start({"-i", "wan0", "-e"});
  d.Commands({"createmd 1 0 5 0 md5", "createma 1 0 1 0 ma 3 31", "createmep 1 0 1 0 5 0 1 0 0 0 1"});
  sleep_ms(1000);
  int64_t c0 = d.Cpu(), t0 = mono_ns();
  sleep_ms(idle_s * 1000);
  double idle_pct = 100.0 * double(d.Cpu() - c0) / double(mono_ns() - t0);
  Memory mem = memory_of(d.pid());
  d.Stop();
  run.table.Add(Section::kIdle, "idle CPU, one MEP with 1 s CCMs", fmt("%.4f%%", idle_pct), "goal <= 0.1%");
  run.table.Add(Section::kMemory, "memory idle: VmRSS / Pss / private (KiB)",
                std::to_string(mem.rss) + " / " + std::to_string(mem.pss) + " / " + std::to_string(mem.priv));
}

}  // namespace bench
