// cfmctl: command-line front end of cfmd's command socket.
//
//   cfmctl [OPTIONS] COMMAND-WORD ARG...     one of the daemon's 32 command
//                                            words: sent as it stands
//   cfmctl [OPTIONS] md|ma|mep|lb|lt|show|clear|debug|defaults ...
//                                            named commands, checked here
//   cfmctl [OPTIONS] status [--json]         the operator's first screen
//   cfmctl [OPTIONS] -t DIR --export KIND [--json]
//   cfmctl help [WORD]
//
// A request is its words joined by single spaces, with no newline; the
// daemon runs it, writes the command's report back on the connection and
// closes it. cfmctl prints the report; its exit status says whether the
// daemon refused (1), the words were wrong (2), no daemon answered (3) or
// the answer did not come in time (4).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cfmctl/client.h"
#include "cfmctl/export.h"
#include "cfmctl/named.h"
#include "cfmctl/pm.h"
#include "cli/mep_options.h"

using namespace cfmctl;

namespace {

// The daemon's command words with their arguments: positions count from 1
// after the word; "skip" is a position that must be sent but is not read.
struct RawHelp {
  const char *word;
  const char *text;
};

const RawHelp kRawHelp[] = {
    {"enable", "turn CFM on"},
    {"disable", "turn CFM off"},
    {"default", "N skip N: 1 default MD level; 3 MHF creation (1 none, 2 default)"},
    {"showdefault", "N: 1 shows the defaults, 2 the CFM status"},
    {"createmd", "N skip N skip T [code value]...: 1 MD index; 3 level; 5 name; options: 1 format\n"
                 "  (11 none, 12 dnslikename, 13 macaddressanduint, 14 charstring), 2 MHF creation\n"
                 "  (21 none, 22 default), 4 name"},
    {"configmd", "N [code value]...: 1 MD index; options: 0 level, 1 format (11..14), 2 MHF creation\n"
                 "  (21, 22), 4 name"},
    {"showmd", "list the MDs"},
    {"deletemd", "N: 1 MD index (refused while it has MEPs or MAs)"},
    {"createma", "N skip N skip T [code value]...: 1 MD index; 3 MA index; 5 name; options: 1 format\n"
                 "  (11 primaryvid, 12 charstring, 13 unsignedint16, 14 rfc2865vpnid), 2 name,\n"
                 "  3 CCM interval (29 10ms, 30 100ms, 31 1s, 32 10s, 33 1min, 34 10min)"},
    {"configma", "N skip N [code value]...: 1 MD index; 3 MA index; options as for createma"},
    {"showma", "list the MAs"},
    {"deletema", "N skip N: 1 MD index; 3 MA index (refused while it has MEPs)"},
    {"createmep", "N skip N skip N skip N skip N skip N: 1 MD; 3 MA; 5 MEPID; 7 port; 9 VID;\n"
                  "  11 direction (1 Down, 2 Up)"},
    {"configmep", "N skip N skip N skip N skip N skip N skip [code value]...: key as createmep but\n"
                  "  11 direction is 100 Down or 200 Up; options from 13:"},
    {"showmep", "[N]: list the MEPs; 1 adds the CCM block, 2 linktrace, 3 loopback"},
    {"deletemep", "N skip N skip N skip N skip N skip N: key as createmep"},
    {"showremotemep", "list the remote MEPs"},
    {"clearremotemep", "empty the remote-MEP database"},
    {"showltr", "list the linktrace replies"},
    {"clearltr", "empty the linktrace replies (takes 3 s)"},
    {"clearlbr", "delete the exported loopback rows"},
    {"clearcnt", "zero every MEP's counters (takes 1 s)"},
    {"runtime", "N: 1 selects one value (1..22) printed per MEP"},
    {"update", "N: export 1 remote MEPs (takes 1 s), 2 linktrace replies (3 s), 3 CCM,\n"
               "  4 loopback, 5 linktrace state"},
    {"pmstart", "dm|slm|1dm N N N T N N N [N]: delay, loss or one-way session (daemon with -y):\n"
                "  MD, MA, MEP, target MAC or remote MEPID, count (0 endless), period ms (100, 1000,\n"
                "  10000), priority, test ID"},
    {"pmstop", "dm|slm|1dm N N N: stop the session of MD, MA, MEP"},
    {"pmshow", "[json]: delay and loss counters and results"},
    {"lbstart", "as configmep, refused (\" LBM is still transmiting !\") while the MEP's loopback\n"
                "  runs or a start waits for the next second"},
    {"lbstop", "N skip N skip N skip N skip N skip N: key as configmep; ends the MEP's loopback run\n"
               "  at once, its counters stay and it reads \"LBM Transmit Stopped\""},
    {"dumpjson", "[global|md|ma|mep|mip|rmep|ltr]: the state as one JSON document, or one section\n"
                 "  (cfmctl status --json; the reply is not printed in the daemon's log)"},
    {"debugon", "turn the debug traces on"},
    {"debugoff", "turn the debug traces off"},
};

const char kUsageText[] =
    "usage: cfmctl [-s SOCKET] [--timeout S] COMMAND...\n"
    "       cfmctl [-s SOCKET] -t DIR --export rmep|ltr|ccm|lbm|ltm [--json]\n"
    "       cfmctl help [COMMAND]\n"
    "       cfmctl [-t DIR] pm dm|slm|1dm start|stop ...|pm show [--json]   (cfmctl pm --help)\n";

const char kOptionsText[] =
    "options (before the command):\n"
    "  -s SOCKET      command socket (default /var/cfm_socket)\n"
    "  --timeout S    seconds to wait for the daemon's answer (default 10)\n"
    "  -t DIR         configuration tree directory the daemon was started with\n"
    "  --export KIND  send the matching update request and print the exported rows:\n"
    "                 rmep (update 1), ltr (2), ccm (3), lbm (4), ltm (5)\n"
    "  --json         with status or --export: as JSON (schemas in /usr/share/doc/cfmd)\n"
    "\n"
    "exit status: 0 the command ran; 1 the daemon refused it or reported a failure\n"
    "(\"Error!! ...\", \"unknown command !\", \"... is not exist!\", ...); 2 usage error\n"
    "found before sending; 3 no daemon answered (nothing was sent); 4 sent, but no\n"
    "answer within the timeout: the daemon may still run it, so do not simply retry.\n";

// The configmep options, from the table the daemon's parser reads.
void print_mep_options() {
  std::string line;
  for (size_t i = 0; i < cfm_mep_option_count; ++i) {
    std::string item = std::string(cfm_mep_options[i].help) + (i + 1 < cfm_mep_option_count ? "," : "");
    if (!line.empty() && line.size() + 1 + item.size() > 72) {
      printf("    %s\n", line.c_str());
      line.clear();
    }
    line += (line.empty() ? "" : " ") + item;
  }
  if (!line.empty()) printf("    %s\n", line.c_str());
}

void print_raw_help(const RawHelp &raw) {
  printf("%s %s\n", raw.word, raw.text);
  if (strcmp(raw.word, "configmep") == 0) print_mep_options();
}

// Every usage line of a named command, indented.
void print_named_usage(const NamedCommand &named, const char *indent) {
  for (const char *p = named.usage; *p != '\0';) {
    const char *end = strchr(p, '\n');
    if (end == nullptr) end = p + strlen(p);
    printf("%s%.*s\n", indent, static_cast<int>(end - p), p);
    p = *end == '\n' ? end + 1 : end;
  }
}

int help(const std::vector<std::string> &words) {
  if (words.size() > 1) {
    fprintf(stderr, "cfmctl help: one command at a time\n");
    return kUsage;
  }
  if (words.size() == 1) {
    if (const NamedCommand *named = find_named(words[0])) {
      print_named_usage(*named, "");
      static const char *const kNoMep[] = {"show", "clear", "debug", "status", "apply", "config"};
      if (std::none_of(std::begin(kNoMep), std::end(kNoMep), [&](const char *w) { return words[0] == w; })) {
        printf("key options of a MEP: --port (default 1), --vid (default 0), --direction (default down)\n");
      }
      return kOk;
    }
    for (const RawHelp &raw : kRawHelp) {
      if (words[0] == raw.word) return print_raw_help(raw), kOk;
    }
    fprintf(stderr, "cfmctl help: no command %s (cfmctl help lists them)\n", words[0].c_str());
    return kUsage;
  }
  fputs(kUsageText, stdout);
  printf("\nnamed commands (checked before sending; values by name):\n");
  for (const NamedCommand &named : named_commands()) print_named_usage(named, "  ");
  printf("\nthe daemon's own commands, sent as they stand (N number, T text):\n");
  std::string line = " ";
  for (const RawHelp &raw : kRawHelp) {
    if (line.size() + strlen(raw.word) > 78) {
      printf("%s\n", line.c_str());
      line.resize(1);  // the indent
    }
    line += ' ';
    line += raw.word;
  }
  printf("%s\n", line.c_str());
  printf("cfmctl help COMMAND shows a command's arguments and codes.\n\n");
  fputs(kOptionsText, stdout);
  return kOk;
}

// configmep and deletemep refuse a direction code other than their own
// without a word; say so, as the request did nothing.
int check_silent_refusal(const std::vector<std::string> &words, int status) {
  if (status != kOk || words.size() < 12 || (words[0] != "configmep" && words[0] != "deletemep")) return status;
  bool config = words[0] == "configmep";
  const std::string &dir = words[11];
  if (config ? (dir == "100" || dir == "200") : (dir == "1" || dir == "2")) return status;
  fprintf(stderr, "cfmctl: %s takes the direction %s, not %s: the daemon did nothing\n", words[0].c_str(),
          config ? "100 (down) or 200 (up)" : "1 (down) or 2 (up)", dir.c_str());
  return kRefused;
}

int usage_error(const std::string &message) {
  fprintf(stderr, "cfmctl: %s (see cfmctl help)\n", message.c_str());
  return kUsage;
}

}  // namespace

