// Placeholder: replaced by the MD/MA tables.
#include "db/md_ma.h"
void CFM_MD_MA_Clear() {}
