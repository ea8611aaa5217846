#include "core/os.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

// Identifiers of the sets this process created, for removal at exit. A fixed
// array of atomics so the signal handler can walk it without locks.
constexpr int kMaxSemaphores = 64;
std::atomic<int> g_sem_ids[kMaxSemaphores];
std::atomic<int> g_sem_used{0};

std::atomic<CfmClockSource> g_clock_source{nullptr};

int g_mep_syc_sem = -1;

void remember_semaphore(int id) {
  int slot = g_sem_used.fetch_add(1);
  if (slot < kMaxSemaphores) {
    g_sem_ids[slot].store(id);
  }
}

uint32_t wall_clock_seconds() { return static_cast<uint32_t>(time(nullptr)); }

}  // namespace

void CFM_OS_Init() {}

void *CFM_OS_Allocate_Memory(size_t size) { return malloc(size); }

void CFM_OS_Deallocate_Memory(void *ptr) {
  if (ptr != nullptr) {
    free(ptr);
  }
}

int CFM_OS_Create_Task(pthread_t *thread, const char * /*name*/, CfmTaskEntry entry, uint32_t /*stack_size*/,
                       uint32_t /*priority*/) {
  pthread_t local;
  return pthread_create(thread != nullptr ? thread : &local, nullptr, entry, nullptr) == 0 ? 1 : 0;
}

int CFM_OS_Create_Semaphore(const char * /*name*/, int /*max_count*/, int initial_count) {
  int id = semget(IPC_PRIVATE, 1, IPC_CREAT);
  if (id < 0) {
    perror("semget failed Reason:");
    return id;
  }
  remember_semaphore(id);
  if (semctl(id, 0, SETVAL, initial_count) < 0) {
    perror("semctl failure Reason:");
  }
  return id;
}

void CFM_OS_Obtain_Semaphore(int sem_id) {
  struct sembuf op = {0, -1, 0};
  while (semop(sem_id, &op, 1) < 0) {
    if (errno != EINTR) {
      perror("semaphore lock fail, Reason:");
      return;
    }
  }
}

void CFM_OS_Release_Semaphore(int sem_id) {
  struct sembuf op = {0, +1, 0};
  if (semop(sem_id, &op, 1) < 0) {
    perror("semaphore unlock fail, Reason:");
  }
}

void CFM_OS_Delete_Semaphore(int sem_id) {
  if (semctl(sem_id, 1, IPC_RMID) < 0) {
    perror("semctl failure while clearing Reason:");
    return;
  }
  int used = g_sem_used.load();
  for (int i = 0; i < used && i < kMaxSemaphores; ++i) {
    int expected = sem_id;
    g_sem_ids[i].compare_exchange_strong(expected, -1);
  }
}

void CFM_OS_Remove_All_Semaphores() {
  int used = g_sem_used.load();
  for (int i = 0; i < used && i < kMaxSemaphores; ++i) {
    int id = g_sem_ids[i].exchange(-1);
    if (id >= 0) {
      semctl(id, 0, IPC_RMID);
    }
  }
}

int CFM_OS_Semaphore_Count() {
  int used = g_sem_used.load();
  int live = 0;
  for (int i = 0; i < used && i < kMaxSemaphores; ++i) {
    if (g_sem_ids[i].load() >= 0) {
      ++live;
    }
  }
  return live;
}

void CFM_OS_Fatal_Error_Handler() {}

uint32_t CFM_OS_Get_SystemTime(int unit) {
  CfmClockSource source = g_clock_source.load();
  uint32_t seconds = source != nullptr ? source() : wall_clock_seconds();
  switch (unit) {
    case CFM_TIME_HUNDREDTHS:
      return seconds * 100u;
    case CFM_TIME_TENTHS:
      return seconds * 10u;
    case CFM_TIME_SEC:
      return seconds;
    default:
      return seconds * 1000u;
  }
}

void CFM_OS_Sleep(uint32_t milliseconds) { usleep(static_cast<useconds_t>(milliseconds) * 1000u); }

void CFM_OS_Set_Clock_Source(CfmClockSource source) { g_clock_source.store(source); }

void CFM_Create_MEP_SYC_Sem() {
  if (g_mep_syc_sem < 0) {
    g_mep_syc_sem = CFM_OS_Create_Semaphore("MEP_SYC", 1, 1);
  }
}

void CFM_Obtain_MEP_SYC_Sem() { CFM_OS_Obtain_Semaphore(g_mep_syc_sem); }

void CFM_Release_MEP_SYC_Sem() { CFM_OS_Release_Semaphore(g_mep_syc_sem); }
