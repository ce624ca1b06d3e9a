// Open+close latency on a private tmpfs with and without a fanotify permission listener in
// the way: nothing, a minimal responder that allows everything, that responder reading the
// per-event metadata a host needs, and oasd itself (none and libclamav engines) as a child.
// The program owns its responder's fanotify group and reader thread and the oasd child; the
// tmpfs and the private mount namespace belong to bench/open_latency.sh, which starts it.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#ifndef OASD_BINARY
#define OASD_BINARY "oasd"
#endif

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr size_t MiB = 1024 * 1024;

struct Options {
  std::string dir;      // the tmpfs every configuration intercepts (its root)
  std::string scratch;  // oasd's log and metrics, on a mount nothing marks
  std::string oasd = OASD_BINARY;
  size_t iterations = 20000;  // per small or repeated configuration
  size_t warmup = 1000;
  size_t firstOpens = 100;  // fresh 1 MiB files, each opened once under libclamav
  unsigned budgetS = 110;   // the whole run; past it the process ends and its marks go
  bool withOasd = true;
  // --respond: only the minimal responder (b), until standard input closes, for
  // bench/workload.sh; the process running it is not the one that made the namespace.
  bool respondOnly = false;
};

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error(what); }

std::string ErrnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

// ---- The sandbox the run depends on ----

std::string ReadLink(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t n = ::readlink(path.c_str(), target, sizeof target);
  return n < 0 ? std::string() : std::string(target, static_cast<size_t>(n));
}

// The name bench/open_latency.sh gives the tmpfs it mounts: only that mount is ever marked.
constexpr std::string_view MountSource = "oas-open-latency";

// The source and type of the mount on top at mountPoint, as "source type"; empty if none.
std::string MountAt(const std::string& mountPoint) {
  std::ifstream mountinfo("/proc/self/mountinfo");
  std::string found;
  for (std::string line; std::getline(mountinfo, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, point, field;
    fields >> id >> parent >> device >> root >> point;
    if (point != mountPoint) continue;
    while (fields >> field && field != "-") {
    }
    std::string type, source;
    fields >> type >> source;
    found = source + " " + type;  // later lines are mounted on top of earlier ones
  }
  return found;
}

// A listener on any other mount would hold up the machine's own opens, so the program
// refuses to run anywhere but on the script's tmpfs, in a mount namespace its parent does
// not share (one it cannot read counts as shared). The responder alone (--respond) runs
// beside bench/workload.sh's shell in that shell's namespace: the mount's name is its check.
void RequirePrivateTmpfs(const std::string& dir, bool respondOnly) {
  std::error_code ec;
  const std::string canonical = std::filesystem::canonical(dir, ec).string();
  if (ec) Fail(dir + ": " + ec.message());
  if (MountAt(canonical) != std::string(MountSource) + " tmpfs")
    Fail(canonical + " is not a tmpfs mounted as " + std::string(MountSource));
  if (respondOnly) return;
  const std::string own = ReadLink("/proc/self/ns/mnt");
  const std::string parents = ReadLink("/proc/" + std::to_string(::getppid()) + "/ns/mnt");
  if (own.empty() || parents.empty() || own == parents)
    Fail("not in a mount namespace of its own: start this through bench/open_latency.sh");
}

// ---- Files and timing ----

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out.flush()) Fail("cannot write " + path);
}

std::string RandomBytes(size_t size, std::mt19937_64& random) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i + 8 <= size; i += 8) {
    const uint64_t word = random();
    std::memcpy(&bytes[i], &word, 8);
  }
  return bytes;
}

constexpr std::string_view CleanText = "Plain words, clean and short: a file any text cache admits.\n";
const std::string TextLabel = "text " + std::to_string(CleanText.size()) + " B";

