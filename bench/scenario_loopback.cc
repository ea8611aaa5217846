// LBM to LBR: a bare reflector on wan0 (the physical limit of the link),
// then cfmd with a MEP on VID 100; rate with a window of LBMs outstanding,
// round trip one LBM at a time, CPU of the responder per LBR.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "harness.h"

namespace bench {
namespace {

struct LoopbackFigures {
  double rate = 0;  // LBRs per second with a window of LBMs outstanding
  int lost = 0;
  double cpu_us = 0;  // responder CPU per LBR
  double p50_us = 0, p99_us = 0;
  int rtt_lost = 0;
};

// (a) N LBMs, at most `window` outstanding, LBRs counted per second;
// (b) one LBM at a time, round trip percentiles. `pid` is whoever answers.
LoopbackFigures measure_loopback(pid_t pid, int count, int samples) {
  constexpr int kWindow = 64;
  LoopbackFigures fig;
  RawSocket sock;
  sock.Open("peer0", true, 2);
  std::vector<Frame> frames;
  frames.reserve(size_t(count));
  for (int i = 0; i < count; ++i) frames.push_back(lbm(uint32_t(i)));
  std::vector<bool> seen(static_cast<size_t>(count));
  uint8_t buf[2048];
  int sent = 0, got = 0, written_off = 0;
  int64_t cpu0 = cpu_ns(pid), t0 = mono_ns(), last = t0;
  while (got + written_off < count) {
    std::vector<const Frame *> batch;
    while (sent < count && sent - got - written_off < kWindow) batch.push_back(&frames[size_t(sent++)]);
    for (size_t done = 0; done < batch.size();) {
      std::vector<const Frame *> rest(batch.begin() + long(done), batch.end());
      int n = sock.SendBatch(rest);
      if (n == 0) sleep_ms(1);
      done += size_t(n);
    }
    if (!sock.Wait(100)) {
      // Nothing for 100 ms: what is outstanding is lost.
      written_off = sent - got;
      continue;
    }
    for (long n; (n = sock.Read(buf, sizeof buf)) >= 0;) {
      uint32_t id;
      if (lb_id(buf, size_t(n), 2, &id) && id < uint32_t(count) && !seen[id]) {
        seen[id] = true;
        ++got;
        last = mono_ns();
      }
    }
  }
  fig.rate = got / (double(last - t0) / 1e9);
  fig.lost = count - got;
  fig.cpu_us = got > 0 ? double(cpu_ns(pid) - cpu0) / 1e3 / got : 0;

  std::vector<double> rtt;
  for (int i = 0; i < samples; ++i) {
    uint32_t want = uint32_t(1000000 + i);
    Frame f = lbm(want);
    sock.Drain();
    int64_t s = mono_ns();
    sock.Send(f);
    bool answered = false;
    while (!answered && sock.Wait(200)) {
      for (long n; !answered && (n = sock.Read(buf, sizeof buf)) >= 0;) {
        uint32_t id;
        answered = lb_id(buf, size_t(n), 2, &id) && id == want;
      }
    }
    if (answered) {
      rtt.push_back(double(mono_ns() - s) / 1e3);
    } else {
      ++fig.rtt_lost;
    }
  }
  fig.p50_us = percentile(rtt, 0.5);
  fig.p99_us = percentile(rtt, 0.99);
  return fig;
}

}  // namespace

void scenario_loopback(Run &run) {
  const bool q = run.opt.quick;
  const int lb_count = q ? 3000 : 20000, rtt_samples = q ? 300 : 3000;
  LoopbackFigures ref, dae;
  {
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      reflect("wan0");
    }
    sleep_ms(100);
    ref = measure_loopback(child, lb_count, rtt_samples);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  Daemon &d = run.daemon;
  d.Start({"-i", "wan0", "-e"});
  // MD at level 2, a Down MEP on VID 100 with its CCMs off.
  d.Commands({"createmd 1 0 2 0 dom", "createma 1 0 1 0 assoc", "createmep 1 0 1 0 1 0 1 0 100 0 1",
              "configmep 1 0 1 0 1 0 1 0 100 0 100 0 2 22"});
  dae = measure_loopback(d.pid(), lb_count, rtt_samples);
  d.Stop();

  Table &t = run.table;
  const Section s = Section::kLoopback;
  auto ratio = [](double a, double b) { return b > 0 ? fmt("%.2fx", a / b) : std::string("-"); };
  t.Add(s, "LBR rate, reflector (LBRs/s)", fmt("%.0f", ref.rate), fmt("%.2f us CPU per LBR", ref.cpu_us));
  t.Add(s, "LBR rate, cfmd (LBRs/s)", fmt("%.0f", dae.rate),
        fmt("%.2f us CPU per LBR", dae.cpu_us) + (dae.lost ? ", " + std::to_string(dae.lost) + " lost" : ""));
  t.Add(s, "LBR rate ratio cfmd/reflector", ratio(dae.rate, ref.rate), "goal >= 1.2x");
  t.Add(s, "round trip p50, reflector / cfmd (us)", fmt("%.1f", ref.p50_us) + " / " + fmt("%.1f", dae.p50_us),
        "ratio " + ratio(dae.p50_us, ref.p50_us) + ", goal <= 1.1x");
  t.Add(s, "round trip p99, reflector / cfmd (us)", fmt("%.1f", ref.p99_us) + " / " + fmt("%.1f", dae.p99_us),
        "ratio " + ratio(dae.p99_us, ref.p99_us) +
            (ref.rtt_lost + dae.rtt_lost
                 ? ", lost " + std::to_string(ref.rtt_lost) + "/" + std::to_string(dae.rtt_lost)
                 : ""));
}

}  // namespace bench
