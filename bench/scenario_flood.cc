// Flood: a MEP sending every tick (1 s tick, then 100 ms tick) while the
// peer blasts LBMs, then LBMs whose first TLV runs past the frame: how
// steady the daemon's CCMs and command socket stay, and how it answers
// once the flood is over.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <mutex>
#include <thread>

#include "harness.h"

namespace bench {
namespace {

// CCM arrivals at the peer, per MEPID, with the kernel's receive times.
class CcmMonitor {
 public:
  void Start() {
    sock_.Open("peer0", true, 1);
    sock_.EnableTimestamps();
    thread_ = std::thread([this] {
      uint8_t buf[2048];
      while (!stop_) {
        if (!sock_.Wait(50)) continue;
        int64_t stamp;
        for (long n; (n = sock_.Read(buf, sizeof buf, &stamp)) >= 0;) {
          size_t p = cfm_offset(buf, size_t(n));
          if (p == 0 || size_t(n) < p + 10 || buf[p + 1] != 1) continue;
          uint16_t mep = uint16_t((buf[p + 8] << 8) | buf[p + 9]);
          std::lock_guard<std::mutex> lock(mutex_);
          arrivals_[mep].push_back(stamp);
        }
      }
    });
  }
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  // Largest |gap - period| between consecutive CCMs of `mep` that arrived
  // within [from, to] (CLOCK_REALTIME ns), in ms; the gap count by `*gaps`.
  double MaxDeviationMs(uint16_t mep, double period_ms, int64_t from, int64_t to, int *gaps) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto &a = arrivals_[mep];
    double worst = 0;
    *gaps = 0;
    for (size_t i = 1; i < a.size(); ++i) {
      if (a[i - 1] < from || a[i] > to) continue;
      ++*gaps;
      worst = std::max(worst, std::abs(double(a[i] - a[i - 1]) / 1e6 - period_ms));
    }
    return worst;
  }
  size_t CountAfter(uint16_t mep, int64_t from) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto &a = arrivals_[mep];
    return size_t(std::count_if(a.begin(), a.end(), [from](int64_t t) { return t >= from; }));
  }

 private:
  RawSocket sock_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::map<uint16_t, std::vector<int64_t>> arrivals_;
};

struct FloodFigures {
  std::string what;
  double sent_rate = 0;
  double dev_ms = 0;  // of the gaps between the daemon's CCMs
  int gaps = 0;
  double cmd_max_ms = 0;
  int cmd_count = 0, cmd_failed = 0;
  double lbm_after_ms = -1, cmd_after_ms = -1;  // -1: no answer within 1 s
  bool ccm_after = false;
};

// The peer blasts `frame` (with a fresh id when it is an LBM) for `seconds`
// while the monitor records the CCMs of the daemon's MEP 1 (one every
// `period_ms`) and a client times `showmd` every 100 ms.
FloodFigures flood(Daemon &d, CcmMonitor &monitor, double period_ms, const Frame &frame, const std::string &what,
                   double seconds) {
  FloodFigures fig;
  fig.what = what;
  std::atomic<bool> stop{false};
  std::atomic<long> sent{0};
  int64_t from = real_ns();
  std::thread blaster([&] {
    RawSocket tx;
    tx.Open("peer0", false);
    std::vector<Frame> frames(64, frame);
    std::vector<const Frame *> batch;
    for (auto &f : frames) batch.push_back(&f);
    for (uint32_t id = 0; !stop; id += 64) {
      if (frame[19] == 3) {
        for (size_t i = 0; i < frames.size(); ++i) put_be32(&frames[i][22], id + uint32_t(i));
      }
      sent += tx.SendBatch(batch);
    }
  });
  int64_t t0 = mono_ns(), end = t0 + int64_t(seconds * 1e9);
  while (mono_ns() < end) {
    double ms;
    d.Command("showmd", &ms, 1000);
    ++fig.cmd_count;
    if (ms < 0) {
      ++fig.cmd_failed;
    } else {
      fig.cmd_max_ms = std::max(fig.cmd_max_ms, ms);
    }
    sleep_ms(100);
  }
  stop = true;
  blaster.join();
  int64_t to = real_ns();
  fig.sent_rate = double(sent) / (double(mono_ns() - t0) / 1e9);
  fig.dev_ms = monitor.MaxDeviationMs(1, period_ms, from, to, &fig.gaps);

  // Afterwards: what was queued drains, then an LBM, a command and CCMs.
  sleep_ms(1000);
  int64_t after = real_ns();
  RawSocket sock;
  sock.Open("peer0", true, 2);
  int64_t sent_at = mono_ns();
  sock.Send(lbm(0xABCDEF01));
  uint8_t buf[2048];
  for (int64_t stop_at = sent_at + 1000000000; fig.lbm_after_ms < 0 && mono_ns() < stop_at && sock.Wait(100);) {
    for (long n; fig.lbm_after_ms < 0 && (n = sock.Read(buf, sizeof buf)) >= 0;) {
      uint32_t id;
      if (lb_id(buf, size_t(n), 2, &id) && id == 0xABCDEF01) fig.lbm_after_ms = double(mono_ns() - sent_at) / 1e6;
    }
  }
  d.Command("showmd", &fig.cmd_after_ms, 1000);
  sleep_ms(int(period_ms) * 3 / 2);
  fig.ccm_after = monitor.CountAfter(1, after) >= 1;
  return fig;
}

