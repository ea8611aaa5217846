// Adapter to the router's key/value configuration tree.
//
// Inert by default: reads give 0 or leave the caller's buffer alone, writes do
// nothing, and every caller works that way. attachDirectory() backs the tree
// with a directory: the key "/runtime/cfm/rmep:1/src_mac" is the file
// DIR/runtime/cfm/rmep:1/src_mac holding the value and a newline.
#pragma once
#include <cstdint>
#include <string>

constexpr int CFM_CONFIG_VALUE_SIZE = 256;  // buffers handed to ConfigGet/getInt

struct ConfigTree {
  // Integer stored under the key, 0 when absent. `buffer` (at least
  // CFM_CONFIG_VALUE_SIZE bytes, may be null) receives the raw text.
  static int getInt(char *buffer, const char *key);
  static void setInt(int value, const char *key_format, ...) __attribute__((format(printf, 2, 3)));
  static void setStr(const char *value, const char *key_format, ...) __attribute__((format(printf, 2, 3)));
  // Removes the formatted key and everything under it.
  static void delStr(const char *key_format, ...) __attribute__((format(printf, 1, 2)));
  // Number of rows "<key>:<n>" beside the table key; writes 0 when detached.
  static void getRow(const char *key, uint16_t *count);
  // Copies the key's text (without newline) into `out` (CFM_CONFIG_VALUE_SIZE
  // bytes); leaves `out` unchanged when the key is absent or detached.
  static void ConfigGet(const char *key, char *out);

  // Backs the tree with a directory; false if it cannot be used.
  static bool attachDirectory(const std::string &dir);
  static void detach();
  static bool attached();
};