// Everything is written before any listener starts, so no configuration times a write.
// Random contents keep every 1 MiB file distinct for any cache keyed by contents.
struct Files {
  std::string text;         // a short clean text file: the module's text cache admits it
  std::string smallBinary;  // 4 KiB of random bytes: no text cache admits it
  std::string big;          // 1 MiB of random bytes, opened again and again
  std::vector<std::string> fresh;  // 1 MiB each, opened once each
  std::string eicar;        // the standard test file, to prove libclamav is in the path
};

Files MakeFiles(const Options& options) {
  std::mt19937_64 random(20260101);
  Files files;
  files.text = options.dir + "/clean.txt";
  WriteFile(files.text, std::string(CleanText));
  files.smallBinary = options.dir + "/small.bin";
  WriteFile(files.smallBinary, RandomBytes(4096, random));
  files.big = options.dir + "/big.bin";
  WriteFile(files.big, RandomBytes(MiB, random));
  if (options.withOasd) {
    std::filesystem::create_directory(options.dir + "/fresh");
    for (size_t i = 0; i < options.firstOpens; ++i) {
      files.fresh.push_back(options.dir + "/fresh/" + std::to_string(i) + ".bin");
      WriteFile(files.fresh.back(), RandomBytes(MiB, random));
    }
  }
  files.eicar = options.dir + "/eicar.txt";
  WriteFile(files.eicar, std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR") +
                             "-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*");
  return files;
}

uint32_t TimeOneOpen(const std::string& path) {
  const auto start = Clock::now();
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(ErrnoText("open " + path));
  ::close(fd);
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
  return static_cast<uint32_t>(std::min<int64_t>(ns.count(), UINT32_MAX));
}

// Samples of open+close in nanoseconds, one per element of `paths` taken round and round.
std::vector<uint32_t> TimeOpens(const std::vector<std::string>& paths, size_t iterations) {
  std::vector<uint32_t> samples;
  samples.reserve(iterations);
  for (size_t i = 0; i < iterations; ++i) samples.push_back(TimeOneOpen(paths[i % paths.size()]));
  return samples;
}

void WarmUp(const std::string& path, size_t iterations) {
  for (size_t i = 0; i < iterations; ++i) TimeOneOpen(path);
}

// ---- The in-process responder ----

// What (c) reads before it answers: the same as oasd's reader builds its event record from
// (host/interception/event_record.cpp), with the same caches, so (d) over (c) is what oasd adds beyond
// reading the event. (c') makes the process reads on every event: a host without that cache.
// Printed with the results so the comparison states what it includes.
constexpr const char* MetadataReads =
    "readlink /proc/self/fd/N; fstat(N); fstatfs(N) once per device; and once per opener "
    "pid and second (every event in (c')): open /proc/PID O_PATH, fstat it (uid), fstatat "
    "ns/mnt (namespace), openat+read to EOF+close stat (start time), close";

// The reads above, on the responder's thread alone (no locks). Nothing here throws into
// the reader: a failed read is counted and the event is answered all the same.
class MetadataReader {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr auto ProcessLifetime = 1s;

  explicit MetadataReader(bool cacheProcesses) : m_cacheProcesses(cacheProcesses) {}

  // false when a read failed.
  bool Read(int fd, int32_t pid) noexcept {
    try {
      const auto now = Clock::now();
      char link[32];
      std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
      const ssize_t pathLength = ::readlink(link, m_path, sizeof m_path);
      struct stat file {};
      const bool stated = ::fstat(fd, &file) == 0;
      if (stated) FilesystemType(fd, file.st_dev);
      const Process process = Lookup(pid, now);
      return pathLength >= 0 && stated && process.read;
    } catch (...) {
      return false;
    }
  }

 private:
  struct Process {
    bool read = false;
    uint32_t uid = 0;
    uint64_t nsid = 0;
    uint64_t startTicks = 0;
    Clock::time_point readAt;
  };

  uint64_t FilesystemType(int fd, uint64_t dev) {
    if (const auto it = m_filesystems.find(dev); it != m_filesystems.end()) return it->second;
    struct statfs fs {};
    const uint64_t type = ::fstatfs(fd, &fs) == 0 ? static_cast<uint64_t>(fs.f_type) : 0;
    m_filesystems.emplace(dev, type);
    return type;
  }

