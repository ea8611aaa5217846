// cfmctl: command-line front end of cfmd's command socket.
//
//   cfmctl [-s SOCKET] WORD...                 send one request
//   cfmctl [-s SOCKET] -t DIR --export KIND [--json]
//                                              export and print run-time state
//
// A request is the words joined by single spaces, with no newline; the
// daemon answers nothing on the socket and closes it when the command has
// finished, so cfmctl waits for that close. Reports go to the daemon's own
// standard output; exported state is read back from the configuration tree
// directory given to the daemon with -t.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "cfmctl_pm.h"
#include "cli/mep_options.h"

namespace fs = std::filesystem;

namespace {

constexpr const char *kDefaultSocket = "/var/cfm_socket";
constexpr int kCloseTimeoutMs = 120000;

const char kHelp[] =
    "usage: cfmctl [-s SOCKET] WORD...\n"
    "       cfmctl [-s SOCKET] -t DIR --export rmep|ltr|ccm|lbm|ltm [--json]\n"
    "\n"
    "Sends WORD... to cfmd as one request (single spaces, no newline) and waits\n"
    "until the daemon has run it and closed the connection. The daemon writes its\n"
    "reports to its own standard output. Every argument a command reads must be\n"
    "sent. Positions are counted from 1 after the command word; 'skip' marks a\n"
    "position that must be sent but is not read (any word will do); N is a\n"
    "number, T a text.\n"
    "\n"
    "  enable                      turn CFM on\n"
    "  disable                     turn CFM off\n"
    "  default N skip N            1 default MD level; 3 MHF creation (1 none, 2 default)\n"
    "  showdefault N               1 shows the defaults, 2 the CFM status\n"
    "  createmd N skip N skip T [code value]...\n"
    "                              1 MD index; 3 level; 5 name; options: 1 format (11..14),\n"
    "                              2 MHF creation (21 none, 22 default), 4 name\n"
    "  configmd N [code value]...  1 MD index; options: 0 level, 1 format (11..14),\n"
    "                              2 MHF creation (21, 22), 4 name\n"
    "  showmd                      list the MDs\n"
    "  deletemd N                  1 MD index (refused while it has MEPs or MAs)\n"
    "  createma N skip N skip T [code value]...\n"
    "                              1 MD index; 3 MA index; 5 name; options: 1 format\n"
    "                              (11..14), 2 name, 3 CCM interval (29 10ms, 30 100ms,\n"
    "                              31 1s, 32 10s, 33 1min, 34 10min)\n"
    "  configma N skip N [code value]...\n"
    "                              1 MD index; 3 MA index; options as for createma\n"
    "  showma                      list the MAs\n"
    "  deletema N skip N           1 MD index; 3 MA index (refused while it has MEPs)\n"
    "  createmep N skip N skip N skip N skip N skip N\n"
    "                              1 MD; 3 MA; 5 MEPID; 7 port; 9 VID; 11 direction\n"
    "                              (1 Down, 2 Up)\n"
    "  configmep N skip N skip N skip N skip N skip N skip [code value]...\n"
    "                              key as createmep but 11 direction is 100 Down or\n"
    "                              200 Up; options from 13:\n";

// The configmep options, from the table the daemon's parser reads.
void print_mep_options() {
  std::string line;
  for (size_t i = 0; i < cfm_mep_option_count; ++i) {
    std::string item = std::string(cfm_mep_options[i].help) + (i + 1 < cfm_mep_option_count ? "," : "");
    if (!line.empty() && line.size() + 1 + item.size() > 58) {
      printf("                              %s\n", line.c_str());
      line.clear();
    }
    line += (line.empty() ? "" : " ") + item;
  }
  if (!line.empty()) printf("                              %s\n", line.c_str());
}

const char kHelpAfterMepOptions[] =
    "  showmep [N]                 list the MEPs; 1 adds the CCM block, 2 linktrace,\n"
    "                              3 loopback\n"
    "  deletemep N skip N skip N skip N skip N skip N\n"
    "                              key as createmep\n"
    "  showremotemep               list the remote MEPs\n"
    "  clearremotemep              empty the remote-MEP database\n"
    "  showltr                     list the linktrace replies\n"
    "  clearltr                    empty the linktrace replies (takes 3 s)\n"
    "  clearlbr                    delete the exported loopback rows\n"
    "  clearcnt                    zero every MEP's counters (takes 1 s)\n"
    "  runtime N                   1 selects one value (1..22) printed per MEP\n"
    "  update N                    1 export: 1 remote MEPs, 2 linktrace replies, 3 CCM,\n"
    "                              4 loopback, 5 linktrace state\n"
    "  debugon                     turn the debug traces on\n"
    "  debugoff                    turn the debug traces off\n"
    "  pmstart dm|slm|1dm N N N T N N N [N]\n"
    "                              delay, loss or one-way session (daemon with -y): MD,\n"
    "                              MA, MEP, target MAC or remote MEPID, count (0 endless),\n"
    "                              period ms (100, 1000, 10000), priority, test ID\n"
    "  pmstop dm|slm|1dm N N N     stop the session of MD, MA, MEP\n"
    "  pmshow [json]               delay and loss counters and results\n"
    "  pm ...                      the same by name: cfmctl pm --help\n"
    "\n"
    "options:\n"
    "  -s SOCKET      command socket (default /var/cfm_socket)\n"
    "  -t DIR         configuration tree directory the daemon was started with\n"
    "  --export KIND  send the matching update request, wait for it, and print the\n"
    "                 exported rows: rmep (update 1), ltr (2), ccm (3), lbm (4),\n"
    "                 ltm (5)\n"
    "  --json         print the exported rows as JSON instead of a table\n"
    "  --help         this text\n";

struct ExportKind {
  const char *name;
  int update;
  const char *table;  // row prefix under /runtime/cfm, or null for one set
  const char *dir;    // directory of a single set
  std::vector<const char *> columns;
};

const std::vector<ExportKind> &export_kinds() {
  static const std::vector<ExportKind> kinds = {
      {"rmep", 1, "rmep", nullptr, {"md_id", "ma_id", "rmep_id", "vlan_id", "src_mac"}},
      {"ltr",
       2,
       "ltr",
       nullptr,
       {"mac", "md_id", "ma_id", "mep_id", "sequence", "ttl", "forward", "terminal", "last_egress", "next_egress",
        "reply_ingress_mac", "reply_egress_mac", "reply_ingress_port", "reply_egress_port", "relay"}},
      {"ccm", 3, nullptr, "ccm", {"transmit", "sequence_err", "defect_priority", "defect", "sequence_num"}},
      {"lbm",
       4,
       nullptr,
       "lbm",
       {"result", "first_sequence", "next_lbm", "valid_lbr_in", "valid_lbr_outoforder", "bad_lbr_msdu",
        "transmit_lbr", "status"}},
      {"ltm",
       5,
       nullptr,
       "ltm",
       {"sequence_num", "unexpect_ltr", "flag", "target", "target_mepid", "target_ismep", "ttl", "result",
        "ltm_sequence"}},
  };
  return kinds;
}

// Sends the request, ends the writing side and waits until the daemon
// closes the connection. Returns 0, or 1 after printing why not.
int send_request(const std::string &socket_path, const std::string &request) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    fprintf(stderr, "cfmctl: socket: %s\n", strerror(errno));
    return 1;
  }
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (socket_path.size() >= sizeof addr.sun_path) {
    fprintf(stderr, "cfmctl: socket path too long: %s\n", socket_path.c_str());
    close(fd);
    return 1;
  }
  memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
  if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
    fprintf(stderr, "cfmctl: cannot connect to %s: %s\n", socket_path.c_str(), strerror(errno));
    close(fd);
    return 1;
  }
  const char *p = request.data();
  size_t left = request.size();
  while (left > 0) {
    ssize_t n = send(fd, p, left, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      fprintf(stderr, "cfmctl: send: %s\n", strerror(errno));
      close(fd);
      return 1;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  shutdown(fd, SHUT_WR);
  // The daemon never writes; end of stream means the command has finished.
  for (;;) {
    struct pollfd pfd = {fd, POLLIN, 0};
    int ready = poll(&pfd, 1, kCloseTimeoutMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      fprintf(stderr, "cfmctl: no answer from %s\n", socket_path.c_str());
      close(fd);
      return 1;
    }
    char buf[256];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
  }
  close(fd);
  return 0;
}

std::string read_value(const fs::path &path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return "";
  return line;
}

using Row = std::vector<std::pair<std::string, std::string>>;

// Rows "<table>:<n>" under DIR/runtime/cfm, in the order of n.
std::vector<Row> read_table_rows(const fs::path &base, const ExportKind &kind) {
  std::vector<std::pair<long, fs::path>> found;
  std::error_code ec;
  std::string prefix = std::string(kind.table) + ":";
  for (fs::directory_iterator it(base, ec), end; !ec && it != end; it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size()) continue;
    std::string digits = name.substr(prefix.size());
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) continue;
    if (digits.size() > 9) continue;
    found.emplace_back(std::stol(digits), it->path());
  }
  std::sort(found.begin(), found.end());
  std::vector<Row> rows;
  for (const auto &[number, path] : found) {
    Row row = {{"row", std::to_string(number)}};
    for (const char *column : kind.columns) row.emplace_back(column, read_value(path / column));
    rows.push_back(row);
  }
  return rows;
}

