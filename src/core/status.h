// Status words shared by every layer of the daemon.
#pragma once
#include <cstdint>

constexpr uint32_t CFM_OK = 0x12000001;
constexpr uint32_t CFM_ERR_FAILURE = 0x12000002;

// Management interface.
constexpr uint32_t CFM_ERR_NULL_REQUEST = 0x12000004;
constexpr uint32_t CFM_ERR_UNKNOWN_ROW_STATUS = 0x12000006;
constexpr uint32_t CFM_ERR_NO_MD_MA = 0x12000010;
constexpr uint32_t CFM_ERR_OUT_OF_RANGE = 0x12000011;
constexpr uint32_t CFM_ERR_LBM_RUNNING = 0x12000017;

// Loopback engines: frame dropped during the TLV walk.
constexpr uint32_t CFM_ERR_TLV = 0x1200000A;

// Remote-MEP and linktrace-reply databases.
constexpr uint32_t CFM_DB_NOT_READY = 0x1200000b;
constexpr uint32_t CFM_DB_NULL_ARG = 0x1200000c;
constexpr uint32_t CFM_DB_FOUND = 0x1200000d;
constexpr uint32_t CFM_DB_NOT_FOUND = 0x1200000e;
constexpr uint32_t CFM_DB_FULL = 0x1200000f;

// Row status of Set requests; a stored row holds CFM_ROW_IN_USE.
constexpr uint32_t CFM_ROW_CREATE = 0;
constexpr uint32_t CFM_ROW_MODIFY = 1;
constexpr uint32_t CFM_ROW_DELETE = 2;
constexpr uint32_t CFM_ROW_IN_USE = 1;
