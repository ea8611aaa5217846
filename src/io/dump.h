// Hexadecimal frame dumps of the debug traces.
#pragma once
#include <cstddef>
#include <cstdint>

// Prints each byte with `format` ("%02X " or "%2X "), a newline before every
// 16th byte. No newline at the end and no flush: callers finish the line.
void cfm_dump_bytes(const uint8_t *bytes, size_t length, const char *format);
