// Loopback responder: answers LBMs at levels 1 and 2 with LBRs.
#pragma once
#include <cstdint>

struct CfmPacket;

uint32_t CFM_LBM_Process(CfmPacket *packet, uint32_t direction);
int cfm_check_lbm_group_address(int level, const uint8_t *address);
void cfm_send_lbr(const uint8_t *lbm, const uint8_t *destination, uint32_t priority, uint32_t vid,
                  uint32_t inner_priority, uint32_t inner_vid, uint8_t level, uint32_t port, uint32_t lbm_length,
                  uint32_t direction);
