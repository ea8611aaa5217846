// Maintenance Domains and Maintenance Associations: two fixed arrays kept
// sorted by index after every change. No lock of their own: the command
// server, the only writer, changes them under MEP_SYC, which the tick and the
// engines hold while they read.
#pragma once
#include <cstdint>

constexpr int CFM_MAX_MD = 64;
constexpr int CFM_MAX_MA = 8;
constexpr int CFM_MD_NAME_SIZE = 44;  // at most 43 characters
constexpr int CFM_MA_NAME_SIZE = 46;  // at most 45 characters

struct MdEntry {
  uint32_t MdIndex;
  uint8_t MdFormat;            // 1..4
  uint8_t MdLevel;             // 0..7
  uint8_t MhfCreation;         // 1..4
  uint8_t SenderIdPermission;  // 1..5
  char MdName[CFM_MD_NAME_SIZE];
  uint32_t RowStatus;
};

struct MaNetEntry {
  uint32_t MdIndex;
  uint32_t MaIndex;  // the key, unique across all MDs
  uint32_t MaFormat; // 1..4
  char MaName[CFM_MA_NAME_SIZE];
  uint8_t CcmInterval;  // 2..7
  uint32_t RowStatus;
};

void CFM_MD_MA_Clear();
int CFM_Get_MD_Entry(MdEntry *entry);
int CFM_GetNext_MD_Entry(MdEntry *entry);
int CFM_Set_MD_Entry(MdEntry *entry);
int CFM_Get_MA_Net_Entry(MaNetEntry *entry);
int CFM_GetNext_MA_Net_Entry(MaNetEntry *entry);
int CFM_Set_MA_Net_Entry(MaNetEntry *entry);
