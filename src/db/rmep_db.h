// Remote-MEP database "cfmMepDb": one entry per peer MEP learnt from CCMs,
// aged out when its CCMs stop. Also owns the initialisation shared with the
// linktrace-reply database.
#pragma once
#include <cstdint>

constexpr int CFM_MAX_REMOTE_MEP = 64;

struct RemoteMepEntry {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t rmep_id;
  uint16_t rmep_pad;  // always 0
  uint32_t mep_id;    // local MEP that received the CCM
  uint32_t ReceiveTime;  // system clock in seconds at the last CCM (shown /1000)
  uint32_t RdiReceived;
  uint8_t src_mac[6];
  uint8_t PortStatus;
  uint8_t InterfaceStatus;
  uint8_t port;
  uint16_t vlan_id;
  uint32_t SequenceNum;
  int32_t AgeTime;  // milliseconds to live
  uint64_t ReceiveTimeMs;  // wall clock in ms at the last CCM; 0 before any
};

// Creates the remote-MEP and LTR tables and the semaphores "cfmMepDb",
// "cfmMepDbSet" and "cfmLtrDb", then marks both databases ready (once).
uint32_t cfm_mep_db_Init();

uint32_t CFM_MEP_DB_Get_RemEntry(RemoteMepEntry *entry);
uint32_t CFM_MEP_Get_NextRemEntry(RemoteMepEntry *entry);
uint32_t CFM_MEP_Del_RemEntry(const RemoteMepEntry *entry);
uint32_t CFM_MEP_DB_Store_RemEntry(const RemoteMepEntry *entry);
uint32_t mep_process_normal_frame(const RemoteMepEntry *entry);
uint32_t CFM_MEP_DB_RemEntry_Count();
uint32_t CFM_MEP_DB_Check_RemEntries_Age();

// Shared ready flag of the two databases.
bool cfm_mep_db_ready();
// Empties the remote-MEP and LTR tables and clears the ready flag (tables and
// semaphores stay; cfm_mep_db_Init marks them ready again). For tests.
void cfm_mep_db_Reset();
