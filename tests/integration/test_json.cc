// What cfmctl prints as JSON, against its schema in dist/json and against
// the daemon's own listings; the snapshot behind it reaches the client only.
#include <chrono>
#include <thread>

#include "cfmctl/json.h"
#include "cli/names.h"
#include "lab.h"

namespace {

using cfmctl::Json;
using cfmlab::Lab;
using namespace std::chrono_literals;
const char kTree[] = "/var/tree";

class JsonLab : public Lab {
 protected:
  // cfmctl status --json, checked against its schema, as read back.
  Json Status() {
    int status = -1;
    std::string text = RunCfmctl({"status", "--json"}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(SchemaErrors(text, "status"), "") << text;
    Json doc;
    EXPECT_TRUE(cfmctl::parse_json(text, &doc)) << text;
    return doc;
  }
  // The export as JSON, checked against its schema: its first row.
  Json Export(const char *kind) {
    int status = -1;
    std::string text = RunCfmctl({"-t", kTree, "--export", kind, "--json"}, &status);
    EXPECT_EQ(status, 0) << kind;
    EXPECT_EQ(SchemaErrors(text, "export"), "") << kind << ": " << text;
    Json rows;
    EXPECT_TRUE(cfmctl::parse_json(text, &rows) && rows.items.size() == 1) << text;
    return rows.items.empty() ? Json() : rows.items[0];
  }
  // The value of the first "label : value" line of a listing, "" when none.
  std::string Listed(const std::string &request, const std::string &label) {
    std::string listing = Command(request);
    for (size_t at = 0; (at = listing.find(label, at)) != std::string::npos; ++at) {
      size_t colon = listing.find_first_not_of(' ', at + label.size());
      if (colon == std::string::npos || listing[colon] != ':' ||
          listing.find_last_not_of(' ', at - 1) != listing.find_last_of('\n', at - 1)) {
        continue;
      }
      size_t start = listing.find_first_not_of(' ', colon + 1);
      return listing.substr(start, listing.find('\r', start) - start);
    }
    return "";
  }
};

long long Ms(const Json &time) { return cfmctl::parse_time_ms(time.text); }

// A MEP learns the peer from its CCMs and runs a loopback and a linktrace:
// status --json and every export follow their schemas, what never happened
// is null, the last CCM time is the daemon's clock and moves with the CCMs,
// and each value is what the listings say.
TEST_F(JsonLab, StatusAndExportsFollowTheirSchemasAndTheListings) {
  ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-e", "-t", kTree}));
  // MD 1 "md7" at level 7, MA 1 "ma1" at 10 min (the peer ages out only
  // after 35 min), Down MEP 5 on port 1, VID 0.
  for (const char *request : {"createmd 1 0 7 0 md7", "createma 1 0 1 0 ma1 3 34", "createmep 1 0 1 0 5 0 1 0 0 0 1"}) {
    ASSERT_EQ(Command(request), "");
  }
  Json before = Status();
  EXPECT_TRUE(before["meps"].items.at(0)["loopback"]["result"].is_null());
  EXPECT_TRUE(before["meps"].items[0]["linktrace"]["sequence"].is_null());
  EXPECT_TRUE(Export("lbm")["result"].is_null());
  int status = -1;
  EXPECT_NE(RunCfmctl({"status"}, &status).find("  loopback: never run\n  linktrace: never run\n"), std::string::npos);
  EXPECT_EQ(Command("dumpjson"), "");  // nothing in the daemon's log

  // Two CCMs 1.5 s apart: the last CCM time is the daemon's wall clock and
  // moves forward by their distance.
  std::vector<long long> seen;
  for (uint32_t sequence : {1, 2}) {
    std::this_thread::sleep_for(sequence == 2 ? 1500ms : 0ms);
    ASSERT_TRUE(peer().Send(cfmlab::PeerCcm(sequence, 7)));
    Json remote;
    for (int i = 0; i < 50 && remote["sequence"].integer() != sequence; ++i, std::this_thread::sleep_for(50ms)) {
      Json doc = Status();
      if (!doc["remote_meps"].items.empty()) remote = doc["remote_meps"].items[0];
    }
    ASSERT_EQ(remote["sequence"].integer(), sequence);
    seen.push_back(Ms(remote["last_ccm_time"]));
  }
  EXPECT_GE(seen[1] - seen[0], 1400);
  EXPECT_LT(seen[1] - seen[0], 5000);
  long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::system_clock::now().time_since_epoch()).count();
  EXPECT_LT(std::abs(now - seen[1]), 10000);

