#include "core/os.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// Identifiers of the sets this process created, for removal at exit. A fixed
// array of atomics so a signal handler can walk it without locks; -1 marks a
// free slot (0 is a valid set id, and may belong to another program).
constexpr int kMaxSemaphores = 64;
struct SemSlot {
  std::atomic<int> id{-1};
};
SemSlot g_sem_slots[kMaxSemaphores];
std::atomic<int> g_sem_used{0};

// Creation and shutdown exclude each other (each announces itself, then
// looks at the other's flag): shutdown waits for a creation under way, and
// no creation starts once shutdown has begun. The creating thread blocks the
// termination signals meanwhile, so shutdown never waits for its own thread.
std::atomic<int> g_creating{0};
std::atomic<bool> g_terminating{false};

// The state file naming this process and its sets; empty: none is kept.
char g_state_path[256];
bool g_state_written = false;

std::atomic<CfmClockSource> g_clock_source{nullptr};

int g_mep_syc_sem = -1;

#ifdef CFMD_TSAN
// ThreadSanitizer does not see System V semaphores: each one is shown to it
// as a lock on its slot.
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
void *tsan_sync_address(int id) {
  for (SemSlot &slot : g_sem_slots) {
    if (slot.id.load() == id) return &slot;
  }
  return &g_sem_used;
}
#define CFM_TSAN_ACQUIRE(id) __tsan_acquire(tsan_sync_address(id))
#define CFM_TSAN_RELEASE(id) __tsan_release(tsan_sync_address(id))
#else
#define CFM_TSAN_ACQUIRE(id) ((void)0)
#define CFM_TSAN_RELEASE(id) ((void)0)
#endif

void block_termination_signals(sigset_t *saved) {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (int sig : kCfmTerminationSignals) sigaddset(&blocked, sig);
  pthread_sigmask(SIG_BLOCK, &blocked, saved);
}

void remember_semaphore(int id) {
  int slot = g_sem_used.fetch_add(1);
  if (slot < kMaxSemaphores) {
    g_sem_slots[slot].id.store(id);
  }
}

// "PID ID ID ...", written beside the file and renamed over it, so a reader
// never sees a partial list.
void write_state_file() {
  if (g_state_path[0] == '\0') return;
  char text[16 + 12 * kMaxSemaphores];
  size_t len = static_cast<size_t>(snprintf(text, sizeof text, "%d", static_cast<int>(getpid())));
  for (SemSlot &slot : g_sem_slots) {
    int id = slot.id.load();
    if (id >= 0 && len < sizeof text) len += static_cast<size_t>(snprintf(text + len, sizeof text - len, " %d", id));
  }
  if (len >= sizeof text - 1) len = sizeof text - 2;
  text[len++] = '\n';
  char tmp[sizeof g_state_path + 4];
  snprintf(tmp, sizeof tmp, "%s.tmp", g_state_path);
  int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  bool whole = write(fd, text, len) == static_cast<ssize_t>(len);
  close(fd);
  if (whole && rename(tmp, g_state_path) == 0) g_state_written = true;
}

// A process other than this one that still exists.
bool other_process_alive(long pid) {
  return pid > 0 && pid != getpid() && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

union SemctlArg {
  int val;
  struct semid_ds *buf;
};

// Removes the sets a killed earlier run left behind: those listed in the
// state file while its process is gone, that still exist, were last changed
// before the file was written (an id reused later is someone else's), and
// that no live process operated on last.
void remove_stale_sets(const char *path) {
  FILE *file = fopen(path, "r");
  if (file == nullptr) return;
  struct stat written = {};
  long pid = 0;
  if (fstat(fileno(file), &written) == 0 && fscanf(file, "%ld", &pid) == 1 && !other_process_alive(pid)) {
    for (int id = 0; fscanf(file, "%d", &id) == 1;) {
      struct semid_ds ds = {};
      SemctlArg arg;
      arg.buf = &ds;
      if (id < 0 || semctl(id, 0, IPC_STAT, arg) < 0) continue;
      // One second of slack: file times come from a coarser clock.
      if (ds.sem_nsems != 1 || ds.sem_ctime > written.st_mtime + 1) continue;
      if (other_process_alive(semctl(id, 0, GETPID))) continue;
      semctl(id, 0, IPC_RMID);
    }
  }
  fclose(file);
}

uint32_t wall_clock_seconds() { return static_cast<uint32_t>(time(nullptr)); }

}  // namespace

void CFM_OS_Init(const char *state_file) {
  if (state_file == nullptr || strlen(state_file) >= sizeof g_state_path) return;
  // The directory may live on a fresh tmpfs.
  char dir[sizeof g_state_path];
  snprintf(dir, sizeof dir, "%s", state_file);
  char *slash = strrchr(dir, '/');
  if (slash != nullptr && slash != dir) {
    *slash = '\0';
    mkdir(dir, 0755);
  }
  remove_stale_sets(state_file);
  sigset_t saved;
  block_termination_signals(&saved);
  snprintf(g_state_path, sizeof g_state_path, "%s", state_file);
  if (g_sem_used.load() > 0) write_state_file();
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

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
  sigset_t saved;
  block_termination_signals(&saved);
  g_creating.fetch_add(1);
  if (g_terminating.load()) {
    // The process is being ended by a signal on another thread.
    g_creating.fetch_sub(1);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    for (;;) pause();
  }
  int id = semget(IPC_PRIVATE, 1, IPC_CREAT);
  int err = id < 0 ? errno : 0;
  if (id >= 0) {
    remember_semaphore(id);
    if (semctl(id, 0, SETVAL, initial_count) < 0) err = errno;
    write_state_file();
  }
  g_creating.fetch_sub(1);
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  if (err != 0) {
    errno = err;
    perror(id < 0 ? "semget failed Reason:" : "semctl failure Reason:");
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
  CFM_TSAN_ACQUIRE(sem_id);
}

void CFM_OS_Release_Semaphore(int sem_id) {
  struct sembuf op = {0, +1, 0};
  CFM_TSAN_RELEASE(sem_id);
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
    g_sem_slots[i].id.compare_exchange_strong(expected, -1);
  }
}

void CFM_OS_Remove_All_Semaphores() {
  int used = g_sem_used.load();
  for (int i = 0; i < used && i < kMaxSemaphores; ++i) {
    int id = g_sem_slots[i].id.exchange(-1);
    if (id >= 0) {
      semctl(id, 0, IPC_RMID);
    }
  }
}

void CFM_OS_Shutdown_Semaphores() {
  g_terminating.store(true);
  while (g_creating.load() != 0) {
    struct timespec pause = {0, 100000};
    nanosleep(&pause, nullptr);
  }
  CFM_OS_Remove_All_Semaphores();
  if (g_state_written) unlink(g_state_path);
}

int CFM_OS_Semaphore_Count() {
  int used = g_sem_used.load();
  int live = 0;
  for (int i = 0; i < used && i < kMaxSemaphores; ++i) {
    if (g_sem_slots[i].id.load() >= 0) {
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
