// Management interface: the only way the command handlers change the
// database. Validates whole requests, fills defaults and applies them.
#pragma once
#include <cstdint>

#include "core/global.h"
#include "db/ltr_db.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"

int CFM_IF_Get_MD_Entry(MdEntry *entry);
int CFM_IF_GetNext_MD_Entry(MdEntry *entry);
int CFM_IF_GetFirst_MD_Entry(MdEntry *entry);
int CFM_IF_Get_MA_Net_Entry(MaNetEntry *entry);
int CFM_IF_GetNext_MA_Net_Entry(MaNetEntry *entry);
int CFM_IF_GetFirst_MA_Net_Entry(MaNetEntry *entry);
int CFM_IF_Get_MEP_Entry(MepEntry *entry);
int CFM_IF_GetNext_MEP_Entry(MepEntry *entry);
int CFM_IF_GetFirst_MEP_Entry(MepEntry *entry);
int CFM_IF_Get_MIP_Entry(MipEntry *entry);
int CFM_IF_GetNext_MIP_Entry(MipEntry *entry);
int CFM_IF_GetFirst_MIP_Entry(MipEntry *entry);

uint32_t CFM_IF_Set_MD_Entry(MdEntry *entry);
uint32_t CFM_IF_Set_MA_Net_Entry(MaNetEntry *entry);
uint32_t CFM_IF_Set_MEP_Entry(MepEntry *entry);
uint32_t CFM_IF_Set_MIP_Entry(MipEntry *entry);

int CFM_IF_Clean_RemoteMep_Entry();
int CFM_IF_Clean_LtrDB_Entry();

// The linktrace request a MEP Set with LtmTransmitStatus 1 builds from the MEP
// and its MD.
struct LtmRequest {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t mep_id;
  uint8_t port;
  uint16_t vid;
  uint8_t direction;
  uint8_t priority;
  uint32_t md_level;
  uint32_t flags;
  uint32_t trans_id;
  uint8_t ttl;
  uint8_t target_mac[6];
};

// Seam through which a MEP Set sends a linktrace: 1 sent, 0 refused/failed.
// Defaults to CFM_LTM_Transmit once the linktrace engine is initialised.
using CfmLtmTransmitFn = int (*)(const LtmRequest *request);
void CFM_IF_Set_LTM_Transmitter(CfmLtmTransmitFn fn);
