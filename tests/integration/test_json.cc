// What cfmctl prints as JSON, against its schema in dist/json and against
// the daemon's own listings; the snapshot behind it reaches the client only.
#include <chrono>
#include <thread>

#include "cfmctl/json.h"
#include "cli/names.h"
#include "lab.h"

namespace {

using cfmctl::Json;
using namespace std::chrono_literals;
const char kTree[] = "/var/tree";

class JsonLab : public cfmlab::Lab {
 protected:
  // cfmctl with these words, its output checked against the schema and read.
  Json Run(const std::vector<std::string> &args, const char *schema) {
    int status = -1;
    std::string text = RunCfmctl(args, &status);
    EXPECT_EQ(status, 0) << args.back();
    EXPECT_EQ(SchemaErrors(text, schema), "") << text;
    Json doc;
    EXPECT_TRUE(cfmctl::parse_json(text, &doc)) << text;
    return doc;
  }
  Json Status() { return Run({"status", "--json"}, "status"); }
  Json Export(const char *kind) { return Run({"-t", kTree, "--export", kind, "--json"}, "export").items.at(0); }
  // The value of the first "label : value" line of a listing, "" when none.
  std::string Listed(const std::string &request, const std::string &label) {
    std::string listing = Command(request) + "\r";
    for (size_t at = listing.find(label); at != std::string::npos; at = listing.find(label, at + 1)) {
      size_t colon = listing.find_first_not_of(' ', at + label.size());
      if (listing[colon] != ':' || listing.find_last_not_of(' ', at - 1) != listing.find_last_of('\n', at - 1)) continue;
      size_t start = listing.find_first_not_of(' ', colon + 1);
      return listing.substr(start, listing.find('\r', start) - start);
    }
    return "";
  }
};

// A MEP learns the peer from its CCMs and runs a loopback and a linktrace:
// status --json and every export follow their schemas, what never happened
// is null, the last CCM time is the daemon's clock and moves with the CCMs,
// and each value is what the listings say.
TEST_F(JsonLab, StatusAndExportsFollowTheirSchemasAndTheListings) {
  ASSERT_TRUE(StartDaemonReady({"-i", "wan0", "-e", "-t", kTree}));
  // MD 1 "md7" at level 7, MA 1 "ma1" at 10 min (a peer is kept 35 min),
  // Down MEP 5 on port 1, VID 0.
  for (const char *request : {"createmd 1 0 7 0 md7", "createma 1 0 1 0 ma1 3 34", "createmep 1 0 1 0 5 0 1 0 0 0 1"})
    ASSERT_EQ(Command(request), "");
  const Json before = Status()["meps"].items.at(0), ltm = Export("ltm");
  EXPECT_TRUE(before["loopback"]["result"].is_null() && before["linktrace"]["sequence"].is_null());
  EXPECT_TRUE(ltm["result"].is_null() && ltm["sequence"].is_null() && ltm["mep"].integer() == 5 && ltm["ttl"].integer() == 64);
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
      Json s = Status();
      remote = s["remote_meps"].items.empty() ? Json() : s["remote_meps"].items[0];
    }
    seen.push_back(cfmctl::parse_time_ms(remote["last_ccm_time"].text));
  }
  auto now = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
  EXPECT_TRUE(seen[1] - seen[0] >= 1400 && seen[1] - seen[0] < 5000 && std::abs(now.count() - seen[1]) < 10000);

  ASSERT_EQ(Command("configmep 1 0 1 0 5 0 1 0 0 0 100 0 6 02:00:00:00:0b:02 7 2 10 02:00:00:00:0b:02 12 121"), "");
  ASSERT_EQ(Command("configmep 1 0 1 0 5 0 1 0 0 0 100 0 5 51"), "");
  Json s;
  for (int i = 0; i < 60 && (s = Status())["meps"].items.at(0)["loopback"]["runs"].integer() == 0; ++i)
    std::this_thread::sleep_for(50ms);
  const Json &mep = s["meps"].items.at(0), &lb = mep["loopback"], &lt = mep["linktrace"];
  const Json &rmep = s["remote_meps"].items.at(0), &ltr = s["ltrs"].items.at(0);
  auto number = [](const Json &value) { return std::to_string(value.integer()); };
  auto result = [](const Json &run) { return run["result"].text == "success" ? "Success" : "Fail"; };
  const std::tuple<std::string, std::string, std::string> listed[] = {
      {"showmd", "MdName", s["mds"].items.at(0)["md_name"].text}, {"showma", "Name", s["mas"].items.at(0)["ma_name"].text},
      {"showmep 1", "CCM Defect Prioity", cfm_cli_alarm_text(mep["lowest_alarm_priority"].integer())},
      {"showmep 3", "LBM Transmit Result", result(lb)}, {"showmep 2", "LTM sequence number", number(lt["sequence"])},
      {"showmep 3", "LBM Transmit first sequence number", number(lb["first_trans_id"])}, {"showmep 2", "Result", result(lt)},
      {"showremotemep", "SequenceNum", number(rmep["sequence"])}, {"showltr", "Sequence Number", number(ltr["sequence"])}};
  for (const auto &[request, label, value] : listed) EXPECT_EQ(Listed(request, label), value) << request << " " << label;
  EXPECT_EQ(lb["result"].text + lt["result"].text, "successsuccess");

  // The exports, with the snapshot's keys and values.
  Json row = Export("rmep"), ltm_row = Export("ltm");
  EXPECT_EQ(std::make_tuple(row["md_name"].text, row["ma_name"].text, row["rmep"].integer(), row["mac"].text),
            std::make_tuple(std::string("md7"), std::string("ma1"), 9LL, rmep["mac"].text));
  EXPECT_EQ(std::make_tuple(ltm_row["result"].text, ltm_row["sequence"].integer(), ltm_row["target_mac"].text),
            std::make_tuple(std::string("success"), lt["sequence"].integer(), lt["target_mac"].text));
  EXPECT_EQ(std::make_pair(Export("lbm")["result"].text, Export("ccm")["lowest_alarm_priority"].integer()),
            std::make_pair(std::string("success"), mep["lowest_alarm_priority"].integer()));
  EXPECT_EQ(RunCfmctl({"-t", kTree, "--export", "ltr", "--json"}, &status), "[]\n");  // no reply came
}

}  // namespace
