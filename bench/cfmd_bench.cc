// cfmd_bench: measures cfmd on a private veth link and prints one table.
//
// It enters its own network, mount and IPC namespaces, mounts a tmpfs over
// /var, makes the pair wan0 (the daemon's side) <-> peer0 (the load
// generator's side) and runs the scenarios (one file each, the shared part
// in harness.{h,cc}):
//   loopback    LBM -> LBR against a bare reflector: rate, round trip, CPU
//   idle        one MEP sending 1 s CCMs: CPU and memory
//   ccm_ingest  CCMs from 64 remote MEPs at rising rates, loss and CPU
//   tick        the 10 ms tick with 64 remote MEPs learnt
//   flood       CCM and command steadiness while the peer floods the link
//   ordinary    CPU per non-CFM frame, untagged and tagged
//   log         log bytes per double-tagged CFM frame forwarded to the LAN
// Needs root. Prints figures; decides nothing.
//   usage: cfmd_bench [--quick] [--only NAME,...] [-b PATH_TO_CFMD]
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <thread>

#include "harness.h"

namespace {

using bench::Run;

struct Scenario {
  const char *name;
  void (*run)(Run &);
};

// In the order they run.
constexpr Scenario kScenarios[] = {
    {"loopback", bench::scenario_loopback}, {"idle", bench::scenario_idle},
    {"ccm_ingest", bench::scenario_ccm_ingest}, {"tick", bench::scenario_tick},
    {"flood", bench::scenario_flood},       {"ordinary", bench::scenario_ordinary},
    {"log", bench::scenario_log},
};

void usage() {
  printf("usage: cfmd_bench [--quick] [--only NAME,...] [-b PATH_TO_CFMD]\n"
         "  Measures cfmd against a bare reflector on a private veth pair (needs root).\n"
         "  --quick        shorter phases (a smoke run; figures are rougher)\n"
         "  --only NAMES   run only these scenarios (comma separated) of:\n"
         "                ");
  for (const Scenario &s : kScenarios) printf(" %s", s.name);
  printf("\n  -b PATH        the daemon to measure (default %s)\n", CFMD_DEFAULT_BINARY);
}

bool known(const std::string &name) {
  for (const Scenario &s : kScenarios) {
    if (name == s.name) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char **argv) {
  bench::Options opt;
  std::set<std::string> only;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--quick") {
      opt.quick = true;
    } else if (a == "-b" && i + 1 < argc) {
      opt.binary = argv[++i];
    } else if (a == "--only" && i + 1 < argc) {
      std::istringstream names(argv[++i]);
      for (std::string name; std::getline(names, name, ',');) {
        if (!known(name)) bench::die("no scenario \"" + name + "\" (see --help)");
        only.insert(name);
      }
    } else {
      usage();
      return a == "-h" || a == "--help" ? 0 : 2;
    }
  }
  if (access(opt.binary.c_str(), X_OK) != 0) bench::die("no daemon binary at " + opt.binary + " (use -b)");
  char resolved[PATH_MAX];
  if (realpath(opt.binary.c_str(), resolved) != nullptr) opt.binary = resolved;
  signal(SIGPIPE, SIG_IGN);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  bench::enter_lab();  // before any thread exists

  // Figures depend on what else runs: the load average is printed with them.
  printf("cfmd_bench: %s, %s run, %u cores online, load average %s", opt.binary.c_str(),
         opt.quick ? "quick" : "full", std::thread::hardware_concurrency(),
         bench::read_file("/proc/loadavg").c_str());
  fflush(stdout);

  bench::Daemon daemon(opt.binary);
  bench::Table table;
  Run run{opt, daemon, table};
  for (const Scenario &s : kScenarios) {
    if (!only.empty() && only.count(s.name) == 0) continue;
    s.run(run);
    fprintf(stderr, "cfmd_bench: %s done\n", s.name);
  }
  table.Print();
  printf("\nload average at the end: %s", bench::read_file("/proc/loadavg").c_str());
  return 0;
}
