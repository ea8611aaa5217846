// Linktrace receive side: answers LTMs aimed at this router with an LTR and
// records the LTRs that answer the local MEPs' LTMs.
#pragma once
#include <cstdint>

struct CfmPacket;

uint32_t CFM_LTM_Process(CfmPacket *packet, uint32_t from_wan);
uint32_t CFM_LTR_Process(CfmPacket *packet);
