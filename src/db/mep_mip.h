// Local MEPs and MIPs: ordered tables of whole records under the semaphores
// "CFM_MEP" and "CFM_MIP". Records cross the boundary as whole copies.
#pragma once
#include <cstddef>
#include <cstdint>

constexpr int CFM_MAX_MEP = 64;
constexpr int CFM_MAX_MIP = 64;
constexpr size_t CFM_LBM_DATA_TLV_SIZE = 1201;  // Data TLV text of LBMs

constexpr uint8_t CFM_DIRECTION_DOWN = 1;
constexpr uint8_t CFM_DIRECTION_UP = 2;

// The CCM defects a MEP can hold in CcmDefect, in rising priority; a defect
// raises the alarm when it is at least the MEP's LowestAlarmPriority.
enum CfmCcmDefect : uint8_t {
  kDefectNone = 0,
  kDefectRdi = 1,          // "RDI CCM": the peer's CCMs carry RDI
  kDefectMacStatus = 2,    // "MAC STATUS CCM": no path sets it
  kDefectRemoteCcm = 3,    // "REMOTE DELAY CCM": the peer's CCMs stopped
  kDefectErrorCcm = 4,     // "DATA ERROR CCM": a CCM with a wrong MEPID or interval
  kDefectCrossConnect = 5, // "CROSS CONNECT CCM": a CCM of another MA or a lower level
};

struct MepKey {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t mep_id;
  uint8_t port;
  uint16_t vid;
  uint8_t direction;
};

struct MepEntry {
  // Key (same layout as MepKey).
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t mep_id;
  uint8_t port;
  uint16_t vid;
  uint8_t direction;  // 1 Down, 2 Up

  // Configuration and CCM state.
  uint32_t Active;
  uint32_t CciEnabled;
  uint8_t FngState;
  uint8_t CcmLtmPriority;
  uint16_t FngAlarmTime;  // units of 10 ms
  uint16_t FngResetTime;  // units of 10 ms
  uint8_t LowestAlarmPriority;
  uint8_t HighestDefectPriority;
  uint8_t CcmDefect;  // a CfmCcmDefect
  uint32_t CcmSequenceErrors;
  uint32_t CcmSequenceNum;

  // Loopback and linktrace counters and settings.
  uint32_t NextLbmTransId;
  uint32_t LbrIn;
  uint32_t LbrInOutOfOrder;
  uint32_t LbrBadMsdu;
  uint32_t LtmNextSeqNumber;
  uint32_t UnexpectedLtrIn;
  uint32_t LbrOut;
  uint32_t LbmTransmitStatus;
  uint8_t LbmTargetMac[6];
  uint16_t LbmTargetMepId;
  uint32_t LbmTargetIsMepId;
  uint32_t LbmMessages;
  // Up to 1201 text bytes; the extra byte keeps the text NUL-terminated.
  char LbmDataTlv[CFM_LBM_DATA_TLV_SIZE + 1];
  uint8_t LbmPriority;
  uint32_t LbmDropEnable;
  uint32_t LbmResultOk;
  uint32_t LbmSeqNumber;
  uint32_t LtmTransmitStatus;
  uint8_t LtmFlags;  // 0 or 0x80 (useFDBonly)
  uint8_t LtmTargetMac[6];
  uint16_t LtmTargetMepId;
  uint32_t LtmTargetIsMepId;
  uint32_t LtmResult;
  uint32_t LtmSeqNumber;
  uint8_t LtmTtl;
  uint32_t LbmRunning;
  uint32_t RowStatus;

  // Working space of the CCM engines (milliseconds for the timers).
  int32_t CcmTxTimer;
  uint32_t XconCcmFlag;
  int32_t XconCcmTimer;
  uint32_t ErrorCcmFlag;
  int32_t ErrorCcmTimer;
  uint32_t CcmReceivedFlag;
  int32_t RemoteCcmTimer;
  int32_t FngTimer;

  // Working space of the loopback initiator.
  uint32_t LbrExpectedTransId;
  uint32_t LbmRemaining;
  uint32_t LbmWaitTicks;
  // 1 when the last run was ended by lbstop; a new start clears it.
  uint32_t LbmStopped;

  // Runs started since the MEP was created: loopback runs, linktraces sent
  // or tried. 0 tells a result that never happened from a failed one.
  uint32_t LbmRuns;
  uint32_t LtmRuns;
};

static_assert(offsetof(MepEntry, md_id) == offsetof(MepKey, md_id));
static_assert(offsetof(MepEntry, direction) == offsetof(MepKey, direction));

struct MipEntry {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t MipId;  // 1..8191
  uint8_t port;    // 0..8
  uint32_t RowStatus;
};

// Creates both tables and semaphores and marks them ready (once).
void CFM_MEP_MIP_Init();
// Empties both tables and clears the ready flag (tables and semaphores stay;
// CFM_MEP_MIP_Init marks them ready again). For tests.
void CFM_MEP_MIP_Reset();

int CFM_Get_MEP_Entry(MepEntry *entry);
int CFM_GetNext_MEP_Entry(MepEntry *entry);
int CFM_Update_MEP_Entry(const MepEntry *entry);
int CFM_Delete_MEP_Entry(const MepEntry *entry);
uint32_t CFM_Get_TotalMepEntries();

int CFM_Get_MIP_Entry(MipEntry *entry);
int CFM_GetNext_MIP_Entry(MipEntry *entry);
int CFM_Update_MIP_Entry(const MipEntry *entry);
int CFM_Delete_MIP_Entry(const MipEntry *entry);
uint32_t CFM_Get_TotalMipEntries();

// Key order of the tables (negative, 0, positive).
int cfm_mep_key_compare(const void *a, const void *b, void *param);
int cfm_mip_key_compare(const void *a, const void *b, void *param);
