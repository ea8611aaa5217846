// Placeholder: replaced by the command server.
#include "cli/server.h"
int cfm_cli_server_init() { return -1; }
