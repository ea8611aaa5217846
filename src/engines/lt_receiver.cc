// Placeholder: replaced by the linktrace receive side.
#include "core/status.h"
#include "engines/lt_receiver.h"
uint32_t CFM_LTM_Process(CfmPacket *, uint32_t) { return CFM_ERR_FAILURE; }
uint32_t CFM_LTR_Process(CfmPacket *) { return CFM_ERR_FAILURE; }
