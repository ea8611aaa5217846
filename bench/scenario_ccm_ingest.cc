// CCM ingest: CCMs from 64 remote MEPs (level 5, 1 s interval) at rising
// rates; what the daemon reads of them and its CPU per CCM read.
#include "harness.h"

namespace bench {
namespace {

struct IngestStep {
  double target = 0, sent_rate = 0;
  long sent = 0, read = 0;
  double cpu_us = 0;  // per CCM read
};

}  // namespace

void scenario_ccm_ingest(Run &run) {
  const double ingest_s = run.opt.quick ? 0.5 : 2;
  Daemon &d = run.daemon;
  // The daemon of the idle run: one MEP with 1 s CCMs on the 1 s tick.
  d.Start({"-i", "wan0", "-e"});
  d.Commands({"createmd 1 0 5 0 md5", "createma 1 0 1 0 ma 3 31", "createmep 1 0 1 0 5 0 1 0 0 0 1"});
  std::vector<IngestStep> steps;
  bool learnt = false;
  {
    RawSocket tx;
    tx.Open("peer0", false);
    std::vector<Frame> ccms = remote_ccms(4, 5, "md5", "ma");
    learnt = learn_remotes(d, tx, ccms);
    for (double rate : {10000.0, 20000.0, 50000.0, 100000.0, 200000.0}) {
      if (!learnt) break;
      for (const Frame &f : ccms) tx.Send(f);  // keeps every remote known
      sleep_ms(100);
      // Every remote repeats its sequence number, so each CCM the daemon
      // reads adds one sequence error: the errors count the frames read.
      long before = runtime_value(d, 2);
      int64_t cpu0 = d.Cpu(), s0 = mono_ns();
      IngestStep step;
      step.target = rate;
      step.sent = paced_send(tx, ccms, rate, ingest_s);
      step.sent_rate = double(step.sent) / (double(mono_ns() - s0) / 1e9);
      sleep_ms(300);  // what is queued is read
      step.read = runtime_value(d, 2) - before;
      step.cpu_us = step.read > 0 ? double(d.Cpu() - cpu0) / 1e3 / double(step.read) : 0;
      steps.push_back(step);
    }
  }
  Memory mem = memory_of(d.pid());
  d.Stop();

  Table &t = run.table;
  const Section s = Section::kIngest;
  if (!learnt) t.Add(s, "CCM ingest", "failed", "the 64 remote MEPs were not learnt");
  double best = 0, best_cpu = 0;
  for (const IngestStep &st : steps) {
    bool full = st.read == st.sent;
    t.Add(s, fmt("CCMs from 64 remote MEPs, %.0f/s asked", st.target), fmt("%.0f/s sent", st.sent_rate),
          std::to_string(st.read) + " of " + std::to_string(st.sent) + " read" + (full ? "" : " (LOSS)") +
              fmt(", %.2f us CPU per CCM", st.cpu_us));
    if (full && st.sent_rate > best) best = st.sent_rate, best_cpu = st.cpu_us;
  }
  t.Add(s, "highest loss-free CCM rate (frames/s)", fmt("%.0f", best), "goal >= 50000");
  t.Add(s, "CPU per CCM at that rate (us)", fmt("%.2f", best_cpu), "goal <= 10");
  t.Add(Section::kMemory, "memory after CCM ingest (KiB)",
        std::to_string(mem.rss) + " / " + std::to_string(mem.pss) + " / " + std::to_string(mem.priv));
}

}  // namespace bench
