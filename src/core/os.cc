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
constexpr int kMaxSemaphores = CFM_STALE_MAX_SETS;
// Longest record: a pid and 64 "id:ctime" pairs; longer files are not read past it.
constexpr size_t kMaxStateRecord = 16 + 44 * kMaxSemaphores;
// The largest pid_max the kernel accepts (PID_MAX_LIMIT): pids stay below it.
constexpr long kPidMaxLimit = 4194304;
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

union SemctlArg {
  int val;
  struct semid_ds *buf;
};

void remember_semaphore(int id) {
  int slot = g_sem_used.fetch_add(1);
  if (slot < kMaxSemaphores) {
    g_sem_slots[slot].id.store(id);
  }
}

// Change time of a set, or -1 when it cannot be read.
long long set_change_time(int id) {
  struct semid_ds ds = {};
  SemctlArg arg;
  arg.buf = &ds;
  return semctl(id, 0, IPC_STAT, arg) == 0 ? static_cast<long long>(ds.sem_ctime) : -1;
}

// Serialises writers of the record (sets may be created on several threads).
pthread_mutex_t g_state_mutex = PTHREAD_MUTEX_INITIALIZER;

// Opens the temporary record file fresh: never through a link, never one
// that is already there. A leftover of a killed run (or a link put in its
// place) is removed once and the open tried again.
int open_fresh(const char *path) {
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = open(path, flags, 0644);
  if (fd < 0 && errno == EEXIST && unlink(path) == 0) fd = open(path, flags, 0644);
  return fd;
}

// "PID ID:CTIME ID:CTIME ...", written beside the file and renamed over it,
// so a reader never sees a partial list.
void write_state_file() {
  if (g_state_path[0] == '\0') return;
  pthread_mutex_lock(&g_state_mutex);
  char text[kMaxStateRecord];
  size_t len = static_cast<size_t>(snprintf(text, sizeof text, "%d", static_cast<int>(getpid())));
  for (SemSlot &slot : g_sem_slots) {
    int id = slot.id.load();
    if (id >= 0 && len < sizeof text) {
      len += static_cast<size_t>(snprintf(text + len, sizeof text - len, " %d:%lld", id, set_change_time(id)));
    }
  }
  if (len >= sizeof text - 1) len = sizeof text - 2;
  text[len++] = '\n';
  char tmp[sizeof g_state_path + 4];
  snprintf(tmp, sizeof tmp, "%s.tmp", g_state_path);
  int fd = open_fresh(tmp);
  if (fd >= 0) {
    bool whole = write(fd, text, len) == static_cast<ssize_t>(len);
    close(fd);
    if (whole && rename(tmp, g_state_path) == 0) {
      g_state_written = true;
    } else {
      unlink(tmp);
    }
  }
  pthread_mutex_unlock(&g_state_mutex);
}