  Process Lookup(int32_t pid, Clock::time_point now) {
    if (m_cacheProcesses) {
      const auto it = m_processes.find(pid);
      if (it != m_processes.end() && now - it->second.readAt < ProcessLifetime) return it->second;
    }
    Process process = ReadProcess(pid);
    process.readAt = now;
    if (m_cacheProcesses && process.read) m_processes.insert_or_assign(pid, process);
    return process;
  }

  // One descriptor of the process's directory, so every read describes the same process.
  static Process ReadProcess(int32_t pid) noexcept {
    Process process;
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d", pid);
    const int dir = ::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return process;
    struct stat st {};
    process.read = ::fstat(dir, &st) == 0;
    process.uid = st.st_uid;
    if (::fstatat(dir, "ns/mnt", &st, 0) == 0) process.nsid = st.st_ino;
    process.startTicks = ReadStartTicks(dir);
    process.read = process.read && process.startTicks != 0;
    ::close(dir);
    return process;
  }

  // Field 22 of stat, counted after the command name's closing parenthesis.
  static uint64_t ReadStartTicks(int dir) noexcept {
    const int fd = ::openat(dir, "stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    char text[4096];
    size_t size = 0;
    ssize_t n = 0;
    while (size < sizeof text - 1 && (n = ::read(fd, text + size, sizeof text - 1 - size)) > 0)
      size += static_cast<size_t>(n);
    ::close(fd);
    text[size] = '\0';
    const char* field = std::strrchr(text, ')');
    for (int i = 2; field && i < 22; ++i) field = std::strchr(field + 1, ' ');
    return field ? std::strtoull(field + 1, nullptr, 10) : 0;
  }

  const bool m_cacheProcesses;
  std::unordered_map<int32_t, Process> m_processes;
  std::unordered_map<uint64_t, uint64_t> m_filesystems;
  char m_path[PATH_MAX];
};

enum class Work { AllowOnly, ReadMetadata, ReadMetadataUncached };

// Every open on the marked mount waits for this object's thread, so the thread answers
// every event it reads whatever else fails, and Stop removes the mark before it lets the
// thread go. Closing the group (Stop, or the process ending) allows whatever is left.
class Responder {
 public:
  Responder(const std::string& dir, Work work) : m_work(work) {
    m_group = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE | O_CLOEXEC);
    if (m_group < 0) Fail(ErrnoText("fanotify_init"));
    // The reader runs before the mark exists: no event can be queued without one.
    m_thread = std::thread([this] { Loop(); });
    if (fanotify_mark(m_group, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_PERM, AT_FDCWD,
                      dir.c_str()) != 0) {
      const std::string error = ErrnoText("fanotify_mark " + dir);
      Stop();
      Fail(error);
    }
  }
  ~Responder() { Stop(); }
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  void Stop() noexcept {
    if (m_group < 0) return;
    fanotify_mark(m_group, FAN_MARK_FLUSH | FAN_MARK_MOUNT, 0, AT_FDCWD, nullptr);
    m_stopping.store(true);
    // A blocking read wakes only for an event or a signal; a signal sent just before the
    // read starts is lost, so it is sent again until the thread has left.
    while (!m_exited.load()) {
      pthread_kill(m_thread.native_handle(), SIGUSR2);
      std::this_thread::sleep_for(1ms);
    }
    m_thread.join();
    ::close(m_group);
    m_group = -1;
  }

  uint64_t Events() const { return m_events.load(); }
  uint64_t Errors() const { return m_errors.load(); }