// The daemon's own words are those with help here (a lab test checks that
// every word of the daemon's command table has help); the command table
// itself is not linked, as it would bring the whole daemon into the client.
bool cfmctl::is_daemon_word(const std::string &word) {
  for (const RawHelp &raw : kRawHelp) {
    if (word == raw.word) return true;
  }
  return false;
}

int main(int argc, char **argv) {
  Client client;
  std::string tree, export_name;
  bool json = false;
  int i = 1;
  // Options come before the command; the command's own words follow it.
  for (; i < argc && argv[i][0] == '-'; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") return help({});
    if (arg == "--json") {
      json = true;
    } else if (arg == "--") {
      ++i;
      break;
    } else if (arg == "-s" || arg == "-t" || arg == "--export" || arg == "--timeout") {
      if (i + 1 >= argc) return usage_error("missing value after " + arg);
      std::string value = argv[++i];
      if (arg == "-s") client.socket_path = value;
      if (arg == "-t") tree = value;
      if (arg == "--export") export_name = value;
      if (arg == "--timeout") {
        char *end = nullptr;
        long s = strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || s < 1 || s > 3600) return usage_error("--timeout takes 1..3600 seconds");
        client.timeout_s = static_cast<int>(s);
      }
    } else {
      return usage_error("unknown option " + arg);
    }
  }
  std::vector<std::string> words(argv + i, argv + argc);
  if (!export_name.empty()) {
    if (!words.empty()) return usage_error("--export takes no command words");
    return run_export(client, tree, export_name, json);
  }
  if (words.empty()) return usage_error("no command given");
  if (words[0] == "pm") {
    auto send = [&](const std::string &request) { return run_and_print(client, request); };
    return cfmctl_pm({words.begin() + 1, words.end()}, tree, json, send);
  }
  if (json && words[0] != "status") return usage_error("--json goes with --export, status or pm show");
  if (words[0] == "help") return help({words.begin() + 1, words.end()});
  const NamedCommand *named = is_daemon_word(words[0]) ? nullptr : find_named(words[0]);
  if (named != nullptr) {
    if (json) words.push_back("--json");
    return run_named(client, *named, {words.begin() + 1, words.end()});
  }
  // The daemon's own words keep working as they always have; a word it does
  // not know is sent too, and its answer says so.
  std::string request;
  for (const std::string &word : words) request += (request.empty() ? "" : " ") + word;
  return check_silent_refusal(words, run_and_print(client, request));
}
