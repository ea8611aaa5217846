// Placeholder: replaced by the MEP/MIP tables.
#include "db/mep_mip.h"
void CFM_MEP_MIP_Init() {}