 private:
  // One blocking read per batch, the least a listener can do between two opens. A read
  // that fails has already had the kernel deny the event it could not deliver, so the
  // loop only counts it.
  void Loop() noexcept {
    alignas(fanotify_event_metadata) char buffer[16384];
    while (!m_stopping.load()) {
      ssize_t left = ::read(m_group, buffer, sizeof buffer);
      if (left < 0) {
        if (errno != EINTR) {
          m_errors.fetch_add(1);
          std::this_thread::sleep_for(1ms);
        }
        continue;
      }
      auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
      for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) Handle(*event);
    }
    m_exited.store(true);
  }

  void Handle(const fanotify_event_metadata& event) noexcept {
    m_events.fetch_add(1, std::memory_order_relaxed);
    if (event.fd < 0) return;  // a queue overflow carries no file and needs no answer
    if (m_work != Work::AllowOnly && !m_metadata.Read(event.fd, event.pid)) m_errors.fetch_add(1);
    if (event.mask & FAN_OPEN_PERM) Allow(event.fd);
    ::close(event.fd);
  }

  void Allow(int fd) noexcept {
    const fanotify_response response{fd, FAN_ALLOW};
    while (::write(m_group, &response, sizeof response) < 0) {
      if (errno == EINTR) continue;
      m_errors.fetch_add(1);
      return;
    }
  }

  const Work m_work;
  MetadataReader m_metadata{m_work == Work::ReadMetadata};
  int m_group = -1;
  std::thread m_thread;
  std::atomic<bool> m_stopping{false};
  std::atomic<bool> m_exited{false};
  std::atomic<uint64_t> m_events{0};
  std::atomic<uint64_t> m_errors{0};
};

// ---- oasd as a child ----

// The counters of oasd's metrics page that tell which path an open took.
struct Counters {
  uint64_t events = 0;
  uint64_t allowedAtOnce = 0;
  uint64_t scans = 0;
  uint64_t checkedHits = 0;
  uint64_t verdictsAllow = 0;
  uint64_t pendingAllowedByDeadline = 0;
  uint64_t errors = 0;
  uint64_t kernelMarks = 0;

  Counters operator-(const Counters& o) const {
    return {events - o.events,   allowedAtOnce - o.allowedAtOnce, scans - o.scans,
            checkedHits - o.checkedHits, verdictsAllow - o.verdictsAllow,
            pendingAllowedByDeadline - o.pendingAllowedByDeadline, errors - o.errors,
            kernelMarks - o.kernelMarks};
  }
  std::string Text() const {
    std::ostringstream out;
    out << "events " << events << ", at once " << allowedAtOnce << ", scans " << scans
        << ", checked hits " << checkedHits << ", verdicts " << verdictsAllow;
    if (kernelMarks) out << ", kernel marks " << kernelMarks;
    if (pendingAllowedByDeadline) out << ", DEADLINE " << pendingAllowedByDeadline;
    if (errors) out << ", ERRORS " << errors;
    return out.str();
  }
};

// One oasd process watching the tmpfs. It dies with this program (parent-death signal), so
// a run cut short never leaves its marks behind.
class OasdChild {
 public:
  static constexpr auto ReadyLimit = 60s;
  static constexpr auto StopLimit = 30s;

  // kernelCache false: every open goes through oasd (--no-kernel-cache).
  OasdChild(const Options& options, const std::string& engine, bool kernelCache)
      : m_log(options.scratch + "/oasd-" + engine + ".log"),
        m_metrics(options.scratch + "/oasd-" + engine + ".prom") {
    std::vector<std::string> args{options.oasd,  "--watch",     options.dir, "--engine",
                                  engine,        "--log-level", "error",     "--metrics-file",
                                  m_metrics,     "--events-file", ""};
    if (!kernelCache) args.push_back("--no-kernel-cache");
    Spawn(args);
    try {
      WaitReady();
      RequireMarks();
    } catch (...) {
      Stop();
      throw;
    }
  }
  ~OasdChild() { Stop(); }
  OasdChild(const OasdChild&) = delete;
  OasdChild& operator=(const OasdChild&) = delete;