// A process other than this one that still exists.
bool other_process_alive(long pid) {
  return pid > 0 && pid != getpid() && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

// Whether the set still looks like the one this daemon created and recorded:
// private key, mode 0, one semaphore and the recorded change time. A set
// without a recorded time (older records) cannot be told from one another
// program made since under a reused id, so it is kept; so is any set a live
// process operated on last.
bool looks_recorded(const CfmStaleSet &set) {
  struct semid_ds ds = {};
  SemctlArg arg;
  arg.buf = &ds;
  if (set.id < 0 || semctl(set.id, 0, IPC_STAT, arg) < 0) return false;
  if (ds.sem_perm.__key != IPC_PRIVATE || (ds.sem_perm.mode & 0777) != 0 || ds.sem_nsems != 1) return false;
  if (set.ctime < 0 || ds.sem_ctime != set.ctime) return false;
  return !other_process_alive(semctl(set.id, 0, GETPID));
}

// Removes the sets a killed earlier run left behind: those listed in the
// record while its process is gone, that still look as recorded.
void remove_stale_sets(const char *path) {
  int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  char text[kMaxStateRecord];
  ssize_t got = read(fd, text, sizeof text);
  close(fd);
  CfmStaleRecord record;
  if (got <= 0 || !cfm_parse_stale_record(text, static_cast<size_t>(got), &record)) return;
  if (other_process_alive(record.pid)) return;
  for (size_t i = 0; i < record.count; ++i) {
    if (looks_recorded(record.sets[i])) semctl(record.sets[i].id, 0, IPC_RMID);
  }
}

uint32_t wall_clock_seconds() { return static_cast<uint32_t>(time(nullptr)); }

bool is_digit(const char *text, size_t len, size_t at) { return at < len && text[at] >= '0' && text[at] <= '9'; }

// Reads a decimal number (optionally negative) at *pos; more than 18 digits
// (which could overflow) is no number.
bool read_number(const char *text, size_t len, size_t *pos, long long *value) {
  bool negative = *pos < len && text[*pos] == '-';
  size_t at = *pos + (negative ? 1 : 0), digits = 0;
  long long number = 0;
  for (; is_digit(text, len, at) && digits < 18; ++at, ++digits) number = number * 10 + (text[at] - '0');
  if (digits == 0 || is_digit(text, len, at)) return false;
  *pos = at;
  *value = negative ? -number : number;
  return true;
}

void skip_blanks(const char *text, size_t len, size_t *pos) {
  while (*pos < len && (text[*pos] == ' ' || text[*pos] == '\t' || text[*pos] == '\n')) ++*pos;
}

}  // namespace

long cfm_pid_max(const char *path) {
  char text[32];
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  ssize_t got = fd >= 0 ? read(fd, text, sizeof text) : -1;
  if (fd >= 0) close(fd);
  size_t pos = 0;
  long long value = 0;
  if (got <= 0 || !read_number(text, static_cast<size_t>(got), &pos, &value)) return kPidMaxLimit;
  return static_cast<long>(value);
}

bool cfm_parse_stale_record(const char *text, size_t len, CfmStaleRecord *out) {
  *out = {};
  size_t pos = 0;
  long long pid = 0;
  skip_blanks(text, len, &pos);
  if (!read_number(text, len, &pos, &pid) || pid <= 1 || pid >= cfm_pid_max()) return false;
  out->pid = static_cast<long>(pid);
  for (skip_blanks(text, len, &pos); pos < len && out->count < kMaxSemaphores; skip_blanks(text, len, &pos)) {
    long long id = 0, ctime = -1;
    if (!read_number(text, len, &pos, &id)) break;
    if (pos < len && text[pos] == ':' && (++pos, !read_number(text, len, &pos, &ctime))) break;
    if (id < 0 || id > INT32_MAX || ctime < -1) continue;
    out->sets[out->count++] = {static_cast<int>(id), ctime};
  }
  return true;
}

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
  CFM_OS_Remove_Stale_Sets(state_file);
  sigset_t saved;
  block_termination_signals(&saved);
  snprintf(g_state_path, sizeof g_state_path, "%s", state_file);
  if (g_sem_used.load() > 0) write_state_file();
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

void CFM_OS_Remove_Stale_Sets(const char *state_file) { remove_stale_sets(state_file); }

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

uint64_t CFM_OS_Get_Wall_Ms() {
  CfmClockSource source = g_clock_source.load();
  if (source != nullptr) return static_cast<uint64_t>(source()) * 1000u;
  struct timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
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

CfmWake::CfmWake() {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&cond_, &attr);
  pthread_condattr_destroy(&attr);
}

void CfmWake::wait(std::mutex &mutex) { pthread_cond_wait(&cond_, mutex.native_handle()); }

void CfmWake::wait_ms(std::mutex &mutex, int ms) {
  struct timespec at;
  clock_gettime(CLOCK_MONOTONIC, &at);
  at.tv_sec += ms / 1000;
  at.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (at.tv_nsec >= 1000000000L) at.tv_sec += 1, at.tv_nsec -= 1000000000L;
  pthread_cond_timedwait(&cond_, mutex.native_handle(), &at);
}
