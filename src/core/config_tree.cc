#include "core/config_tree.h"

// Inert adapter; the directory-backed store replaces these bodies.

int ConfigTree::getInt(char * /*buffer*/, const char * /*key*/) { return 0; }
void ConfigTree::setInt(int /*value*/, const char * /*key_format*/, ...) {}
void ConfigTree::setStr(const char * /*value*/, const char * /*key_format*/, ...) {}
void ConfigTree::delStr(const char * /*key_format*/, ...) {}
void ConfigTree::getRow(const char * /*key*/, uint16_t *count) {
  if (count != nullptr) *count = 0;
}
void ConfigTree::ConfigGet(const char * /*key*/, char * /*out*/) {}
bool ConfigTree::attachDirectory(const std::string & /*dir*/) { return false; }
void ConfigTree::detach() {}
bool ConfigTree::attached() { return false; }