struct FloodRun {
  std::string tick;
  double period_ms = 0;
  double base_dev_ms = 0;  // without a flood
  int base_gaps = 0;
  std::vector<FloodFigures> floods;
};

// A daemon on the tick `tick` with one MEP whose MA's CCM interval is that
// tick (every MA of 1 s or less sends once a tick): its CCM gaps without a
// flood, then under a flood of LBMs and of malformed LBMs.
FloodRun flood_run(Daemon &d, const std::string &tick, double period_ms, double baseline_s, double flood_s) {
  FloodRun run;
  run.tick = tick;
  run.period_ms = period_ms;
  std::vector<std::string> args = {"-i", "wan0", "-e"};
  if (tick != "1s") {
    set_tick(tick);
    args.insert(args.end(), {"-t", "/var/tree"});
  }
  d.Start(args);
  d.Commands({"createmd 1 0 2 0 dom", std::string("createma 1 0 1 0 ma 3 ") + (period_ms < 1000 ? "30" : "31"),
              "createmep 1 0 1 0 1 0 1 0 100 0 1"});
  CcmMonitor monitor;
  monitor.Start();
  sleep_ms(int(baseline_s * 1000) + 500);
  int64_t now = real_ns();
  run.base_dev_ms = monitor.MaxDeviationMs(1, period_ms, now - int64_t(baseline_s * 1e9), now, &run.base_gaps);
  Frame bad = lbm(0);
  bad[26] = 3;  // a Data TLV first, its length (1500) running past the frame
  bad[27] = 0x05;
  bad[28] = 0xDC;
  run.floods.push_back(flood(d, monitor, period_ms, lbm(0), "LBMs", flood_s));
  run.floods.push_back(flood(d, monitor, period_ms, bad, "malformed LBMs", flood_s));
  monitor.Stop();
  d.Stop();
  return run;
}

}  // namespace

void scenario_flood(Run &run) {
  const bool q = run.opt.quick;
  const double flood_s = q ? 3 : 10, baseline_s = q ? 1.5 : 3;
  std::vector<FloodRun> runs;
  runs.push_back(flood_run(run.daemon, "1s", 1000, baseline_s + 1, flood_s));
  runs.push_back(flood_run(run.daemon, "100ms", 100, baseline_s, flood_s));

  Table &t = run.table;
  const Section s = Section::kFlood;
  for (const FloodRun &r : runs) {
    std::string goal = r.period_ms < 1000 ? "goal <= 20" : "goal <= 50";
    t.Add(s, "CCMs every " + r.tick + ", no flood: max deviation (ms)", fmt("%.1f", r.base_dev_ms),
          std::to_string(r.base_gaps) + " gaps");
    for (const FloodFigures &f : r.floods) {
      t.Add(s, "  flood of " + f.what + " (frames/s sent)", fmt("%.0f", f.sent_rate), "for the " + r.tick + " CCMs");
      t.Add(s, "    CCM gap: max deviation (ms)", fmt("%.1f", f.dev_ms), std::to_string(f.gaps) + " gaps, " + goal);
      t.Add(s, "    command latency, max (ms)", fmt("%.1f", f.cmd_max_ms),
            std::to_string(f.cmd_count) + " requests, " + std::to_string(f.cmd_failed) +
                " unserved in 1 s, goal <= 50");
      auto ms = [](double v) { return v < 0 ? std::string("none") : fmt("%.1f", v); };
      t.Add(s, "    1 s later: LBM round trip / command (ms)", ms(f.lbm_after_ms) + " / " + ms(f.cmd_after_ms),
            std::string("CCMs ") + (f.ccm_after ? "go on" : "STOPPED"));
    }
  }
}

}  // namespace bench
