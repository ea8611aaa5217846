// cfmctl --export: the update request of a kind, then its rows read back
// from the configuration tree directory the daemon writes (-t DIR).
#include "export.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "files.h"
#include "status.h"

namespace cfmctl {

namespace {

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
    for (const char *column : kind.columns) row.emplace_back(column, read_first_line(path + "/" + column));
    rows.push_back(row);
  }
  return rows;
}

std::vector<Row> read_rows(const std::string &tree, const ExportKind &kind) {
  std::string base = tree + "/runtime/cfm";
  if (kind.table != nullptr) return read_table_rows(base, kind);
  Row row;
  std::string dir = base + "/" + kind.dir + "/";
  for (const char *column : kind.columns) row.emplace_back(column, read_first_line(dir + column));
  return {row};
}

bool is_integer(const std::string &text) {
  if (text.empty() || text.size() > 11) return false;
  size_t start = text[0] == '-' ? 1 : 0;
  if (start == text.size()) return false;
  return std::all_of(text.begin() + static_cast<long>(start), text.end(), [](char c) { return c >= '0' && c <= '9'; });
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
  if (json) {
    print_json(rows);
  } else {
    print_table(rows, *kind);
  }
  return kOk;
}

}  // namespace cfmctl
