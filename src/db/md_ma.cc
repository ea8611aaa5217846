// MD and MA rows: fixed arrays, re-sorted after every Set so that the rows in
// use come first in ascending order of their index and a plain scan from the
// first row is an ordered walk.
#include "db/md_ma.h"

#include <cstring>
#include <utility>

#include "core/status.h"

namespace {

MdEntry g_md_rows[CFM_MAX_MD];
MaNetEntry g_ma_rows[CFM_MAX_MA];

uint32_t row_index(const MdEntry &row) { return row.MdIndex; }
uint32_t row_index(const MaNetEntry &row) { return row.MaIndex; }

template <typename Row>
bool in_use(const Row &row) {
  return row.RowStatus == CFM_ROW_IN_USE;
}

// Exchange sort over every row: a free row before a used one, or two used
// rows out of index order, swap.
template <typename Row, int N>
void sort_rows(Row (&rows)[N]) {
  for (int i = 0; i < N - 1; ++i) {
    for (int j = i + 1; j < N; ++j) {
      bool free_before_used = !in_use(rows[i]) && in_use(rows[j]);
      bool out_of_order = in_use(rows[i]) && in_use(rows[j]) && row_index(rows[j]) < row_index(rows[i]);
      if (free_before_used || out_of_order) {
        std::swap(rows[i], rows[j]);
      }
    }
  }
}

template <typename Row, int N>
Row *find_used(Row (&rows)[N], uint32_t index) {
  for (Row &row : rows) {
    if (in_use(row) && row_index(row) == index) {
      return &row;
    }
  }
  return nullptr;
}

template <typename Row, int N>
Row *find_next_used(Row (&rows)[N], uint32_t index) {
  for (Row &row : rows) {
    if (in_use(row) && row_index(row) > index) {
      return &row;
    }
  }
  return nullptr;
}

template <typename Row, int N>
Row *find_free(Row (&rows)[N]) {
  for (Row &row : rows) {
    if (!in_use(row)) {
      return &row;
    }
  }
  return nullptr;
}

// Create (RowStatus 0) takes a free row; any request on an existing index is
// copied over that row whole, so a status other than 1 frees the row.
template <typename Row, int N>
int set_row(Row (&rows)[N], Row *request) {
  Row *row = find_used(rows, row_index(*request));
  if (row == nullptr) {
    if (request->RowStatus != CFM_ROW_CREATE) {
      return 0;
    }
    row = find_free(rows);
    if (row == nullptr) {
      return 0;
    }
    request->RowStatus = CFM_ROW_IN_USE;
  }
  *row = *request;
  sort_rows(rows);
  return 1;
}

}  // namespace

void CFM_MD_MA_Clear() {
  memset(g_md_rows, 0, sizeof g_md_rows);
  memset(g_ma_rows, 0, sizeof g_ma_rows);
}

int CFM_Get_MD_Entry(MdEntry *entry) {
  if (entry == nullptr) return 0;
  const MdEntry *row = find_used(g_md_rows, entry->MdIndex);
  if (row == nullptr) return 0;
  *entry = *row;
  return 1;
}

int CFM_GetNext_MD_Entry(MdEntry *entry) {
  if (entry == nullptr) return 0;
  const MdEntry *row = find_next_used(g_md_rows, entry->MdIndex);
  if (row == nullptr) return 0;
  *entry = *row;
  return 1;
}

int CFM_Set_MD_Entry(MdEntry *entry) {
  if (entry == nullptr) return 0;
  return set_row(g_md_rows, entry);
}

int CFM_Get_MA_Net_Entry(MaNetEntry *entry) {
  if (entry == nullptr) return 0;
  const MaNetEntry *row = find_used(g_ma_rows, entry->MaIndex);
  if (row == nullptr) return 0;
  *entry = *row;
  return 1;
}

int CFM_GetNext_MA_Net_Entry(MaNetEntry *entry) {
  if (entry == nullptr) return 0;
  const MaNetEntry *row = find_next_used(g_ma_rows, entry->MaIndex);
  if (row == nullptr) return 0;
  *entry = *row;
  return 1;
}

// An MA index is unique across all MDs: a request naming an existing MA under
// another MD is refused.
int CFM_Set_MA_Net_Entry(MaNetEntry *entry) {
  if (entry == nullptr) return 0;
  const MaNetEntry *row = find_used(g_ma_rows, entry->MaIndex);
  if (row != nullptr && row->MdIndex != entry->MdIndex) {
    return 0;
  }
  return set_row(g_ma_rows, entry);
}
