// Debug dumps shared by the protocol engines.
#pragma once
#include <cstddef>
#include <cstdint>

// Prints the bytes as "%02X ", a newline before every 16th byte and one at
// the end. Callers decide whether debug output is wanted.
void cfm_trace_frame(const uint8_t *frame, size_t length);
