// Frame type: Ethernet II or IEEE 802.3 with LLC/SNAP, chosen at start-up.
#pragma once

constexpr int CFM_FRAME_TYPE_UNKNOWN = -1;
constexpr int CFM_FRAME_TYPE_ETH = 0;
constexpr int CFM_FRAME_TYPE_8023 = 1;

int getUnknownFrameType();
bool isUnknownFrameType(int type);
int pareFrameTypeStr(const char *text);
int readFrameTypeFile(int *type);
int readFrameTypeFileAt(const char *path, int *type);
void setFrameType(int type);
void setDefaultFrameType();
int getFrameType();
bool is8023Frame();
