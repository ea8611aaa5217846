// Placeholder: replaced by the loopback responder.
#include "core/status.h"
#include "engines/lb_responder.h"
uint32_t CFM_LBM_Process(CfmPacket *, uint32_t) { return CFM_ERR_FAILURE; }
