// cfmctl --export KIND: runs the update request of a kind and prints the
// rows it wrote to the configuration tree, as a table or as JSON.
#pragma once
#include <string>

#include "client.h"

namespace cfmctl {

int run_export(const Client &client, const std::string &tree, const std::string &name, bool json);

}  // namespace cfmctl