  // Asks for a fresh metrics page and reads it. Two rounds, because a periodic page may
  // have been rendered before the first request and renamed into place after it.
  Counters Snapshot() {
    for (int round = 0; round < 2; ++round) {
      ::unlink(m_metrics.c_str());
      ::kill(m_pid, SIGUSR1);
      const auto deadline = Clock::now() + 5s;
      while (::access(m_metrics.c_str(), R_OK) != 0) {
        if (Clock::now() > deadline) Fail("oasd wrote no metrics page");
        std::this_thread::sleep_for(1ms);
      }
    }
    return ParseMetrics();
  }

  void Stop() noexcept {
    if (m_pid <= 0) return;
    ::kill(m_pid, SIGTERM);
    const auto deadline = Clock::now() + StopLimit;
    int status = 0;
    while (::waitpid(m_pid, &status, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        std::fprintf(stderr, "oasd did not stop within %llds; killed\n",
                     static_cast<long long>(StopLimit.count()));
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, &status, 0);
        break;
      }
      std::this_thread::sleep_for(5ms);
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
      std::fprintf(stderr, "oasd ended with status 0x%x; its log:\n%s", status, LogText().c_str());
    m_pid = -1;
    if (m_stdout >= 0) ::close(m_stdout);
    m_stdout = -1;
  }

 private:
  void Spawn(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) Fail(ErrnoText("pipe2"));
    const int log = ::open(m_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (log < 0) Fail(ErrnoText("open " + m_log));
    const pid_t parent = ::getpid();
    m_pid = ::fork();
    if (m_pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) _exit(127);
      ::dup2(out[1], 1);
      ::dup2(log, 2);
      ::execv(argv[0], argv.data());
      _exit(127);
    }
    ::close(out[1]);
    ::close(log);
    m_stdout = out[0];
    if (m_pid < 0) Fail(ErrnoText("fork"));
  }

  void WaitReady() {
    const auto deadline = Clock::now() + ReadyLimit;
    std::string text;
    while (text.find("oasd: ready\n") == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd fd{m_stdout, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&fd, 1, static_cast<int>(left.count())) == 0)
        Fail("oasd was not ready within 60 s; its log:\n" + LogText());
      char chunk[256];
      const ssize_t n = ::read(m_stdout, chunk, sizeof chunk);
      if (n == 0) Fail("oasd exited before it was ready; its log:\n" + LogText());
      if (n > 0) text.append(chunk, static_cast<size_t>(n));
    }
  }

  // "Ready" without a mark would time the bare tmpfs and call it oasd.
  void RequireMarks() {
    const std::string fdDir = "/proc/" + std::to_string(m_pid) + "/fd";
    size_t marks = 0;
    for (const auto& entry : std::filesystem::directory_iterator(fdDir)) {
      if (ReadLink(entry.path()) != "anon_inode:[fanotify]") continue;
      std::ifstream info("/proc/" + std::to_string(m_pid) + "/fdinfo/" +
                         entry.path().filename().string());
      for (std::string line; std::getline(info, line);)
        if (line.starts_with("fanotify ")) ++marks;
    }
    if (marks == 0) Fail("oasd is ready but holds no fanotify mark");
  }

  Counters ParseMetrics() const {
    std::map<std::string, uint64_t> values;
    std::ifstream in(m_metrics);
    for (std::string line; std::getline(in, line);) {
      if (line.empty() || line[0] == '#') continue;
      const size_t space = line.rfind(' ');
      if (space == std::string::npos) continue;
      values[line.substr(0, space)] = std::strtoull(line.c_str() + space + 1, nullptr, 10);
    }
    Counters c;
    c.events = values["oasd_events_total"];
    c.allowedAtOnce = values["oasd_allowed_at_once_total"];
    c.kernelMarks = values["oasd_kernel_cache_marks_added_total"];
    c.scans = values["oasd_scans_total"];
    c.checkedHits = values["oasd_checked_cache_hits_total"];
    c.verdictsAllow = values["oasd_verdicts_total{verdict=\"allow\"}"];
    c.pendingAllowedByDeadline = values["oasd_deadline_allows_total"];
    c.errors = values["oasd_processing_errors_total"];
    return c;
  }

  std::string LogText() const {
    std::ifstream in(m_log);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string m_log;
  std::string m_metrics;
  pid_t m_pid = -1;
  int m_stdout = -1;
};

