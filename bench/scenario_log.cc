// Log bytes per forwarded frame: double-tagged LTMs from the WAN are
// forwarded towards the LAN, and the daemon prints its forward text for
// each, debug off or on. Its standard output goes to a file; the growth of
// that file per frame is what an operator sizes the log for.
#include <algorithm>

#include "harness.h"

namespace bench {
namespace {

constexpr uint16_t kOuterVid = 300, kInnerVid = 400;
const char kForwardText[] = "CFM: Forward the CFM packet to LAN because  VID/opcode not define";

// An LTM at level 5 behind two 802.1Q tags, to the level's LTM group address.
Frame double_tagged_ltm(uint32_t id) {
  Frame f = header({0x01, 0x80, 0xC2, 0x00, 0x00, 0x38 + 5}, kPeerMac, 0, kOuterVid);
  f.erase(f.end() - 2, f.end());  // the inner tag goes before the CFM EtherType
  f.insert(f.end(), {0x81, 0x00, uint8_t(kInnerVid >> 8), uint8_t(kInnerVid), 0x89, 0x02});
  f.insert(f.end(), {5 << 5, 5, 0x80, 17, 0, 0, 0, 0, 64});
  put_be32(&f[f.size() - 5], id);
  f.insert(f.end(), kPeerMac.begin(), kPeerMac.end());
  f.insert(f.end(), kWanMac.begin(), kWanMac.end());
  f.push_back(0);  // End TLV
  f.resize(std::max<size_t>(f.size(), 64), 0);
  return f;
}

// Waits until the daemon's output stops growing for 300 ms (at most 5 s).
size_t settled_size(const Daemon &d) {
  size_t last = d.OutputSize();
  for (int quiet = 0, i = 0; quiet < 3 && i < 50; ++i) {
    sleep_ms(100);
    size_t now = d.OutputSize();
    quiet = now == last ? quiet + 1 : 0;
    last = now;
  }
  return last;
}

}  // namespace

void scenario_log(Run &run) {
  const long count = run.opt.quick ? 2000 : 20000;
  Daemon &d = run.daemon;
  d.Start({"-i", "wan0", "-e"});
  d.Commands({"createmd 1 0 5 0 md5", "createma 1 0 1 0 ma 3 31", "createmep 1 0 1 0 5 0 1 0 0 0 1"});
  size_t before = settled_size(d);
  std::vector<Frame> frames;
  for (uint32_t id = 0; id < 64; ++id) frames.push_back(double_tagged_ltm(id));
  RawSocket tx;
  tx.Open("peer0", false);
  int64_t cpu0 = d.Cpu();
  long sent = paced_send(tx, frames, 20000, double(count) / 20000);
  size_t after = settled_size(d);
  double cpu_us = double(d.Cpu() - cpu0) / 1e3;
  std::string added = read_file(d.OutputPath()).substr(before, after - before);
  d.Stop();
  int lines = count_of(added, kForwardText);

  Table &t = run.table;
  const Section s = Section::kLog;
  double bytes = double(added.size());
  t.Add(s, "log bytes per forwarded frame", lines > 0 ? fmt("%.1f", bytes / lines) : std::string("-"),
        std::to_string(lines) + " forward texts for " + std::to_string(sent) + " double-tagged LTMs, " +
            fmt("%.0f bytes", bytes) + (sent > 0 ? fmt(", %.2f us CPU per frame", cpu_us / double(sent)) : ""));
}

}  // namespace bench
