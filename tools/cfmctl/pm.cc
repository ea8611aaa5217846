#include "cfmctl/pm.h"

#include <cstdio>
#include <map>

#include "cfmctl/files.h"

using cfmctl::list_dir;
using cfmctl::read_first_line;

namespace {

const char kUsage[] =
    "usage: cfmctl pm dm|slm|1dm start MD MA MEP TARGET [--count N] [--period 100|1000|10000]\n"
    "                                 [--priority 0..7] [--test-id N]\n"
    "       cfmctl pm dm|slm|1dm stop MD MA MEP\n"
    "       cfmctl [-t DIR] pm show [--json]\n"
    "TARGET is a MAC address or a remote MEPID the MEP's MA has learnt; --count 0 runs\n"
    "until stopped; without --test-id a loss session gets a test ID no running session uses.\n"
    "The daemon must run with -y.\n";

int usage() {
  fputs(kUsage, stderr);
  return 2;
}

int start(const std::vector<std::string> &args, const std::string &kind,
          const std::function<int(const std::string &)> &send) {
  if (args.size() < 6) return usage();
  std::map<std::string, std::string> opt = {
      {"--count", "10"}, {"--period", "1000"}, {"--priority", "0"}, {"--test-id", ""}};
  for (size_t i = 6; i < args.size(); i += 2) {
    if (opt.count(args[i]) == 0 || i + 1 >= args.size()) return usage();
    opt[args[i]] = args[i + 1];
  }
  std::string request = "pmstart " + kind;
  for (size_t i = 2; i < 6; ++i) request += " " + args[i];
  for (const char *name : {"--count", "--period", "--priority"}) request += " " + opt[name];
  // Without a test ID the daemon gives a loss session one of its own.
  if (!opt["--test-id"].empty()) request += " " + opt["--test-id"];
  return send(request);
}

// Rows DIR/runtime/cfm/pm/<kind>:<n>/<field>, printed one per line.
void print_rows(const std::string &tree) {
  std::string base = tree + "/runtime/cfm/pm/";
  std::map<std::string, std::map<std::string, std::string>> rows;
  for (const std::string &dir : list_dir(base)) {
    for (const std::string &file : list_dir(base + dir)) rows[dir][file] = read_first_line(base + dir + "/" + file);
  }
  for (const auto &[name, fields] : rows) {
    printf("%s:", name.c_str());
    for (const auto &[key, value] : fields) printf(" %s=%s", key.c_str(), value.c_str());
    printf("\n");
  }
}

}  // namespace

int cfmctl_pm(const std::vector<std::string> &args, const std::string &tree, bool json,
              const std::function<int(const std::string &)> &send) {
  for (const std::string &a : args) json = json || a == "--json";
  if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) return fputs(kUsage, stdout), 0;
  if (!args.empty() && args[0] == "show") {
    // The JSON document holds what the tree holds: it is printed alone.
    int status = send(json ? "pmshow json" : "pmshow");
    if (status == 0 && !json && !tree.empty()) print_rows(tree);
    return status;
  }
  if (args.size() < 2 || (args[0] != "dm" && args[0] != "slm" && args[0] != "1dm")) return usage();
  if (args[1] == "start") return start(args, args[0], send);
  if (args[1] == "stop" && args.size() == 5) {
    return send("pmstop " + args[0] + " " + args[2] + " " + args[3] + " " + args[4]);
  }
  return usage();
}
