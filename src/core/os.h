// OS adaptation layer: memory, tasks, System V semaphores, clock and sleep.
// Every other module reaches the operating system only through here.
#pragma once
#include <pthread.h>

#include <csignal>

#include <cstddef>
#include <cstdint>
#include <mutex>

// A condition variable on the monotonic clock for a task that waits under a
// std::mutex. (The C++ library's own would bring the exception runtime into
// the router's build.) The caller holds `mutex` across each wait.
class CfmWake {
 public:
  CfmWake();
  CfmWake(const CfmWake &) = delete;
  CfmWake &operator=(const CfmWake &) = delete;
  void wait(std::mutex &mutex);
  void wait_ms(std::mutex &mutex, int ms);  // at most ms, or until notified
  void notify() { pthread_cond_signal(&cond_); }

 private:
  pthread_cond_t cond_;
};

// Where the daemon names its pid and semaphore sets, so that a run after one
// killed outright removes what that one left.
#define CFM_SEM_STATE_FILE "/var/run/cfmd.sems"

// Removes the sets a killed earlier run listed in state_file, then keeps
// that file up to date with this process's sets.
void CFM_OS_Init(const char *state_file = CFM_SEM_STATE_FILE);
// The removal step of CFM_OS_Init alone: the sets of a dead recorded process
// that still look as recorded are removed.
void CFM_OS_Remove_Stale_Sets(const char *state_file);

// The record "PID ID:CTIME ID:CTIME ...\n" (older records: "PID ID ID ...").
// A set without a time has ctime -1.
constexpr int CFM_STALE_MAX_SETS = 64;
struct CfmStaleSet {
  int id;
  long long ctime;
};
struct CfmStaleRecord {
  long pid;
  size_t count;
  CfmStaleSet sets[CFM_STALE_MAX_SETS];
};
// One beyond the highest pid the kernel hands out: the number in `path`, or
// 4194304 (the largest it can be) when it cannot be read.
long cfm_pid_max(const char *path = "/proc/sys/kernel/pid_max");
// Parses the first `len` bytes of a record; false when the pid is missing,
// at most 1 or not below cfm_pid_max(). Reading stops at the first word
// that is not a set; negative ids are skipped.
bool cfm_parse_stale_record(const char *text, size_t len, CfmStaleRecord *out);
void *CFM_OS_Allocate_Memory(size_t size);
void CFM_OS_Deallocate_Memory(void *ptr);

using CfmTaskEntry = void *(*)(void *);
// 1 on success, 0 on failure. Name, stack size and priority are not used.
int CFM_OS_Create_Task(pthread_t *thread, const char *name, CfmTaskEntry entry, uint32_t stack_size,
                       uint32_t priority);

// A semaphore is the identifier of a System V set holding one semaphore.
int CFM_OS_Create_Semaphore(const char *name, int max_count, int initial_count);
void CFM_OS_Obtain_Semaphore(int sem_id);
void CFM_OS_Release_Semaphore(int sem_id);
void CFM_OS_Delete_Semaphore(int sem_id);

// Signals that end the daemon after its sets are removed.
constexpr int kCfmTerminationSignals[] = {SIGTERM, SIGINT, SIGHUP, SIGQUIT};

// Removes every semaphore set this process created (async-signal-safe).
void CFM_OS_Remove_All_Semaphores();
// For the termination handler, on whichever thread it runs: stops further
// creation, waits for one under way, removes every set and the state file.
void CFM_OS_Shutdown_Semaphores();
// Number of semaphore sets created and not yet removed (for tests).
int CFM_OS_Semaphore_Count();

void CFM_OS_Fatal_Error_Handler();

// Units of CFM_OS_Get_SystemTime.
constexpr int CFM_TIME_MSEC = 0;
constexpr int CFM_TIME_HUNDREDTHS = 1;
constexpr int CFM_TIME_TENTHS = 2;
constexpr int CFM_TIME_SEC = 3;
uint32_t CFM_OS_Get_SystemTime(int unit);
// The wall clock in milliseconds since the epoch (the clock seam below, when
// set, in whole seconds).
uint64_t CFM_OS_Get_Wall_Ms();
void CFM_OS_Sleep(uint32_t milliseconds);

// Clock seam: tests replace the wall clock (whole seconds since the epoch).
using CfmClockSource = uint32_t (*)();
void CFM_OS_Set_Clock_Source(CfmClockSource source);  // null restores time()

// The MEP_SYC lock that serialises the receive task's engines with the tick.
void CFM_Create_MEP_SYC_Sem();
void CFM_Obtain_MEP_SYC_Sem();
void CFM_Release_MEP_SYC_Sem();

// RAII holder for MEP_SYC, for call sites with several exits.
class MepSycLock {
 public:
  MepSycLock() { CFM_Obtain_MEP_SYC_Sem(); }
  ~MepSycLock() { CFM_Release_MEP_SYC_Sem(); }
  MepSycLock(const MepSycLock &) = delete;
  MepSycLock &operator=(const MepSycLock &) = delete;
};

// RAII holder for a table semaphore.
class SemLock {
 public:
  explicit SemLock(int sem_id) : id_(sem_id) { CFM_OS_Obtain_Semaphore(id_); }
  ~SemLock() { CFM_OS_Release_Semaphore(id_); }
  SemLock(const SemLock &) = delete;
  SemLock &operator=(const SemLock &) = delete;

 private:
  int id_;
};
