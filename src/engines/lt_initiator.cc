// Placeholder: replaced by the linktrace initiator.
#include "engines/lt_initiator.h"
uint32_t CFM_LT_Init() { return 1; }
int CFM_LTM_Transmit(const LtmRequest *) { return 0; }
