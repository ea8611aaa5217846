// cfmctl status: one screen an operator reads first, built from the
// daemon's show replies (so it works without a configuration tree).
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "client.h"
#include "named.h"

namespace cfmctl {

// One entry of a show listing: its "label : value" lines in order (a line
// without a colon is a label with an empty value).
using Record = std::vector<std::pair<std::string, std::string>>;

// Splits a show reply into entries; a new entry starts at each line whose
// label is `first` (the listing's first label, e.g. "MdID").
std::vector<Record> parse_records(const std::string &reply, const std::string &first);
// The value of a label in an entry, "" when absent.
std::string field(const Record &record, const std::string &label);

// A JSON string literal, texts kept as texts ("100" stays a string).
std::string json_string(const std::string &text);

int run_status(const Client &client, Args &args);

}  // namespace cfmctl