  ASSERT_EQ(Command("configmep 1 0 1 0 5 0 1 0 0 0 100 0 6 02:00:00:00:0b:02 7 2 10 02:00:00:00:0b:02 12 121"), "");
  ASSERT_EQ(Command("configmep 1 0 1 0 5 0 1 0 0 0 100 0 5 51"), "");
  auto ran = [](const Json &doc) { return !doc["meps"].items.empty() && !doc["meps"].items[0]["loopback"]["result"].is_null(); };
  Json s = Status();
  for (int i = 0; i < 60 && !ran(s); ++i, std::this_thread::sleep_for(50ms)) s = Status();
  const Json &mep = s["meps"].items.at(0), &lb = mep["loopback"], &lt = mep["linktrace"];
  const Json &rmep = s["remote_meps"].items.at(0), &ltr = s["ltrs"].items.at(0);
  auto number = [](const Json &value) { return std::to_string(value.integer()); };
  auto result = [](const Json &run) { return run["result"].text == "success" ? "Success" : "Fail"; };
  const std::tuple<std::string, std::string, std::string> listed[] = {
      {"showmd", "MdName", s["mds"].items.at(0)["md_name"].text}, {"showmd", "MdLevel", number(s["mds"].items[0]["level"])},
      {"showma", "Name", s["mas"].items.at(0)["ma_name"].text},
      {"showmep 1", "MepID", number(mep["mep"])}, {"showmep 1", "CCM/LTM priority", number(mep["ccm_ltm_priority"])},
      {"showmep 1", "CCM Transmite", mep["ccm_enabled"].boolean ? "Enable" : "Disable"},
      {"showmep 1", "CCM Defect Prioity", cfm_cli_alarm_text(mep["lowest_alarm_priority"].integer())},
      {"showmep 3", "LBM message number", number(lb["messages"])}, {"showmep 3", "LBM Target MAC", lb["target_mac"].text},
      {"showmep 3", "LBM Transmit Result", result(lb)},
      {"showmep 3", "LBM Transmit first sequence number", number(lb["first_trans_id"])},
      {"showmep 2", "LTM next sequence number", number(lt["next_sequence"])}, {"showmep 2", "Target", lt["target_mac"].text},
      {"showmep 2", "Result", result(lt)}, {"showmep 2", "LTM sequence number", number(lt["sequence"])},
      {"showremotemep", "RemoteMepID", number(rmep["rmep"])}, {"showremotemep", "SrcMacAddress", rmep["mac"].text},
      {"showremotemep", "SequenceNum", number(rmep["sequence"])},
      {"showremotemep", "PortStatusTlv", cfm_cli_port_status_text(rmep["port_status"].integer())},
      {"showltr", "Sequence Number", number(ltr["sequence"])}, {"showltr", "LTR TTL", number(ltr["ttl"])}};
  for (const auto &[request, label, value] : listed) EXPECT_EQ(Listed(request, label), value) << request << " " << label;
  EXPECT_EQ(std::make_tuple(lb["result"].text, lb["runs"].integer(), lt["result"].text, lt["runs"].integer()),
            std::make_tuple(std::string("success"), 1LL, std::string("success"), 1LL));

  // The exports, with the snapshot's keys and values.
  Json row = Export("rmep");
  EXPECT_EQ(std::make_tuple(row["md_name"].text, row["ma_name"].text, row["rmep"].integer(), row["mac"].text),
            std::make_tuple(std::string("md7"), std::string("ma1"), 9LL, rmep["mac"].text));
  row = Export("ltm");
  EXPECT_EQ(std::make_tuple(row["mep"].integer(), row["result"].text, row["sequence"].integer(), row["target_mac"].text),
            std::make_tuple(5LL, std::string("success"), lt["sequence"].integer(), lt["target_mac"].text));
  EXPECT_EQ(Export("lbm")["result"].text, "success");
  EXPECT_EQ(Export("ccm")["lowest_alarm_priority"].integer(), mep["lowest_alarm_priority"].integer());
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "ltr", "--json"}, &status), "[]\n");  // no reply came
}

}  // namespace