std::vector<Row> read_rows(const fs::path &tree, const ExportKind &kind) {
  fs::path base = tree / "runtime" / "cfm";
  if (kind.table != nullptr) return read_table_rows(base, kind);
  Row row;
  for (const char *column : kind.columns) row.emplace_back(column, read_value(base / kind.dir / column));
  return {row};
}

bool is_integer(const std::string &text) {
  if (text.empty() || text.size() > 11) return false;
  size_t start = text[0] == '-' ? 1 : 0;
  if (start == text.size()) return false;
  return std::all_of(text.begin() + static_cast<long>(start), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string json_string(const std::string &text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

void print_json(const std::vector<Row> &rows) {
  printf("[");
  for (size_t r = 0; r < rows.size(); ++r) {
    printf("%s{", r == 0 ? "" : ",");
    for (size_t c = 0; c < rows[r].size(); ++c) {
      const auto &[key, value] = rows[r][c];
      printf("%s%s:%s", c == 0 ? "" : ",", json_string(key).c_str(),
             is_integer(value) ? value.c_str() : json_string(value).c_str());
    }
    printf("}");
  }
  printf("]\n");
}

void print_table(const std::vector<Row> &rows, const ExportKind &kind) {
  std::vector<std::string> header;
  if (kind.table != nullptr) header.push_back("row");
  for (const char *column : kind.columns) header.push_back(column);
  std::vector<size_t> width(header.size());
  for (size_t c = 0; c < header.size(); ++c) width[c] = header[c].size();
  auto cell = [&](const Row &row, size_t c) -> const std::string & { return row[c].second; };
  for (const Row &row : rows) {
    for (size_t c = 0; c < header.size() && c < row.size(); ++c) width[c] = std::max(width[c], cell(row, c).size());
  }
  auto print_line = [&](auto get) {
    std::string line;
    for (size_t c = 0; c < header.size(); ++c) {
      std::string text = get(c);
      if (c + 1 < header.size()) text.resize(width[c] + 2, ' ');
      line += text;
    }
    printf("%s\n", line.c_str());
  };
  print_line([&](size_t c) { return header[c]; });
  for (const Row &row : rows) print_line([&](size_t c) { return c < row.size() ? cell(row, c) : std::string(); });
}

int usage_error(const char *message) {
  fprintf(stderr, "cfmctl: %s (see cfmctl --help)\n", message);
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  std::string socket_path = kDefaultSocket;
  std::string tree;
  std::string export_name;
  bool json = false;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (!words.empty()) {
      words.push_back(arg);  // everything after the command word is sent
    } else if (arg == "--help" || arg == "-h") {
      fputs(kHelp, stdout);
      print_mep_options();
      fputs(kHelpAfterMepOptions, stdout);
      return 0;
    } else if (arg == "-s" || arg == "-t" || arg == "--export") {
      if (i + 1 >= argc) return usage_error(("missing value after " + arg).c_str());
      std::string value = argv[++i];
      if (arg == "-s") socket_path = value;
      if (arg == "-t") tree = value;
      if (arg == "--export") export_name = value;
    } else if (arg == "--json") {
      json = true;
    } else if (arg == "--") {
      for (++i; i < argc; ++i) words.push_back(argv[i]);
    } else {
      words.push_back(arg);
    }
  }

  if (export_name.empty() && !words.empty() && words[0] == "pm") {
    auto send = [&](const std::string &request) { return send_request(socket_path, request); };
    return cfmctl_pm({words.begin() + 1, words.end()}, tree, json, send);
  }
  if (export_name.empty()) {
    if (words.empty()) return usage_error("no command given");
    std::string request;
    for (const std::string &word : words) request += (request.empty() ? "" : " ") + word;
    return send_request(socket_path, request);
  }

  if (!words.empty()) return usage_error("--export takes no command words");
  if (tree.empty()) return usage_error("--export needs -t DIR");
  const ExportKind *kind = nullptr;
  for (const ExportKind &k : export_kinds()) {
    if (export_name == k.name) kind = &k;
  }
  if (kind == nullptr) return usage_error(("unknown export kind " + export_name).c_str());
  if (send_request(socket_path, "update " + std::to_string(kind->update)) != 0) return 1;
  std::vector<Row> rows = read_rows(tree, *kind);
  if (json) {
    print_json(rows);
  } else {
    print_table(rows, *kind);
  }
  return 0;
}
