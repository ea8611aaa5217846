// Linktrace-reply database "cfmLtrDb": the replies to the local MEPs' LTMs.
#pragma once
#include <cstdint>

constexpr int CFM_MAX_LTR = 512;

struct LtrEntry {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t mep_id;
  uint16_t mep_pad;  // always 0
  uint32_t sequence;     // LTM transaction identifier
  uint32_t ReplyNumber;  // 0 for a Hit reply, else a running number
  uint32_t ttl;
  uint32_t forward;
  uint32_t terminal;
  uint8_t LastEgressId[8];
  uint8_t NextEgressId[8];
  uint8_t relay;  // 1 Hit, 2 FDB, 3 MPDB
  uint8_t ReplyIngressAction;
  uint8_t ReplyIngressMac[6];
  uint8_t ReplyEgressAction;
  uint8_t ReplyEgressMac[6];
  uint8_t mac[6];  // source of the LTR
  char ReplyIngressPort[4];
  char ReplyEgressPort[4];
};

uint32_t CFM_DB_Get_LtrEntry(LtrEntry *entry);
uint32_t CFM_DB_GetNext_LtrEntry(LtrEntry *entry);
uint32_t CFM_DB_Update_LtrEntry(const LtrEntry *entry);
uint32_t CFM_DB_Del_LtrEntry(const LtrEntry *entry);
uint32_t CFM_DB_Get_TotalLtrEntries();

// Update, making room on a full table by deleting the lowest-keyed entry and
// trying again until it succeeds or nothing is left to delete.
uint32_t CFM_DB_Update_LtrEntry_Make_Room(const LtrEntry *entry);

// Used by cfm_mep_db_Init and cfm_mep_db_Reset: create the table (once), its
// semaphore "cfmLtrDb" (once), and remove every entry.
void cfm_ltr_db_Create();
void cfm_ltr_db_Create_Semaphore();
void cfm_ltr_db_Empty();
