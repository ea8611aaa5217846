// Placeholder: replaced by the receive task.
#include "core/status.h"
#include "io/rx.h"
uint32_t CFM_Create_Rx_Task() { return CFM_OK; }
