// The shared part of cfmd_bench: the lab (namespaces, tmpfs over /var, the
// veth pair wan0 <-> peer0), raw sockets on the peer's side, the frames the
// peer sends, the bare reflector, the daemon under measurement and the
// table every scenario adds its rows to.
#ifndef CFMD_BENCH_HARNESS_H
#define CFMD_BENCH_HARNESS_H

#include <linux/filter.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#ifndef CFMD_DEFAULT_BINARY
#define CFMD_DEFAULT_BINARY "build/cfmd"
#endif

namespace bench {

using Frame = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

constexpr Mac kWanMac = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};
constexpr Mac kPeerMac = {0x02, 0x00, 0x00, 0x00, 0x0b, 0x02};
constexpr int kRemoteMeps = 64;
constexpr uint16_t kFirstRemoteMepId = 100;

// ------------------------------------------------------------ small helpers

int64_t mono_ns();
int64_t real_ns();
void sleep_ms(int ms);
[[noreturn]] void die(const std::string &what);
std::string read_file(const std::string &path);
bool write_file(const std::string &path, const std::string &text);
void make_dirs(const std::string &path);
int shell(const std::string &command);
double percentile(std::vector<double> v, double p);
// Process CPU time (all threads, also ended ones) of another process, in ns.
int64_t cpu_ns(pid_t pid);
// "Key:   1234 kB" from a /proc file, in KiB; -1 when missing.
long proc_kib(const std::string &text, const std::string &key);
int count_of(const std::string &text, const std::string &what);
std::string fmt(const char *format, double v);

// ------------------------------------------------------------ frames

// Where the CFM header starts behind up to two tags; 0 when not CFM.
size_t cfm_offset(const uint8_t *f, size_t n);
uint32_t be32(const uint8_t *p);
void put_be32(uint8_t *p, uint32_t v);
// Addresses, one tag (priority, VID) and the CFM EtherType.
Frame header(const Mac &dst, const Mac &src, uint8_t priority, uint16_t vid);
// LBM at level 2 on VID 100 from the peer to the daemon, 64 bytes.
Frame lbm(uint32_t id);
// The id of an LBM or LBR (as read, with or without its tag); false otherwise.
bool lb_id(const uint8_t *f, size_t n, uint8_t opcode, uint32_t *id);
// A CCM from remote MEP `mep_id` at `level` for MD `md` / MA `ma` (names as
// the daemon writes them in its MAID: format 4 and 2, character strings),
// behind a tag with VID `vid`.
Frame ccm(uint16_t mep_id, uint32_t sequence, uint8_t interval, uint8_t level, const std::string &md,
          const std::string &ma, uint16_t vid);
// The 64 remote MEPs' CCMs (the same sequence number each time).
std::vector<Frame> remote_ccms(uint8_t interval, uint8_t level, const std::string &md, const std::string &ma);

// ------------------------------------------------------------ raw sockets

class RawSocket {
 public:
  RawSocket() = default;
  RawSocket(const RawSocket &) = delete;
  RawSocket &operator=(const RawSocket &) = delete;
  ~RawSocket();
  // protocol 0: a socket that only sends. `opcode`: keep only CFM frames
  // with it. Outgoing frames are ignored where the kernel can.
  void Open(const char *ifname, bool receive, int opcode = -1, bool auxdata = false);
  int fd() const { return fd_; }
  bool Send(const Frame &f);
  // Sends the frames in one call (as many as the kernel takes); the count sent.
  int SendBatch(const std::vector<const Frame *> &frames);
  bool Wait(int timeout_ms);
  // One frame as the kernel hands it (no tag re-insertion); -1 when none.
  // `*stamp_ns`, when asked, is the kernel's receive time (CLOCK_REALTIME).
  long Read(uint8_t *buf, size_t cap, int64_t *stamp_ns = nullptr);
  void Drain();
  void EnableTimestamps();

 private:
  int fd_ = -1;
  std::vector<sock_filter> filter_;
};

// Sends the frames round robin at `rate` per second for `seconds`, paced in
// 1 ms slots; the number sent.
long paced_send(RawSocket &tx, const std::vector<Frame> &frames, double rate, double seconds);

// The physical limit for LBM -> LBR on this link (see harness.cc). Never returns.
[[noreturn]] void reflect(const char *ifname);

// ------------------------------------------------------------ the daemon

class Daemon {
 public:
  explicit Daemon(std::string binary) : binary_(std::move(binary)) {}
  Daemon(const Daemon &) = delete;
  Daemon &operator=(const Daemon &) = delete;
  ~Daemon() { Stop(); }
  // Starts it with the arguments and waits until its command socket serves.
  // Its standard output and error go to OutputPath().
  void Start(const std::vector<std::string> &args);
  void Stop();
  pid_t pid() const { return pid_; }
  int64_t Cpu() const { return cpu_ns(pid_); }
  const std::string &OutputPath() const { return out_path_; }
  // Bytes the daemon has written to its output so far.
  size_t OutputSize() const;

  // Sends one request, waits until the daemon closes the connection; what
  // it printed meanwhile. `*ms` (when asked) is how long that took; -1 when
  // it was not served within timeout_ms.
  std::string Command(const std::string &request, double *ms = nullptr, int timeout_ms = 5000);
  void Commands(const std::vector<std::string> &requests);

 private:
  static bool Listening();
  std::string binary_, out_path_;
  pid_t pid_ = -1;
  int run_ = 0;
};

// The number a `runtime` selector prints for the one MEP.
long runtime_value(Daemon &d, int selector);
// Sends one CCM from each remote MEP until the daemon lists them all.
bool learn_remotes(Daemon &d, RawSocket &tx, const std::vector<Frame> &frames);

struct Memory {
  long rss = -1, pss = -1, priv = -1;
};
Memory memory_of(pid_t pid);

// ------------------------------------------------------------ the lab

// New network, mount and IPC namespaces, a tmpfs over /var, the veth pair.
// Call before any thread exists.
void enter_lab();
// The daemon's tick, read at its start from the tree under /var/tree.
void set_tick(const std::string &tick);

// ------------------------------------------------------------ scenarios

struct Options {
  bool quick = false;
  std::string binary = CFMD_DEFAULT_BINARY;
};

// The rows of the one table, printed in the order of their section and,
// within a section, in the order they were added, whatever order the
// scenarios ran in.
enum class Section { kLoopback, kIngest, kTick, kIdle, kMemory, kFlood, kOrdinary, kLog };

class Table {
 public:
  void Add(Section section, const std::string &what, const std::string &value, const std::string &note = "");
  void Print() const;

 private:
  struct Row {
    Section section;
    std::string what, value, note;
  };
  std::vector<Row> rows_;
};

// What a scenario gets: the options, a daemon object (stopped), the table.
struct Run {
  const Options &opt;
  Daemon &daemon;
  Table &table;
};

void scenario_loopback(Run &run);
void scenario_idle(Run &run);
void scenario_ccm_ingest(Run &run);
void scenario_tick(Run &run);
void scenario_flood(Run &run);
void scenario_ordinary(Run &run);
void scenario_log(Run &run);

}  // namespace bench

#endif  // CFMD_BENCH_HARNESS_H
