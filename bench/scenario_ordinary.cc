// Ordinary traffic: with the daemon running as in the idle run, the peer
// sends 64-byte IPv4/UDP frames to the daemon's side at a paced rate, once
// all untagged, once all behind an 802.1Q tag. The figure is the daemon's
// CPU per frame sent, less its idle CPU over the same time: what a router
// pays in this daemon for traffic that is none of its business.
#include <algorithm>
#include <cstdlib>

#include "harness.h"

namespace bench {
namespace {

constexpr double kRate = 100000;  // frames/s asked
constexpr uint16_t kVid = 200;    // of the tagged frames
constexpr size_t kFrameSize = 64;

uint16_t ip_checksum(const uint8_t *p, size_t n) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < n; i += 2) sum += uint32_t((p[i] << 8) | p[i + 1]);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return uint16_t(~sum);
}

// A UDP datagram 192.0.2.2:`port` -> 192.0.2.1:9 from the peer to the
// daemon's side, the whole frame 64 bytes (FCS not counted).
Frame udp_frame(bool tagged, uint16_t port) {
  Frame f(kFrameSize, 0);
  std::copy(kWanMac.begin(), kWanMac.end(), f.begin());
  std::copy(kPeerMac.begin(), kPeerMac.end(), f.begin() + 6);
  size_t ip = tagged ? 18 : 14;
  if (tagged) f[12] = 0x81, f[14] = uint8_t(kVid >> 8), f[15] = uint8_t(kVid);
  f[ip - 2] = 0x08;  // IPv4
  uint16_t ip_len = uint16_t(kFrameSize - ip), udp_len = uint16_t(ip_len - 20);
  const uint8_t ip_header[20] = {0x45, 0, uint8_t(ip_len >> 8), uint8_t(ip_len), uint8_t(port >> 8), uint8_t(port),
                                 0x40, 0, 64, 17, 0, 0, 192, 0, 2, 2, 192, 0, 2, 1};
  std::copy(ip_header, ip_header + 20, f.begin() + long(ip));
  uint16_t sum = ip_checksum(&f[ip], 20);
  f[ip + 10] = uint8_t(sum >> 8);
  f[ip + 11] = uint8_t(sum);
  const uint8_t udp[8] = {uint8_t(port >> 8), uint8_t(port), 0, 9, uint8_t(udp_len >> 8), uint8_t(udp_len), 0, 0};
  std::copy(udp, udp + 8, f.begin() + long(ip + 20));
  return f;
}

long rx_packets() { return strtol(read_file("/sys/class/net/wan0/statistics/rx_packets").c_str(), nullptr, 10); }

struct Traffic {
  long sent = 0, received = 0;  // by the peer / on wan0
  double rate = 0;              // frames/s sent
  double raw_us = 0, net_us = 0;  // daemon CPU per frame, with and without its idle share
};

Traffic send_ordinary(Daemon &d, bool tagged, double seconds, double idle_ns_per_s) {
  std::vector<Frame> frames;
  for (uint16_t port = 0; port < 16; ++port) frames.push_back(udp_frame(tagged, uint16_t(40000 + port)));
  RawSocket tx;
  tx.Open("peer0", false);
  Traffic t;
  long rx0 = rx_packets();
  int64_t cpu0 = d.Cpu(), s0 = mono_ns();
  t.sent = paced_send(tx, frames, kRate, seconds);
  t.rate = double(t.sent) / (double(mono_ns() - s0) / 1e9);
  sleep_ms(200);  // what is queued is read
  double cpu = double(d.Cpu() - cpu0), elapsed_s = double(mono_ns() - s0) / 1e9;
  t.received = rx_packets() - rx0;
  if (t.sent > 0) {
    t.raw_us = cpu / 1e3 / double(t.sent);
    t.net_us = (cpu - idle_ns_per_s * elapsed_s) / 1e3 / double(t.sent);
    if (t.net_us < 0 && t.net_us > -0.0005) t.net_us = 0;  // no "-0.000"
  }
  return t;
}

}  // namespace

void scenario_ordinary(Run &run) {
  const double seconds = run.opt.quick ? 1 : 3;
  Daemon &d = run.daemon;
  d.Start({"-i", "wan0", "-e"});
  d.Commands({"createmd 1 0 5 0 md5", "createma 1 0 1 0 ma 3 31", "createmep 1 0 1 0 5 0 1 0 0 0 1"});
  sleep_ms(1000);
  int64_t c0 = d.Cpu(), t0 = mono_ns();
  sleep_ms(int(seconds * 1000));
  double idle_ns_per_s = double(d.Cpu() - c0) / (double(mono_ns() - t0) / 1e9);
  Traffic plain = send_ordinary(d, false, seconds, idle_ns_per_s);
  Traffic tagged = send_ordinary(d, true, seconds, idle_ns_per_s);
  d.Stop();

  Table &t = run.table;
  const Section s = Section::kOrdinary;
  t.Add(s, "ordinary traffic, untagged / tagged (frames/s)", fmt("%.0f", plain.rate) + " / " + fmt("%.0f", tagged.rate),
        fmt("%.0f/s asked, 64-byte IPv4/UDP", kRate) + fmt(", VID %.0f", kVid) +
            fmt(", %.0f s each", seconds));
  for (const Traffic *x : {&plain, &tagged}) {
    t.Add(s, std::string("  ") + (x == &plain ? "untagged" : "tagged") + ": daemon CPU per frame (us)",
          fmt("%.3f", x->net_us),
          fmt("%.3f raw, ", x->raw_us) + fmt("idle %.1f us/s less; ", idle_ns_per_s / 1e3) +
              std::to_string(x->received) + " of " + std::to_string(x->sent) + " on wan0; goal <= 0.05");
  }
}

}  // namespace bench
