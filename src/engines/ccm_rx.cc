// Placeholder: replaced by CCM reception.
#include "core/status.h"
#include "engines/ccm_rx.h"
uint32_t cfm_ccm_Init() { return CFM_OK; }
void CFM_CCM_Process(CfmPacket *) {}
