// cfmctl status: one screen an operator reads first, built from the
// daemon's snapshot (the dumpjson request), so it works without a
// configuration tree; with --json, the snapshot itself.
#pragma once
#include <string>

#include "client.h"
#include "json.h"
#include "named.h"

namespace cfmctl {

// Sends a snapshot request ("dumpjson" or "dumpjson SECTION") and parses
// the reply. Returns kOk, kNoDaemon, or kRefused after printing a reply that
// is no JSON document (a refusal, or a daemon without the request).
int fetch_snapshot(const Client &client, const std::string &request, std::string *reply, Json *snapshot);

int run_status(const Client &client, Args &args);

}  // namespace cfmctl
