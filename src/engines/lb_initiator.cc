// Placeholder: replaced by the loopback initiator.
#include "engines/lb_initiator.h"
uint32_t CFM_LB_Init() { return 1; }
#include "core/status.h"
void CFM_LBI_XMIT_Check() {}
uint32_t CFM_LBR_Process(CfmPacket *) { return CFM_ERR_FAILURE; }
