// cfmctl --export: the update request of a kind, then its rows read back
// from the configuration tree directory the daemon writes (-t DIR). As JSON,
// each row's values become typed members with the snapshot's keys; the
// MEP a single set belongs to, and whether its run ever happened, come from
// the daemon's snapshot, as the tree does not say.
#include "export.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "cli/json.h"
#include "cli/names.h"
#include "files.h"
#include "status.h"

namespace cfmctl {

namespace {

// How a tree value becomes a JSON value ("" is always null).
enum class As {
  kNumber,  // an integer
  kText,    // the text
  kLower,   // the text in lower case ("Hit" -> "hit")
  kFlag,    // true when it is the column's `yes` word
  kAlarm,   // a lowest-alarm-priority name -> its code
  kDefect,  // a defect name -> its code
};

struct Column {
  const char *file;  // the tree file and table header
  const char *key;   // the JSON member
  As as;
  const char *yes = nullptr;  // kFlag
  bool run_only = false;      // null while the MEP's run never happened
};

struct ExportKind {
  const char *name;
  int update;
  const char *table;  // row prefix under /runtime/cfm, or null for one set
  const char *dir;    // directory of a single set
  const char *run;    // the snapshot's record of the set's run, or null
  std::vector<Column> columns;
};

const std::vector<ExportKind> &export_kinds() {
  using A = As;
  static const std::vector<ExportKind> kinds = {
      {"rmep", 1, "rmep", nullptr, nullptr,
       {{"md_id", "md_name", A::kText}, {"ma_id", "ma_name", A::kText}, {"rmep_id", "rmep", A::kNumber},
        {"vlan_id", "vid", A::kNumber}, {"src_mac", "mac", A::kText}}},
      {"ltr", 2, "ltr", nullptr, nullptr,
       {{"mac", "mac", A::kText},
        {"md_id", "md", A::kNumber},
        {"ma_id", "ma", A::kNumber},
        {"mep_id", "mep", A::kNumber},
        {"sequence", "sequence", A::kNumber},
        {"ttl", "ttl", A::kNumber},
        {"forward", "forward", A::kFlag, "Yes"},
        {"terminal", "terminal_mep", A::kFlag, "MEP"},
        {"last_egress", "last_egress_mac", A::kText},
        {"next_egress", "next_egress_mac", A::kText},
        {"reply_ingress_mac", "ingress_mac", A::kText},
        {"reply_egress_mac", "egress_mac", A::kText},
        {"reply_ingress_port", "ingress_port", A::kText},
        {"reply_egress_port", "egress_port", A::kText},
        {"relay", "relay_action", A::kLower}}},
      {"ccm", 3, nullptr, "ccm", nullptr,
       {{"transmit", "ccm_enabled", A::kFlag, "Enable"},
        {"sequence_err", "ccm_sequence_errors", A::kNumber},
        {"defect_priority", "lowest_alarm_priority", A::kAlarm},
        {"defect", "defect", A::kDefect},
        {"sequence_num", "ccm_sequence", A::kNumber}}},
      {"lbm", 4, nullptr, "lbm", "loopback",
       {{"result", "result", A::kLower, nullptr, true},
        {"first_sequence", "first_trans_id", A::kNumber, nullptr, true},
        {"next_lbm", "next_trans_id", A::kNumber},
        {"valid_lbr_in", "lbr_in", A::kNumber},
        {"valid_lbr_outoforder", "lbr_in_out_of_order", A::kNumber},
        {"bad_lbr_msdu", "lbr_bad_msdu", A::kNumber},
        {"transmit_lbr", "lbr_out", A::kNumber},
        {"status", "running", A::kFlag, "LBM is still Transmiting"}}},
      {"ltm", 5, nullptr, "ltm", "linktrace",
       {{"sequence_num", "next_sequence", A::kNumber},
        {"unexpect_ltr", "unexpected_ltr_in", A::kNumber},
        {"flag", "fdb_only", A::kFlag, "useFDBonly"},
        {"target", "target_mac", A::kText},
        {"target_mepid", "target_mep", A::kNumber},
        {"target_ismep", "target_is_mep", A::kFlag, "enabled"},
        {"ttl", "ttl", A::kNumber},
        {"result", "result", A::kLower, nullptr, true},
        {"ltm_sequence", "sequence", A::kNumber, nullptr, true}}},
  };
  return kinds;
}

using Row = std::vector<std::pair<std::string, std::string>>;

// Rows "<table>:<n>" under DIR/runtime/cfm, in the order of n.
std::vector<Row> read_table_rows(const std::string &base, const ExportKind &kind) {
  std::vector<std::pair<long, std::string>> found;
  std::string prefix = std::string(kind.table) + ":";
  for (const std::string &name : list_dir(base)) {
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    long number = small_number(name.substr(prefix.size()));
    if (number >= 0) found.emplace_back(number, base + "/" + name);
  }
  std::sort(found.begin(), found.end());
  std::vector<Row> rows;
  for (const auto &[number, path] : found) {
    Row row = {{"row", std::to_string(number)}};
    for (const Column &column : kind.columns) row.emplace_back(column.file, read_first_line(path + "/" + column.file));
    rows.push_back(row);
  }
  return rows;
}

std::vector<Row> read_rows(const std::string &tree, const ExportKind &kind) {
  std::string base = tree + "/runtime/cfm";
  if (kind.table != nullptr) return read_table_rows(base, kind);
  Row row;
  std::string dir = base + "/" + kind.dir + "/";
  for (const Column &column : kind.columns) row.emplace_back(column.file, read_first_line(dir + column.file));
  return {row};
}

bool is_integer(const std::string &text) {
  if (text.empty() || text.size() > 11) return false;
  size_t start = text[0] == '-' ? 1 : 0;
  if (start == text.size()) return false;
  return std::all_of(text.begin() + static_cast<long>(start), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The code whose name is `text` (codes lo..hi), or -1.
long code_of(const char *(*name)(long), long lo, long hi, const std::string &text) {
  for (long code = lo; code <= hi; ++code) {
    if (text == name(code)) return code;
  }
  return -1;
}

void write_value(JsonOut &json, const Column &column, const std::string &value) {
  long code = column.as == As::kAlarm    ? code_of(cfm_cli_alarm_text, 1, 6, value)
              : column.as == As::kDefect ? code_of(cfm_cli_defect_text, 0, 5, value)
                                         : 0;
  if (value.empty() || (column.as == As::kNumber && !is_integer(value)) || code < 0) return json.null(column.key);
  switch (column.as) {
    case As::kNumber: return json.number(column.key, strtoll(value.c_str(), nullptr, 10));
    case As::kFlag: return json.boolean(column.key, value == column.yes);
    case As::kLower: {
      std::string lower = value;
      for (char &c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
      return json.text(column.key, lower.c_str());
    }
    case As::kText: return json.text(column.key, value.c_str());
    case As::kAlarm:
    case As::kDefect: return json.number(column.key, code);
  }
}

// `mep` is the snapshot's record of the MEP a single set belongs to.
void print_json(const std::vector<Row> &rows, const ExportKind &kind, const Json *mep) {
  JsonOut json(stdout);
  json.begin(nullptr, '[');
  for (const Row &row : rows) {
    json.begin(nullptr, '{');
    size_t at = 0;  // the row's values in the order of the columns, after its number
    if (kind.table != nullptr) {
      json.number("row", strtoll(row[at++].second.c_str(), nullptr, 10));
    } else {
      for (const char *key : {"md", "ma", "mep"}) json.number(key, (*mep)[key].integer());
    }
    bool never_ran = kind.run != nullptr && (*mep)[kind.run]["runs"].integer() == 0;
    for (const Column &column : kind.columns) {
      const std::string &value = row[at++].second;
      if (column.run_only && never_ran) {
        json.null(column.key);
      } else {
        write_value(json, column, value);
      }
    }
    json.end('}');
  }
  json.end(']');
  printf("\n");
}

void print_table(const std::vector<Row> &rows, const ExportKind &kind) {
  std::vector<std::string> header;
  if (kind.table != nullptr) header.push_back("row");
  for (const Column &column : kind.columns) header.push_back(column.file);
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

}  // namespace

int run_export(const Client &client, const std::string &tree, const std::string &name, bool json) {
  if (tree.empty()) {
    fprintf(stderr, "cfmctl: --export needs -t DIR (see cfmctl help)\n");
    return kUsage;
  }
  const ExportKind *kind = nullptr;
  for (const ExportKind &k : export_kinds()) {
    if (name == k.name) kind = &k;
  }
  if (kind == nullptr) {
    fprintf(stderr, "cfmctl: unknown export kind %s (rmep, ltr, ccm, lbm, ltm)\n", name.c_str());
    return kUsage;
  }
  std::string reply;
  int status = run_request(client, "update " + std::to_string(kind->update), &reply);
  if (status != kOk) return status;
  std::vector<Row> rows = read_rows(tree, *kind);
  if (!json) {
    print_table(rows, *kind);
    return kOk;
  }
  // A single set is the last MEP's in key order; without a MEP nothing was
  // exported.
  Json snapshot;
  const Json *mep = nullptr;
  if (kind->table == nullptr) {
    status = fetch_snapshot(client, "dumpjson mep", &reply, &snapshot);
    if (status != kOk) return status;
    const std::vector<Json> &meps = snapshot["meps"].items;
    if (meps.empty()) rows.clear();
    mep = meps.empty() ? nullptr : &meps.back();
  }
  print_json(rows, *kind, mep);
  return kOk;
}

}  // namespace cfmctl
