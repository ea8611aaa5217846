#include "status.h"

#include <cstdio>

#include "cli/names.h"

namespace cfmctl {

int fetch_snapshot(const Client &client, const std::string &request, std::string *reply, Json *snapshot) {
  int status = run_request(client, request, reply);
  if (status != kOk) return status;
  if (!parse_json(*reply, snapshot) || snapshot->type != Json::kObject) {
    print_reply(*reply);
    return kRefused;
  }
  return kOk;
}

namespace {

std::string name_or_code(const char *name, long long code) { return name != nullptr ? name : std::to_string(code); }

const char *interval_name(long long code) {
  static const char *const kNames[] = {"0", "3.3ms", "10ms", "100ms", "1s", "10s", "1min", "10min"};
  return code >= 0 && code <= 7 ? kNames[code] : "?";
}

// The MAC part of an egress identifier ("00:00:" and the MAC), as the
// listing shows it.
std::string mac_part(const std::string &id) { return id.size() > 6 ? id.substr(6) : id; }

bool same_mep(const Json &a, const Json &b) {
  return a["md"].integer() == b["md"].integer() && a["ma"].integer() == b["ma"].integer() &&
         a["mep"].integer() == b["mep"].integer();
}

// "1.2 s ago" from the daemon's own clock, "never" without a CCM.
std::string ago(const Json &snapshot, const Json &time) {
  long long now = parse_time_ms(snapshot["time"].text), then = parse_time_ms(time.text);
  if (now < 0 || then < 0) return "never";
  char text[32];
  snprintf(text, sizeof text, "%.1f s ago", static_cast<double>(now - then) / 1000.0);
  return text;
}

void print_head(const Json &snapshot, const Json &mep) {
  std::string md_name, ma_name;
  long long interval = -1;
  for (const Json &md : snapshot["mds"].items) {
    if (md["md"].integer() == mep["md"].integer()) md_name = md["md_name"].text;
  }
  for (const Json &ma : snapshot["mas"].items) {
    if (ma["ma"].integer() != mep["ma"].integer()) continue;
    ma_name = ma["ma_name"].text;
    interval = ma["ccm_interval"].integer();
  }
  printf("MEP %lld  MD %lld (%s)  MA %lld (%s)  port %lld  VID %lld  %s\n", mep["mep"].integer(), mep["md"].integer(),
         md_name.c_str(), mep["ma"].integer(), ma_name.c_str(), mep["port"].integer(), mep["vid"].integer(),
         mep["direction"].text == "up" ? "Up" : "Down");
  printf("  CCM %s, interval %s, priority %lld\n", mep["ccm_enabled"].boolean ? "on" : "off", interval_name(interval),
         mep["ccm_ltm_priority"].integer());
  long long defect = mep["defect"].integer(), alarm = mep["lowest_alarm_priority"].integer();
  printf("  defect: %s (alarm priority %s, sequence errors %lld)\n",
         name_or_code(cfm_cli_defect_text(defect), defect).c_str(),
         name_or_code(cfm_cli_alarm_text(alarm), alarm).c_str(), mep["ccm_sequence_errors"].integer());
}

void print_remote_meps(const Json &snapshot, const Json &mep) {
  bool any = false;
  for (const Json &r : snapshot["remote_meps"].items) {
    if (!same_mep(r, mep)) continue;
    long long port = r["port_status"].integer(), interface = r["interface_status"].integer();
    printf("  remote MEP %lld  %s  last CCM %s  port %s  interface %s\n", r["rmep"].integer(), r["mac"].text.c_str(),
           ago(snapshot, r["last_ccm_time"]).c_str(), name_or_code(cfm_cli_port_status_text(port), port).c_str(),
           name_or_code(cfm_cli_interface_status_text(interface), interface).c_str());
    any = true;
  }
  if (!any) printf("  no remote MEP\n");
}

const char *result_text(const Json &run) {
  if (run["result"].is_null()) return "no LBM sent";
  return run["result"].text == "success" ? "Success" : "Fail";
}

void print_loopback(const Json &mep) {
  const Json &lb = mep["loopback"];
  if (lb["result"].is_null() && !lb["stopped"].boolean) {
    printf("  loopback: never run\n");
    return;
  }
  std::string target = lb["target_is_mep"].boolean ? "MEP " + std::to_string(lb["target_mep"].integer())
                                                   : lb["target_mac"].text;
  const char *state = lb["running"].boolean ? "running" : lb["stopped"].boolean ? "stopped" : "finished";
  printf("  loopback: %s, %s, %lld of %lld replies (%lld out of order, %lld bad), target %s\n", state,
         result_text(lb), lb["lbr_in"].integer(), lb["messages"].integer(), lb["lbr_in_out_of_order"].integer(), lb["lbr_bad_msdu"].integer(), target.c_str());
}

// The linktrace and the replies to its last LTM (the entry the LTM left
// when it went out included).
void print_linktrace(const Json &snapshot, const Json &mep) {
  const Json &lt = mep["linktrace"];
  if (lt["result"].is_null()) {
    printf("  linktrace: never run\n");
    return;
  }
  std::vector<const Json *> replies;
  for (const Json &r : snapshot["ltrs"].items) {
    if (same_mep(r, mep) && r["sequence"].integer() == lt["sequence"].integer()) replies.push_back(&r);
  }
  printf("  linktrace: %s, target %s, ttl %lld, %zu replies\n", result_text(lt), lt["target_mac"].text.c_str(),
         lt["ttl"].integer(), replies.size());
  static const char *const kRelay[][2] = {{"hit", "Hit"}, {"fdb", "FDB"}, {"mpdb", "MPDB"}};
  for (const Json *r : replies) {
    const char *relay = "";
    for (const auto &[key, shown] : kRelay) relay = (*r)["relay_action"].text == key ? shown : relay;
    printf("    ttl %lld  %s -> %s  forward %s  terminal %s  relay %s\n", (*r)["ttl"].integer(),
           mac_part((*r)["last_egress_id"].text).c_str(), mac_part((*r)["next_egress_id"].text).c_str(),
           (*r)["forward"].boolean ? "Yes" : "No", (*r)["terminal_mep"].boolean ? "MEP" : "non-MEP", relay);
  }
}

}  // namespace

int run_status(const Client &client, Args &args) {
  std::string reply;
  Json snapshot;
  int status = fetch_snapshot(client, "dumpjson", &reply, &snapshot);
  if (status != kOk) return status;
  if (args.has("--json")) {
    print_reply(reply);
    return kOk;
  }
  printf("CFM: %s\n", snapshot["global"]["enabled"].boolean ? "enabled" : "disabled");
  const std::vector<Json> &meps = snapshot["meps"].items;
  if (meps.empty()) printf("no MEP\n");
  for (const Json &mep : meps) {
    print_head(snapshot, mep);
    print_remote_meps(snapshot, mep);
    print_loopback(mep);
    print_linktrace(snapshot, mep);
  }
  return kOk;
}

}  // namespace cfmctl