// ---- Results ----

enum class Size { Small, Big };

struct Row {
  std::string config;  // "a", "b", ... the configuration it belongs to
  std::string label;
  std::string file;
  Size size;
  size_t n = 0;
  uint64_t median = 0;
  uint64_t p90 = 0;
  std::string check;  // what the listener saw, so a row proves which path it timed
};

uint64_t Percentile(std::vector<uint32_t> samples, double fraction) {
  const size_t index = std::min(samples.size() - 1, static_cast<size_t>(fraction * samples.size()));
  std::nth_element(samples.begin(), samples.begin() + static_cast<ptrdiff_t>(index), samples.end());
  return samples[index];
}

Row MakeRow(std::string config, std::string label, std::string file, Size size,
            const std::vector<uint32_t>& samples, std::string check = {}) {
  return {std::move(config), std::move(label), std::move(file), size, samples.size(),
          Percentile(samples, 0.5), Percentile(samples, 0.9), std::move(check)};
}

std::string Ratio(uint64_t value, std::optional<uint64_t> base) {
  if (!base || *base == 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", static_cast<double>(value) / static_cast<double>(*base));
  return text;
}

std::optional<uint64_t> MedianOf(const std::vector<Row>& rows, const std::string& config, Size size) {
  for (const auto& row : rows)
    if (row.config == config && row.size == size) return row.median;
  return std::nullopt;
}

void PrintRows(const std::vector<Row>& rows, size_t warmup) {
  std::printf("\n%-46s %-18s %6s %10s %10s %7s %7s %7s  %s\n", "configuration", "file", "n",
              "median ns", "p90 ns", "x(a)", "x(b)", "x(c)", "what the listener saw");
  for (const auto& row : rows) {
    std::printf("%-46s %-18s %6zu %10llu %10llu %7s %7s %7s  %s\n", row.label.c_str(),
                row.file.c_str(), row.n, static_cast<unsigned long long>(row.median),
                static_cast<unsigned long long>(row.p90),
                Ratio(row.median, MedianOf(rows, "a", row.size)).c_str(),
                Ratio(row.median, MedianOf(rows, "b", row.size)).c_str(),
                Ratio(row.median, MedianOf(rows, "c", row.size)).c_str(), row.check.c_str());
  }
  std::printf("\nx(a), x(b), x(c): median over the median of (a), (b) or (c) for a file of the same size "
              "class (small or 1 MiB).\nWhat the listener saw counts the warm-up opens too "
              "(%zu per row; first opens have none).\n(c) reads per event: %s.\n",
              warmup, MetadataReads);
}

void PrintMachine(const Options& options) {
  utsname name{};
  ::uname(&name);
  std::string model = "unknown";
  std::ifstream cpuinfo("/proc/cpuinfo");
  for (std::string line; std::getline(cpuinfo, line);) {
    if (!line.starts_with("model name")) continue;
    model = line.substr(line.find(':') + 2);
    break;
  }
  std::printf("open+close latency on tmpfs %s\nCPUs %ld, %s, kernel %s\n", options.dir.c_str(),
              ::sysconf(_SC_NPROCESSORS_ONLN), model.c_str(), name.release);
  std::fflush(stdout);
}

// ---- The configurations ----

struct Run {
  const Options& options;
  const Files& files;
  std::vector<Row> rows;

  void Progress(const std::string& what) {
    std::fprintf(stderr, "  %s\n", what.c_str());
  }

  // Slow paths get fewer iterations, so a slow machine still finishes within the budget;
  // a few thousand samples still give a stable median.
  static constexpr auto RowBudget = 6s;
  static constexpr size_t MinIterations = 2000;

  // The same open, timed repeatedly after a warm-up that also sets the iteration count.
  std::vector<uint32_t> Repeated(const std::string& path) {
    const auto start = Clock::now();
    WarmUp(path, options.warmup);
    const auto perOpen = std::max<Clock::duration>((Clock::now() - start) / options.warmup, 1ns);
    const auto fit = static_cast<size_t>(RowBudget / perOpen);
    const size_t floor = std::min(MinIterations, options.iterations);
    return TimeOpens({path}, std::clamp(fit, floor, options.iterations));
  }

  void Bare() {
    Progress("(a) no interception");
    rows.push_back(MakeRow("a", "(a) no interception", TextLabel, Size::Small,
                           Repeated(files.text)));
    rows.push_back(MakeRow("a", "(a) no interception", "binary 1 MiB", Size::Big,
                           Repeated(files.big)));
  }

  void WithResponder(const std::string& config, Work work, const std::string& label) {
    Progress(label);
    Responder responder(options.dir, work);
    struct Target {
      std::string file;
      std::string path;
      Size size;
    };
    const Target targets[] = {{TextLabel, files.text, Size::Small},
                              {"binary 1 MiB", files.big, Size::Big}};
    for (const auto& [file, path, size] : targets) {
      const uint64_t before = responder.Events();
      const auto samples = Repeated(path);
      const uint64_t seen = responder.Events() - before;
      if (seen < options.warmup + samples.size())
        Fail(label + ": the responder saw " + std::to_string(seen) + " events for " +
             std::to_string(options.warmup + samples.size()) + " opens");
      rows.push_back(MakeRow(config, label, file, size, samples,
                             "events " + std::to_string(seen)));
    }
    responder.Stop();
    if (responder.Errors() != 0)
      Fail(label + ": " + std::to_string(responder.Errors()) + " responder errors");
  }

  // Times `timed` between two metrics pages, so the row says what oasd did meanwhile.
  void OasdRow(OasdChild& oasd, const std::string& config, const std::string& label,
               const std::string& file, Size size,
               const std::function<std::vector<uint32_t>()>& timed) {
    Progress(label + ", " + file);
    const Counters before = oasd.Snapshot();
    const auto samples = timed();
    const Counters delta = oasd.Snapshot() - before;
    rows.push_back(MakeRow(config, label, file, size, samples, delta.Text()));
  }

  // A hit is the module's own clean-file cache answering on the reading thread: a text file
  // it already admitted. A miss is a file no text cache admits (random bytes), so every open
  // is queued, handed to the engine on a worker and answered through the verdict path.
  void OasdNone() {
    OasdChild oasd(options, "none", false);
    OasdRow(oasd, "d", "(d) oasd none, cache hit", TextLabel, Size::Small,
            [&] { return Repeated(files.text); });
    OasdRow(oasd, "d", "(d) oasd none, cache miss", "binary 4 KiB", Size::Small,
            [&] { return Repeated(files.smallBinary); });
    OasdRow(oasd, "d", "(d) oasd none, cache miss", "binary 1 MiB", Size::Big,
            [&] { return Repeated(files.big); });
    oasd.Stop();
  }

  void OasdClamav() {
    OasdChild oasd(options, "clamav", false);
    RequireDenied(files.eicar);
    OasdRow(oasd, "e", "(e) oasd clamav, first open", "binary 1 MiB", Size::Big,
            [&] { return TimeOpens(files.fresh, files.fresh.size()); });
    // The first open scans; every later one finds the file in the engine's checked cache.
    OasdRow(oasd, "e", "(e) oasd clamav, repeated open", "binary 1 MiB", Size::Big,
            [&] { return Repeated(files.big); });
    OasdRow(oasd, "e", "(e) oasd clamav, cached text", TextLabel, Size::Small,
            [&] { return Repeated(files.text); });
    oasd.Stop();
  }

  // With the kernel cache the first open of each file places the mark (the warm-up makes it);
  // the timed opens should then never reach oasd: their row shows events 0.
  void OasdKernelCache(const std::string& engine, const std::string& config) {
    OasdChild oasd(options, engine, true);
    if (engine == "clamav") RequireDenied(files.eicar);
    const std::string label = "(" + config + ") oasd " + engine + ", kernel cache";
    OasdRow(oasd, config, label + ", cached", TextLabel, Size::Small,
            [&] { return Repeated(files.text); });
    OasdRow(oasd, config, label + ", repeated", "binary 1 MiB", Size::Big,
            [&] { return Repeated(files.big); });
    oasd.Stop();
  }

  // Proof that the engine sits in the path being timed, not only that oasd started.
  static void RequireDenied(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
      ::close(fd);
      Fail("oasd with libclamav let the test file " + path + " open");
    }
    if (errno != EPERM && errno != EACCES) Fail(ErrnoText("open " + path));
  }
};

