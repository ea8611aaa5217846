#include "status.h"

#include <cstdio>
#include <map>

namespace cfmctl {

std::vector<Record> parse_records(const std::string &reply, const std::string &first) {
  std::vector<Record> records;
  size_t start = 0;
  while (start < reply.size()) {
    size_t end = reply.find('\n', start);
    if (end == std::string::npos) end = reply.size();
    std::string line = reply.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    auto trim = [](std::string s) {
      size_t a = s.find_first_not_of(' '), b = s.find_last_not_of(' ');
      return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
    };
    size_t colon = line.find(':');
    std::string label = trim(line.substr(0, colon));
    if (label.empty()) continue;
    std::string value = colon == std::string::npos ? "" : trim(line.substr(colon + 1));
    if (label == first || records.empty()) records.emplace_back();
    records.back().emplace_back(label, value);
  }
  return records;
}

std::string field(const Record &record, const std::string &label) {
  for (const auto &[l, v] : record) {
    if (l == label) return v;
  }
  return "";
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

namespace {

// A value printed by the daemon as a number stays a number in JSON; when it
// is missing or not a number, it becomes null.
std::string json_number(const std::string &text) {
  if (text.empty() || text.size() > 11) return "null";
  for (size_t i = 0; i < text.size(); ++i) {
    if ((text[i] < '0' || text[i] > '9') && !(i == 0 && text[i] == '-' && text.size() > 1)) return "null";
  }
  return text;
}

// Members of a JSON object in order: "key": value (value already JSON).
using Members = std::vector<std::pair<std::string, std::string>>;

std::string json_object(const Members &members) {
  std::string out = "{";
  for (const auto &[key, value] : members) out += (out.size() > 1 ? "," : "") + json_string(key) + ":" + value;
  return out + "}";
}

std::string json_array(const std::vector<std::string> &items) {
  std::string out = "[";
  for (const std::string &item : items) out += (out.size() > 1 ? "," : "") + item;
  return out + "]";
}

// The interval names of the MA listing as an operator reads them: an MA of
// 1 s lists "10ms100ms1s", one of 10 ms or 100 ms the entries before the
// interval names.
std::string interval_name(const std::string &listed) {
  static const std::map<std::string, std::string> kNames = {
      {"10ms100ms1s", "1s"}, {"unsignedint16", "10ms"}, {"rfc2865vpnid", "100ms"}};
  auto it = kNames.find(listed);
  return it != kNames.end() ? it->second : listed;
}

struct Replies {
  std::string cfm;
  std::vector<Record> mds, mas, ccm, lt, lb, rmeps, ltrs;
};

bool same_mep(const Record &a, const Record &b, const char *mep_label) {
  return field(a, "MdID") == field(b, "MdID") && field(a, "MaID") == field(b, "MaID") &&
         field(a, "MepID") == field(b, mep_label);
}

const Record *find_mep(const std::vector<Record> &list, const Record &mep) {
  for (const Record &r : list) {
    if (same_mep(r, mep, "MepID") && field(r, "port") == field(mep, "port") && field(r, "vid") == field(mep, "vid"))
      return &r;
  }
  return nullptr;
}

// One MEP's status as JSON members; the text screen prints the same.
struct MepStatus {
  Members head, ccm, loopback, linktrace;
  std::vector<Members> remotes, replies;
  bool loopback_stopped = false;  // ended by lb stop (the text screen says so)
};

MepStatus mep_status(const Replies &all, const Record &mep) {
  MepStatus s;
  std::string md_name, ma_name, interval;
  for (const Record &md : all.mds) {
    if (field(md, "MdIndex") == field(mep, "MdID")) md_name = field(md, "MdName");
  }
  for (const Record &ma : all.mas) {
    if (field(ma, "MdIndex") == field(mep, "MdID") && field(ma, "MaIndex") == field(mep, "MaID")) {
      ma_name = field(ma, "Name");
      interval = interval_name(field(ma, "CcmInterval"));
    }
  }
  s.head = {{"md", json_number(field(mep, "MdID"))},   {"md_name", json_string(md_name)},
            {"ma", json_number(field(mep, "MaID"))},   {"ma_name", json_string(ma_name)},
            {"mepid", json_number(field(mep, "MepID"))}, {"port", json_number(field(mep, "port"))},
            {"vid", json_number(field(mep, "vid"))},   {"direction", json_string(field(mep, "Direct"))}};
  s.ccm = {{"ccm", json_string(field(mep, "CCM Transmite") == "Enable" ? "on" : "off")},
           {"interval", json_string(interval)},
           {"priority", json_number(field(mep, "CCM/LTM priority"))},
           {"defect", json_string(field(mep, "CCM Defect"))},
           {"alarm_priority", json_string(field(mep, "CCM Defect Prioity"))},
           {"sequence_errors", json_number(field(mep, "CCM Sequence Errors"))}};
  for (const Record &r : all.rmeps) {
    if (!same_mep(r, mep, "MepID")) continue;
    std::string seen = field(r, "ReciveTime");
    if (!seen.empty() && seen.back() == 's') seen.pop_back();
    s.remotes.push_back({{"mepid", json_number(field(r, "RemoteMepID"))},
                         {"mac", json_string(field(r, "SrcMacAddress"))},
                         {"last_seen_s", json_number(seen)},
                         {"port_status", json_string(field(r, "PortStatusTlv"))},
                         {"interface_status", json_string(field(r, "InterfaceStatusTlv"))}});
  }
  if (const Record *lb = find_mep(all.lb, mep)) {
    bool running = false;
    for (const auto &line : *lb) {
      running = running || line.first == "LBM is still Transmiting";
      s.loopback_stopped = s.loopback_stopped || line.first == "LBM Transmit Stopped";
    }
    s.loopback = {{"running", running ? "true" : "false"},
                  {"result", json_string(field(*lb, "LBM Transmit Result"))},
                  {"target", json_string(field(*lb, "LBM Target MAC"))},
                  {"target_mepid", json_number(field(*lb, "LBM Target MEPID"))},
                  {"sent", json_number(field(*lb, "LBM message number"))},
                  {"replies", json_number(field(*lb, "Total number of valid LBR In"))},
                  {"out_of_order", json_number(field(*lb, "Total number of valid LBR InOutOfOrder"))},
                  {"bad", json_number(field(*lb, "Total number of Bad LBR Msdu"))}};
  }
  if (const Record *lt = find_mep(all.lt, mep)) {
    std::string sequence = field(*lt, "LTM sequence number");
    s.linktrace = {{"result", json_string(field(*lt, "Result"))},
                   {"target", json_string(field(*lt, "Target"))},
                   {"target_mepid", json_number(field(*lt, "Target MEPID"))},
                   {"ttl", json_number(field(*lt, "TTL"))},
                   {"sequence", json_number(sequence)}};
    for (const Record &r : all.ltrs) {
      if (!same_mep(r, mep, "MepID") || field(r, "Sequence Number") != sequence) continue;
      s.replies.push_back({{"ttl", json_number(field(r, "LTR TTL"))},
                           {"forward", json_string(field(r, "Forward"))},
                           {"terminal", json_string(field(r, "Terminal"))},
                           {"last_egress", json_string(field(r, "Last Egress ID"))},
                           {"next_egress", json_string(field(r, "Next Egress ID"))},
                           {"relay", json_string(field(r, "Relay action"))}});
    }
  }
  return s;
}

// A member's value as text: JSON strings lose their quotes.
std::string plain(const Members &members, const std::string &key) {
  for (const auto &[k, v] : members) {
    if (k != key) continue;
    if (v.size() >= 2 && v.front() == '"') return v.substr(1, v.size() - 2);
    return v;
  }
  return "";
}

void print_text(const std::string &cfm, const std::vector<MepStatus> &meps) {
  printf("CFM: %s\n", cfm.c_str());
  if (meps.empty()) printf("no MEP\n");
  for (const MepStatus &m : meps) {
    auto h = [&](const char *k) { return plain(m.head, k); };
    auto c = [&](const char *k) { return plain(m.ccm, k); };
    printf("MEP %s  MD %s (%s)  MA %s (%s)  port %s  VID %s  %s\n", h("mepid").c_str(), h("md").c_str(),
           h("md_name").c_str(), h("ma").c_str(), h("ma_name").c_str(), h("port").c_str(), h("vid").c_str(),
           h("direction").c_str());
    printf("  CCM %s, interval %s, priority %s\n", c("ccm").c_str(), c("interval").c_str(), c("priority").c_str());
    printf("  defect: %s (alarm priority %s, sequence errors %s)\n", c("defect").c_str(), c("alarm_priority").c_str(),
           c("sequence_errors").c_str());
    for (const Members &r : m.remotes) {
      printf("  remote MEP %s  %s  last CCM at %ss  port %s  interface %s\n", plain(r, "mepid").c_str(),
             plain(r, "mac").c_str(), plain(r, "last_seen_s").c_str(), plain(r, "port_status").c_str(),
             plain(r, "interface_status").c_str());
    }
    if (m.remotes.empty()) printf("  no remote MEP\n");
    auto l = [&](const char *k) { return plain(m.loopback, k); };
    printf("  loopback: %s, %s, %s of %s replies (%s out of order, %s bad), target %s\n",
           l("running") == "true" ? "running" : m.loopback_stopped ? "stopped" : "finished", l("result").c_str(), l("replies").c_str(),
           l("sent").c_str(), l("out_of_order").c_str(), l("bad").c_str(), l("target").c_str());
    auto t = [&](const char *k) { return plain(m.linktrace, k); };
    printf("  linktrace: %s, target %s, ttl %s, %zu replies\n", t("result").c_str(), t("target").c_str(),
           t("ttl").c_str(), m.replies.size());
    for (const Members &r : m.replies) {
      printf("    ttl %s  %s -> %s  forward %s  terminal %s  relay %s\n", plain(r, "ttl").c_str(),
             plain(r, "last_egress").c_str(), plain(r, "next_egress").c_str(), plain(r, "forward").c_str(),
             plain(r, "terminal").c_str(), plain(r, "relay").c_str());
    }
  }
}

void print_json(const std::string &cfm, const std::vector<MepStatus> &meps) {
  std::vector<std::string> items;
  for (const MepStatus &m : meps) {
    Members all = m.head;
    all.insert(all.end(), m.ccm.begin(), m.ccm.end());
    std::vector<std::string> remotes, replies;
    for (const Members &r : m.remotes) remotes.push_back(json_object(r));
    for (const Members &r : m.replies) replies.push_back(json_object(r));
    all.emplace_back("remote_meps", json_array(remotes));
    all.emplace_back("loopback", json_object(m.loopback));
    Members lt = m.linktrace;
    lt.emplace_back("replies", json_array(replies));
    all.emplace_back("linktrace", json_object(lt));
    items.push_back(json_object(all));
  }
  printf("%s\n", json_object({{"cfm", json_string(cfm)}, {"meps", json_array(items)}}).c_str());
}

}  // namespace

int run_status(const Client &client, Args &args) {
  // The listings, in one request each; any refusal or a missing daemon ends
  // the status.
  const std::vector<std::pair<const char *, const char *>> kRequests = {
      {"showdefault 2", "CFM Status"}, {"showmd", "MdIndex"},         {"showma", "MdIndex"},
      {"showmep 1", "MdID"},           {"showmep 2", "MdID"},         {"showmep 3", "MdID"},
      {"showremotemep", "MdID"},       {"showltr", "MdID"}};
  std::vector<std::vector<Record>> lists;
  for (const auto &[request, first] : kRequests) {
    std::string reply;
    int status = run_request(client, request, &reply);
    if (status != kOk) return status;
    if (reply_status(reply) != kOk) {
      print_reply(reply);
      return kRefused;
    }
    lists.push_back(parse_records(reply, first));
  }
  Replies all = {lists[0].empty() ? "" : field(lists[0][0], "CFM Status"),
                 lists[1], lists[2], lists[3], lists[4], lists[5], lists[6], lists[7]};
  std::vector<MepStatus> meps;
  for (const Record &mep : all.ccm) meps.push_back(mep_status(all, mep));
  if (args.has("--json")) {
    print_json(all.cfm, meps);
  } else {
    print_text(all.cfm, meps);
  }
  return kOk;
}

}  // namespace cfmctl
