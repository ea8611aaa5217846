#include "core/frame_type.h"

#include <cstdio>
#include <cstring>

#include "core/startup.h"

namespace {

int g_frame_type = CFM_FRAME_TYPE_ETH;

}  // namespace

int getUnknownFrameType() { return CFM_FRAME_TYPE_UNKNOWN; }

bool isUnknownFrameType(int type) { return type == CFM_FRAME_TYPE_UNKNOWN; }

int pareFrameTypeStr(const char *text) {
  if (text == nullptr || text[0] == '\0') return CFM_FRAME_TYPE_UNKNOWN;
  if (strncmp(text, "eth", 3) == 0) return CFM_FRAME_TYPE_ETH;
  if (strncmp(text, "8023", 4) == 0) return CFM_FRAME_TYPE_8023;
  return CFM_FRAME_TYPE_UNKNOWN;
}

int readFrameTypeFileAt(const char *path, int *type) {
  if (type == nullptr) return 0;
  FILE *file = fopen(path, "r");
  if (file == nullptr) return 0;
  char line[16] = {0};
  bool got = fgets(line, sizeof line, file) != nullptr;
  fclose(file);
  if (!got) return 0;
  if (line[0] != '\0') {
    *type = pareFrameTypeStr(line);
  }
  return 1;
}

int readFrameTypeFile(int *type) { return readFrameTypeFileAt(CFM_FRAMETYPE_FILE, type); }

void setFrameType(int type) {
  if (type == CFM_FRAME_TYPE_ETH || type == CFM_FRAME_TYPE_8023) {
    g_frame_type = type;
  }
}

void setDefaultFrameType() { g_frame_type = CFM_FRAME_TYPE_ETH; }

int getFrameType() { return g_frame_type; }

bool is8023Frame() { return g_frame_type == CFM_FRAME_TYPE_8023; }