void Usage() {
  std::fprintf(stderr,
               "usage: open_latency --dir TMPFS --scratch DIR [--oasd PATH] [--iterations N]\n"
               "                    [--first-opens N] [--without-oasd] [--respond]\n"
               "Run through bench/open_latency.sh: it needs root and a private mount namespace.\n");
}

Options ParseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const auto value = [&]() -> std::string {
      if (i + 1 >= argc) Fail(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "--dir") options.dir = value();
    else if (arg == "--scratch") options.scratch = value();
    else if (arg == "--oasd") options.oasd = value();
    else if (arg == "--iterations") options.iterations = std::stoul(value());
    else if (arg == "--first-opens") options.firstOpens = std::stoul(value());
    else if (arg == "--without-oasd") options.withOasd = false;
    else if (arg == "--respond") options.respondOnly = true;
    else Fail("unknown option " + arg);
  }
  if (options.dir.empty() || options.scratch.empty()) Fail("--dir and --scratch are required");
  if (options.iterations == 0 || options.firstOpens == 0) Fail("counts must be at least 1");
  options.warmup = std::min(options.warmup, options.iterations);
  return options;
}

void Nothing(int) {}

}  // namespace

int main(int argc, char** argv) {
  Options parsed;
  try {
    parsed = ParseOptions(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "open_latency: %s\n", error.what());
    Usage();
    return 2;
  }
  try {
    const Options& options = parsed;
    RequirePrivateTmpfs(options.dir, options.respondOnly);
    // The backstop for a hang anywhere: the process ends, the kernel drops its group and
    // allows what was pending, and the oasd child follows through its parent-death signal.
    ::alarm(options.budgetS);
    // Without SA_RESTART, so the signal ends the responder's blocking read.
    struct sigaction wake {};
    wake.sa_handler = Nothing;
    ::sigaction(SIGUSR2, &wake, nullptr);

    if (options.respondOnly) {
      ::alarm(0);  // the caller's timeout bounds it; closing stdin ends it
      Responder responder(options.dir, Work::AllowOnly);
      std::printf("ready\n");
      std::fflush(stdout);
      char byte;
      while (::read(STDIN_FILENO, &byte, 1) > 0) {
      }
      responder.Stop();
      return 0;
    }
    PrintMachine(options);
    const Files files = MakeFiles(options);
    Run run{options, files, {}};
    run.Bare();
    run.WithResponder("b", Work::AllowOnly, "(b) minimal responder");
    run.WithResponder("c", Work::ReadMetadata, "(c) responder + oasd's event reads");
    run.WithResponder("c'", Work::ReadMetadataUncached, "(c') (c), process reads every event");
    if (options.withOasd) {
      // Files older than the checked cache's settle time are the ones it may remember.
      std::this_thread::sleep_for(200ms);
      run.OasdNone();
      run.OasdClamav();
      run.OasdKernelCache("none", "f");
      run.OasdKernelCache("clamav", "g");
    }
    PrintRows(run.rows, options.warmup);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "open_latency: %s\n", error.what());
    return 1;
  }
}
