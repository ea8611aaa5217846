#include "named.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "conffile.h"
#include "status.h"

namespace cfmctl {

namespace {

constexpr long kMax32 = kMaxIndex;

bool all_digits(const std::string &text) {
  if (text.empty() || text.size() > 10) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::string join(const std::vector<const char *> &names) {
  std::string all;
  for (const char *name : names) all += (all.empty() ? "" : "|") + std::string(name);
  return all;
}

// The daemon splits requests on spaces: a text value must be one word.
bool one_word(Args &args, const char *option, const std::string &value) {
  if (!value.empty() && value.find_first_of(" \n") == std::string::npos) return true;
  return args.fail(std::string(option) + " '" + value + "' must be one word (no spaces)");
}

}  // namespace

// Options that take no value; every other --option takes the next word.
bool is_flag(const std::string &word) {
  static const char *const kFlags[] = {"--fdb-only", "--json", "--check", "--replace"};
  for (const char *f : kFlags) {
    if (word == f) return true;
  }
  return false;
}

Args::Args(const std::string &command, const std::vector<std::string> &words) : command_(command) {
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string &w = words[i];
    if (w.size() < 3 || w.compare(0, 2, "--") != 0) {
      positional_.push_back(w);
      continue;
    }
    if (is_flag(w)) {
      options_.emplace_back(w, "");
    } else if (i + 1 < words.size()) {
      options_.emplace_back(w, words[++i]);
    } else {
      fail(w + " needs a value");
    }
  }
}

const std::string &Args::word(size_t i) const {
  static const std::string kNone;
  return i < positional_.size() ? positional_[i] : kNone;
}

bool Args::fail(const std::string &message) {
  if (error_.empty()) error_ = message;
  return false;
}

long Args::number(size_t i, const char *what, long lo, long hi) {
  const std::string &w = word(i);
  if (i >= positional_.size()) return fail(std::string("missing ") + what), -1;
  long value = all_digits(w) ? strtol(w.c_str(), nullptr, 10) : -1;
  if (value < lo || value > hi) {
    return fail(std::string(what) + " '" + w + "' is not a number from " + std::to_string(lo) + " to " +
                std::to_string(hi)),
           -1;
  }
  return value;
}

bool Args::has(const char *option) {
  read_.push_back(option);
  for (const auto &[name, value] : options_) {
    if (name == option) return true;
  }
  return false;
}

std::string Args::text(const char *option, bool needed) {
  for (const auto &[name, value] : options_) {
    if (name == option) {
      read_.push_back(option);
      return value;
    }
  }
  read_.push_back(option);
  if (needed) fail(std::string("missing ") + option);
  return "";
}

long Args::number(const char *option, long lo, long hi, long absent) {
  if (!has(option)) return absent;
  std::string w = text(option, true);
  long value = all_digits(w) ? strtol(w.c_str(), nullptr, 10) : -1;
  if (value < lo || value > hi) {
    return fail(std::string(option) + " '" + w + "' is not a number from " + std::to_string(lo) + " to " +
                std::to_string(hi)),
           absent;
  }
  return value;
}

long Args::choice(const char *option, const std::vector<const char *> &names, const std::vector<long> &codes) {
  if (!has(option)) return -1;
  std::string w = text(option, true);
  for (size_t i = 0; i < names.size(); ++i) {
    if (w == names[i]) return codes[i];
  }
  return fail(std::string(option) + " '" + w + "' is not one of " + join(names)), -1;
}

bool Args::mac(const char *option, std::string *out) {
  if (!has(option)) return false;
  *out = text(option, true);
  unsigned b[6];
  char end;
  if (out->size() != 17 ||
      sscanf(out->c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &end) != 6) {
    return fail(std::string(option) + " '" + *out + "' is not a MAC address aa:bb:cc:dd:ee:ff");
  }
  return true;
}

bool Args::finish(size_t positional_max) {
  for (const auto &[name, value] : options_) {
    bool known = false;
    for (const std::string &r : read_) known = known || r == name;
    if (!known) fail("unknown option " + name + " for '" + command_ + " " + word(0) + "'");
  }
  if (positional_.size() > positional_max) fail("unexpected word '" + positional_[positional_max] + "'");
  return error_.empty();
}

const std::vector<const char *> kMdFormats = {"none", "dnslikename", "macaddressanduint", "charstring"};
const std::vector<const char *> kMaFormats = {"primaryvid", "charstring", "unsignedint16", "rfc2865vpnid"};
const std::vector<const char *> kMhf = {"none", "default"};
const std::vector<const char *> kIntervals = {"10ms", "100ms", "1s", "10s", "1min", "10min"};
const std::vector<const char *> kAlarms = {"alldef", "macremerrxcon", "remerrxcon", "errxcon", "xcon", "noxcon"};

namespace {

// Codes of the daemon's command table for the values by name.
const std::vector<long> kFormatCodes = {11, 12, 13, 14};
const std::vector<long> kIntervalCodes = {29, 30, 31, 32, 33, 34};
const std::vector<const char *> kDirections = {"down", "up"};
const std::vector<const char *> kOnOff = {"on", "off", "yes", "no"};

std::string num(long n) { return std::to_string(n); }

// "create|config|delete|show" and the like: the word at position 0.
bool sub(Args &args, const std::vector<const char *> &allowed) {
  for (const char *a : allowed) {
    if (args.word(0) == a) return true;
  }
  return args.fail(args.word(0).empty() ? "missing " + join(allowed)
                                        : "'" + args.word(0) + "' is not one of " + join(allowed));
}

// The eleven key words of a MEP from MD MA MEPID at positions 1..3 and
// --port, --vid, --direction; the direction codes differ by command.
std::string mep_key(Args &args, long down, long up) {
  long md = args.number(1, "MD index", 0, kMax32);
  long ma = args.number(2, "MA index", 0, kMax32);
  long mepid = args.number(3, "MEPID", 1, 8191);
  long port = args.number("--port", 0, 255, 1);
  long vid = args.number("--vid", 0, 4095, 0);
  long dir = args.choice("--direction", kDirections, {down, up});
  return num(md) + " md " + num(ma) + " ma " + num(mepid) + " port " + num(port) + " vid " + num(vid) + " dir " +
         num(dir < 0 ? down : dir);
}

void add_pair(std::string *request, long code, long value) {
  if (value >= 0) *request += " " + num(code) + " " + num(value);
}

void add_text(Args &args, std::string *request, long code, const char *option, bool needed) {
  std::string value = args.text(option, needed);
  if (!value.empty() && one_word(args, option, value)) *request += " " + num(code) + " " + value;
}

void build_md(Args &args, NamedRun *run) {
  if (!sub(args, {"create", "config", "delete", "show"})) return;
  const std::string &s = args.word(0);
  if (s == "show") {
    run->requests = {"showmd"};
    return args.finish(1), void();
  }
  long md = args.number(1, "MD index", 0, kMax32);
  if (s == "delete") {
    run->requests = {"deletemd " + num(md)};
    return args.finish(2), void();
  }
  std::string request;
  long level = args.number("--level", 0, 7, -1);
  if (s == "create") {
    std::string name = args.text("--name", true);
    if (level < 0) args.fail("missing --level");
    one_word(args, "--name", name);
    request = "createmd " + num(md) + " level " + num(level) + " name " + name;
  } else {
    request = "configmd " + num(md);
    add_pair(&request, 0, level);
    add_text(args, &request, 4, "--name", false);
  }
  add_pair(&request, 1, args.choice("--format", kMdFormats, kFormatCodes));
  add_pair(&request, 2, args.choice("--mhf", kMhf, {21, 22}));
  run->requests = {request};
  args.finish(2);
}

void build_ma(Args &args, NamedRun *run) {
  if (!sub(args, {"create", "config", "delete", "show"})) return;
  const std::string &s = args.word(0);
  if (s == "show") {
    run->requests = {"showma"};
    return args.finish(1), void();
  }
  long md = args.number(1, "MD index", 0, kMax32);
  long ma = args.number(2, "MA index", 0, kMax32);
  std::string head = num(md) + " ma " + num(ma);
  std::string request;
  if (s == "delete") {
    request = "deletema " + head;
  } else if (s == "create") {
    std::string name = args.text("--name", true);
    one_word(args, "--name", name);
    request = "createma " + head + " name " + name;
  } else {
    request = "configma " + head;
    add_text(args, &request, 2, "--name", false);
  }
  if (s != "delete") {
    add_pair(&request, 1, args.choice("--format", kMaFormats, kFormatCodes));
    add_pair(&request, 3, args.choice("--interval", kIntervals, kIntervalCodes));
  }
  run->requests = {request};
  args.finish(3);
}

// The options of configmep that `mep config` takes by name.
void add_mep_settings(Args &args, std::string *request) {
  add_pair(request, 1, args.choice("--active", kOnOff, {110, 120, 110, 120}));
  add_pair(request, 2, args.choice("--ccm", kOnOff, {21, 22, 21, 22}));
  add_pair(request, 3, args.number("--priority", 0, 7, -1));
  add_pair(request, 4, args.choice("--alarm-priority", kAlarms, {41, 42, 43, 44, 45, 46}));
}

const char *const kBlocks[] = {"ccm", "lt", "lb"};

void build_mep(Args &args, NamedRun *run) {
  if (!sub(args, {"create", "config", "delete", "show"})) return;
  const std::string &s = args.word(0);
  if (s == "show") {
    std::string request = "showmep";
    for (int b = 0; b < 3; ++b) {
      if (args.word(1) == kBlocks[b]) request += " " + num(b + 1);
    }
    if (args.count() > 1 && request == "showmep") args.fail("'" + args.word(1) + "' is not one of ccm|lt|lb");
    run->requests = {request};
    return args.finish(2), void();
  }
  if (s == "config") {
    std::string request = "configmep " + mep_key(args, 100, 200) + " options";
    add_mep_settings(args, &request);
    run->requests = {request};
  } else {
    run->requests = {(s == "create" ? "createmep " : "deletemep ") + mep_key(args, 1, 2)};
  }
  args.finish(4);
}

// lb start|stop, lt start MD MA MEPID: lbstart (configmep refused while a
// run goes on) or configmep with the run's options, or lbstop. A linktrace
// is one LTM sent at once: there is nothing to stop.
void build_run(Args &args, NamedRun *run, bool loopback) {
  if (!(loopback ? sub(args, {"start", "stop"}) : sub(args, {"start"}))) return;
  bool start = args.word(0) == "start";
  std::string key = mep_key(args, 100, 200);
  std::string request = (loopback ? (start ? "lbstart " : "lbstop ") : "configmep ") + key;
  if (start) {
    request += " options";
    std::string mac;
    bool by_mac = args.mac("--target", &mac);
    long mepid = args.number("--mepid", 1, 8191, -1);
    if (by_mac == (mepid >= 0)) args.fail("give one of --target MAC and --mepid N");
    if (loopback) {
      request += by_mac ? " 6 " + mac + " 14 0" : " 13 " + num(mepid) + " 14 1";
      add_pair(&request, 7, args.number("--count", 1, kMax32, 1));
      add_pair(&request, 8, args.number("--priority", 0, 7, -1));
      add_text(args, &request, 15, "--data", false);
    } else {
      request += by_mac ? " 10 " + mac + " 17 0" : " 16 " + num(mepid) + " 17 1";
      add_pair(&request, 11, args.number("--ttl", 1, 255, -1));
      add_pair(&request, 9, args.has("--fdb-only") ? 92 : 91);
    }
  }
  if (start) add_pair(&request, loopback ? 5 : 12, loopback ? 51 : 121);
  run->requests = {request};
  args.finish(4);
}

void build_lb(Args &args, NamedRun *run) { build_run(args, run, true); }
void build_lt(Args &args, NamedRun *run) { build_run(args, run, false); }

void build_show(Args &args, NamedRun *run) {
  static const std::vector<std::pair<const char *, const char *>> kShows = {
      {"md", "showmd"},          {"ma", "showma"},       {"mep", "showmep"},         {"rmep", "showremotemep"},
      {"ltr", "showltr"},        {"lbr", "showmep 3"},   {"defaults", "showdefault 1"},
      {"status", "showdefault 2"}};
  std::vector<const char *> names;
  for (const auto &[name, request] : kShows) {
    names.push_back(name);
    if (args.word(0) == name) run->requests = {request};
  }
  if (args.word(0) == "running-config") {
    run->local = run_running_config;
    return args.finish(1), void();
  }
  if (!sub(args, names)) return;
  if (args.word(0) == "mep") {
    NamedRun mep;
    Args again("mep", {"show", args.word(1)});
    if (args.count() > 1) build_mep(again, &mep);
    if (!again.error().empty()) args.fail(again.error());
    if (!mep.requests.empty()) run->requests = mep.requests;
    return args.finish(2), void();
  }
  args.finish(1);
}

void build_clear(Args &args, NamedRun *run) {
  static const std::vector<const char *> kClears = {"rmep", "ltr", "lbr", "counters"};
  static const char *const kRequests[] = {"clearremotemep", "clearltr", "clearlbr", "clearcnt"};
  if (!sub(args, kClears)) return;
  for (size_t i = 0; i < kClears.size(); ++i) {
    if (args.word(0) == kClears[i]) run->requests = {kRequests[i]};
  }
  args.finish(1);
}

void build_debug(Args &args, NamedRun *run) {
  if (!sub(args, {"on", "off"})) return;
  run->requests = {args.word(0) == "on" ? "debugon" : "debugoff"};
  args.finish(1);
}

void build_defaults(Args &args, NamedRun *run) {
  long level = args.number("--level", 0, 7, -1);
  long mhf = args.choice("--mhf", kMhf, {1, 2});
  if (level < 0) args.fail("missing --level");
  run->requests = {"default " + num(level) + " mhf " + num(mhf < 0 ? 0 : mhf)};
  args.finish(0);
}

void build_apply(Args &args, NamedRun *run) {
  args.has("--check");
  args.has("--replace");
  args.number("--wait", 0, kMaxWait, 0);
  run->local = run_apply;
  args.finish(args.count());
}

void build_config(Args &args, NamedRun *run) {
  if (!sub(args, {"save"})) return;
  run->local = run_config_save;
  args.finish(2);
}

void build_status(Args &args, NamedRun *) {
  args.has("--json");
  args.finish(0);
}

int run_watch_command(const Client &client, Args &args) { return run_watch(client, args.has("--json")); }

}  // namespace

const std::vector<NamedCommand> &named_commands() {
  static const std::vector<NamedCommand> kCommands = {
      {"md",
       "md create MD --level 0..7 --name NAME [--format none|dnslikename|macaddressanduint|charstring]\n"
       "          [--mhf none|default]\n"
       "md config MD [--level N] [--name NAME] [--format F] [--mhf M]\n"
       "md delete MD\n"
       "md show\n",
       build_md, nullptr},
      {"ma",
       "ma create MD MA --name NAME [--format primaryvid|charstring|unsignedint16|rfc2865vpnid]\n"
       "          [--interval 10ms|100ms|1s|10s|1min|10min]\n"
       "ma config MD MA [--name NAME] [--format F] [--interval I]\n"
       "ma delete MD MA\n"
       "ma show\n",
       build_ma, nullptr},
      {"mep",
       "mep create MD MA MEPID [--port 0..255 (1)] [--vid 0..4095 (0)] [--direction down|up (down)]\n"
       "mep config MD MA MEPID [key options] [--active yes|no] [--ccm on|off] [--priority 0..7]\n"
       "           [--alarm-priority alldef|macremerrxcon|remerrxcon|errxcon|xcon|noxcon]\n"
       "mep delete MD MA MEPID [key options]\n"
       "mep show [ccm|lt|lb]\n",
       build_mep, nullptr},
      {"lb",
       "lb start MD MA MEPID [key options] --target MAC|--mepid N [--count N (1)] [--priority 0..7]\n"
       "         [--data WORD]\n"
       "lb stop MD MA MEPID [key options]\n"
       "  start is refused while the MEP's run goes on; stop ends it at once, its counts stay.\n"
       "  cfmd answers LBMs at MD levels 1 and 2 only: towards another cfmd use an MD of\n"
       "  level 1 or 2 (another station must answer at the MD's level).\n",
       build_lb, nullptr},
      {"lt",
       "lt start MD MA MEPID [key options] --target MAC|--mepid N [--ttl 1..255] [--fdb-only]\n"
       "  one LTM, sent at once (nothing to stop); the replies: show ltr\n",
       build_lt, nullptr},
      {"show", "show md|ma|mep [ccm|lt|lb]|rmep|ltr|lbr|defaults|status|running-config\n", build_show, nullptr},
      {"clear", "clear rmep|ltr|lbr|counters\n", build_clear, nullptr},
      {"debug", "debug on|off\n", build_debug, nullptr},
      {"defaults", "defaults --level 0..7 [--mhf none|default]\n", build_defaults, nullptr},
      {"status", "status [--json]      CFM, every MEP, its defects, remote MEPs and last runs\n", build_status,
       run_status},
      {"apply",
       "apply [--check] [--replace] [--wait S] [FILE...]\n"
       "  sends each line of the files (default /etc/cfmd/cfmd.conf, then /etc/cfmd/cfmd.d/*.conf);\n"
       "  --check checks the lines only; --replace makes the daemon's configuration equal to the\n"
       "  files; --wait waits up to S s until the daemon answers\n",
       build_apply, nullptr},
      {"config", "config save [FILE]   writes show running-config to FILE (default /etc/cfmd/cfmd.conf)\n",
       build_config, nullptr},
      {"watch", "watch [--json]       events as they happen, one a line, until interrupted\n", build_status,
       run_watch_command},
  };
  return kCommands;
}

const NamedCommand *find_named(const std::string &word) {
  for (const NamedCommand &c : named_commands()) {
    if (word == c.word) return &c;
  }
  return nullptr;
}

int run_named(const Client &client, const NamedCommand &command, const std::vector<std::string> &words) {
  Args args(command.word, words);
  NamedRun run;
  command.build(args, &run);
  if (!args.error().empty()) {
    fprintf(stderr, "cfmctl %s: %s\nusage:\n%s", command.word, args.error().c_str(), command.usage);
    return kUsage;
  }
  if (command.local != nullptr) return command.local(client, args);
  if (run.local != nullptr) return run.local(client, args);
  int worst = kOk;
  for (const std::string &request : run.requests) {
    int status = run_and_print(client, request);
    if (status > worst) worst = status;
    if (status >= kNoDaemon) break;
  }
  return worst;
}

}  // namespace cfmctl
