// Text form of MAC addresses: "%02x:%02x:%02x:%02x:%02x:%02x".
#pragma once
#include <cstdint>

constexpr int CFM_MAC_LEN = 6;
constexpr int CFM_MAC_TEXT_SIZE = 18;  // 17 characters and a NUL

// 0 on success, -1 on failure; bytes parsed before a fault stay written.
int hwaddr_aton(const char *text, uint8_t *mac);
char *hwaddr_to_string(char *text, const uint8_t *mac);
// MAC part (bytes 2..7) of an 8-byte egress identifier.
char *hwaddr_to_string1(char *text, const uint8_t *identifier);
