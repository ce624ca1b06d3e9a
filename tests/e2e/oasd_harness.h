// The harness of oasd's end-to-end tests: each scenario runs in a forked sandbox process that
// takes a private mount namespace and mounts fresh tmpfs filesystems, so oasd marks nothing
// outside them; the sandbox owns oasd and every opener (all die with it) and sends its
// failures back to the test through a pipe. Every wait is bounded, so a hang fails a test.
// Header only: each e2e test is its own executable and includes it once.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace oasd_e2e {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

constexpr char kEicar[] =
    "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
constexpr int kSkipStatus = 77;
constexpr unsigned kSandboxAlarmS = 150;
constexpr Millis kSandboxLimit = 180s;
constexpr Millis kReadyLimit = 30s;
constexpr Millis kStopLimit = 30s;
constexpr Millis kOpenerLimit = 30s;
constexpr Millis kEventLimit = 20s;

// ---- Processes, files and bounded waits (used on both sides of the fork) ----

// How a child process ended; `finished` is false when it had to be killed.
struct Exit {
  bool finished = false;
  int status = 0;

  bool Is(int code) const { return finished && WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool Answered() const { return finished && WIFEXITED(status); }
  int Code() const { return WEXITSTATUS(status); }
  bool Denied() const { return Answered() && (Code() == EACCES || Code() == EPERM); }
  // Openers exit with an errno, which `asErrno` spells out.
  std::string Text(bool asErrno = true) const {
    if (!finished) return "no answer (killed when the wait ran out)";
    if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
    if (Code() == 0) return "succeeded";
    const std::string code = "exit status " + std::to_string(Code());
    return asErrno ? code + " (" + std::strerror(Code()) + ")" : code;
  }
};

// Reaps pid within limit: true once it has, with its status.
inline bool Reap(pid_t pid, Millis limit, int& status) {
  const auto deadline = Clock::now() + limit;
  for (;;) {
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) return true;
    if (done < 0 || Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
}

// A process that outlives the limit is killed; one stuck in the kernel even then is left
// behind rather than waited for, so the sandbox itself never hangs.
inline Exit WaitFor(pid_t pid, Millis limit) {
  int status = 0;
  if (Reap(pid, limit, status)) return {true, status};
  ::kill(pid, SIGKILL);
  Reap(pid, 5s, status);
  return {false, status};
}

inline bool WaitUntil(const std::function<bool()>& done, Millis limit) {
  const auto deadline = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

// Children die with the sandbox, so nothing outlives a test that was cut short.
inline pid_t Spawn(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::_exit(body());
  }
  return pid;
}

inline Exit InChild(const std::function<int()>& body, Millis limit = kOpenerLimit) {
  return WaitFor(Spawn(body), limit);
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
  std::ofstream(path, std::ios::trunc) << content;
  ::chmod(path.c_str(), mode);
}

inline void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// Everything the descriptor yields until end of file or until `limit` passes without data.
inline std::string ReadAvailable(int fd, Millis limit = 2s) {
  std::string text;
  char buffer[4096];
  pollfd p{fd, POLLIN, 0};
  while (::poll(&p, 1, static_cast<int>(limit.count())) > 0) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  return text;
}

inline std::optional<std::string> ReadLine(int fd, Millis limit) {
  const auto deadline = Clock::now() + limit;
  std::string line;
  pollfd p{fd, POLLIN, 0};
  for (;;) {
    const auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
    if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return std::nullopt;
    char c;
    if (::read(fd, &c, 1) != 1) return std::nullopt;
    if (c == '\n') return line;
    line += c;
  }
}

// Openers answer through their exit status: 0, or the errno of the failed call.
inline int OpenAndRead(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  char c;
  const int error = ::read(fd, &c, 1) < 0 ? errno : 0;
  ::close(fd);
  return error;
}

inline int Execute(const std::string& path) {
  ::execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
  return errno;
}

inline int CreateWith(const std::string& path, const std::string& content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  const int error = ::write(fd, content.data(), content.size()) < 0 ? errno : 0;
  return ::close(fd) < 0 ? errno : error;
}

// A "Name:   123 kB" field of /proc/PID/status, in kB.
inline std::optional<uint64_t> StatusKb(pid_t pid, const std::string& field) {
  std::istringstream lines(ReadFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(field + ":")) return std::stoull(line.substr(field.size() + 1));
  return std::nullopt;
}

// oasd with these arguments, for a run expected to end by itself (a check, a refused start);
// its stdout and stderr together land in outputPath and in `output`.
inline Exit RunOasdToEnd(const std::string& outputPath, const std::vector<std::string>& args,
                         std::string& output) {
  const Exit exit = InChild([&] {
    const int fd = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, STDOUT_FILENO);
    ::dup2(fd, STDERR_FILENO);
    std::vector<char*> argv{const_cast<char*>(OASD_BINARY)};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(OASD_BINARY, argv.data());
    return 127;
  }, kReadyLimit);
  output = ReadFile(outputPath);
  return exit;
}

inline std::optional<uint64_t> MetricValue(const std::string& page, const std::string& name) {
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(name + " ")) return std::stoull(line.substr(name.size() + 1));
  return std::nullopt;
}

// ---- The sandbox side ----

class Sandbox {
 public:
  explicit Sandbox(std::string base) : m_base(std::move(base)), m_eventsFile(State("events.jsonl")) {}
  ~Sandbox() {
    if (m_oasd > 0) WaitFor(m_oasd, 0ms);
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // Private mounts: the base tmpfs holds oasd's state, the tmpfs on w/ is the watched one.
  std::string Enter() {
    if (::unshare(CLONE_NEWNS) != 0) return Errno("unshare(CLONE_NEWNS)");
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return Errno("making / private");
    if (::mount("oasd-e2e", m_base.c_str(), "tmpfs", 0, "mode=0755") != 0)
      return Errno("mounting a tmpfs");
    ::mkdir(State("").c_str(), 0755);
    ::mkdir(Watched("").c_str(), 0755);
    if (::mount("oasd-e2e", Watched("").c_str(), "tmpfs", 0, "mode=0755") != 0)
      return Errno("mounting the watched tmpfs");
    return {};
  }

  // Another tmpfs of the sandbox's, at dir (created), with the given mount options.
  std::string MountTmpfs(const std::string& dir, const std::string& options) {
    ::mkdir(dir.c_str(), 0755);
    if (::mount("oasd-e2e", dir.c_str(), "tmpfs", 0, options.c_str()) != 0)
      return Errno("mounting a tmpfs on " + dir);
    return {};
  }

  std::string Watched(const std::string& name) const { return m_base + "/w/" + name; }
  std::string State(const std::string& name) const { return m_base + "/s/" + name; }

  // Where the next StartOasd has oasd write its events (State("events.jsonl") by default).
  void UseEventsFile(std::string path) { m_eventsFile = std::move(path); }
  const std::string& EventsFile() const { return m_eventsFile; }

  void Expect(bool ok, const std::string& what) {
    if (!ok) m_failures.push_back(what);
  }

  // A measurement worth seeing in the test's output whether or not the scenario passes.
  static void Note(const std::string& what) {
    const std::string line = "[   NOTE   ] " + what + "\n";
    WriteAll(STDOUT_FILENO, line);
  }

  // The sandbox's config (watched tmpfs, events and metrics files in its state directory)
  // with extra's keys laid over it.
  std::string ConfigText(const std::string& extra) const {
    nlohmann::json config = {{"watch", nlohmann::json::array({Watched("")})},
                             {"events_file", m_eventsFile},
                             {"metrics_file", State("metrics.prom")},
                             {"metrics_interval_s", 3600},
                             // The machine's ClamAV databases would rename and slow every detection.
                             {"clamav_database_dir", ""},
                             {"metrics_listen", ""},
                             {"log_level", "notice"}};
    config.update(nlohmann::json::parse("{" + extra + "}"));
    return config.dump();
  }

  // The sandbox's config with extraConfig's keys laid over its own; answers its path.
  std::string WriteConfig(const std::string& extraConfig) const {
    const std::string config = State("oasd.json");
    WriteFile(config, ConfigText(extraConfig));
    return config;
  }

  bool StartOasd(const std::string& extraConfig) { return StartOasdWith(WriteConfig(extraConfig)); }

  bool StartOasdWith(const std::string& config) {
    const std::string errorLog = State("stderr.txt");
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return Fail(Errno("pipe2"));
    m_oasd = Spawn([&] {
      const int err = ::open(errorLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(err, STDERR_FILENO);
      ::execl(OASD_BINARY, OASD_BINARY, "--config", config.c_str(), static_cast<char*>(nullptr));
      return 127;
    });
    ::close(out[1]);
    m_stdout = out[0];
    const auto line = ReadLine(m_stdout, kReadyLimit);
    if (line == "oasd: ready") return true;
    const Exit exit = WaitFor(std::exchange(m_oasd, -1), 0ms);
    return Fail("oasd did not report ready (first line: " + line.value_or("<none>") + ", " +
                exit.Text(false) + ")");
  }

  pid_t Oasd() const { return m_oasd; }

  // SIGTERM must end oasd with status 0, and the ready line must have been its only output.
  Exit StopOasd(int expectedStatus = 0) {
    if (m_oasd <= 0) return {};
    ::kill(m_oasd, SIGTERM);
    const Exit exit = WaitFor(std::exchange(m_oasd, -1), kStopLimit);
    Expect(exit.Is(expectedStatus), "oasd after SIGTERM: " + exit.Text(false));
    const std::string rest = ReadAvailable(m_stdout);
    ::close(std::exchange(m_stdout, -1));
    Expect(rest.empty(), "oasd printed more than its ready line: " + rest);
    return exit;
  }

  // The crash: no stop runs, the kernel closes oasd's fanotify groups itself.
  void KillOasd() {
    if (m_oasd <= 0) return;
    ::kill(m_oasd, SIGKILL);
    WaitFor(std::exchange(m_oasd, -1), kStopLimit);
    ::close(std::exchange(m_stdout, -1));
  }

  // oasd's diagnostics so far (its stderr).
  std::string OasdLog() const { return ReadFile(State("stderr.txt")); }

  // A fresh page: the interval is long, so only this SIGUSR1 can have written it.
  std::string Metrics() {
    const std::string path = State("metrics.prom");
    ::unlink(path.c_str());
    ::kill(m_oasd, SIGUSR1);
    if (WaitUntil([&] { return ::access(path.c_str(), F_OK) == 0; }, kEventLimit))
      return ReadFile(path);
    Fail("no metrics page after SIGUSR1");
    return {};
  }

  std::vector<nlohmann::json> Events() const {
    std::vector<nlohmann::json> events;
    std::istringstream lines(ReadFile(m_eventsFile));
    for (std::string line; std::getline(lines, line);)
      events.push_back(nlohmann::json::parse(line, nullptr, false));
    return events;
  }

  std::optional<nlohmann::json> FindEvent(const std::string& type, const std::string& path) const {
    for (const auto& e : Events())
      if (e.is_object() && e.value("type", "") == type && (path.empty() || e.value("path", "") == path))
        return e;
    return std::nullopt;
  }

  bool AwaitEvent(const std::string& type, const std::string& path) const {
    return WaitUntil([&] { return FindEvent(type, path).has_value(); }, kEventLimit);
  }

  // The failures, followed by the end of oasd's diagnostics when there were any.
  std::string Report() const {
    if (m_failures.empty()) return {};
    std::string text;
    for (const auto& f : m_failures) text += f + "\n";
    const std::string log = OasdLog();
    return text + "--- end of oasd's stderr ---\n" + log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
  }

 private:
  static std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

  bool Fail(const std::string& what) {
    m_failures.push_back(what);
    return false;
  }


  std::string m_base;
  std::string m_eventsFile;
  pid_t m_oasd = -1;
  int m_stdout = -1;
  std::vector<std::string> m_failures;
};

using Scenario = std::function<void(Sandbox&)>;

inline int SandboxMain(const std::string& base, const Scenario& scenario, int reportFd) {
  ::alarm(kSandboxAlarmS);
  Sandbox sandbox(base);
  if (const std::string reason = sandbox.Enter(); !reason.empty()) {
    WriteAll(reportFd, reason);
    return kSkipStatus;
  }
  try {
    scenario(sandbox);
  } catch (const std::exception& e) {
    sandbox.Expect(false, std::string("scenario threw: ") + e.what());
  }
  sandbox.StopOasd();
  const std::string report = sandbox.Report();
  WriteAll(reportFd, report);
  return report.empty() ? 0 : 1;
}

// ---- The test side ----

inline std::string MissingPrivilege() {
  if (::geteuid() != 0) return "needs root for fanotify permission events and mount namespaces";
  const int fd = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (fd < 0) return std::string("fanotify_init failed: ") + std::strerror(errno);
  ::close(fd);
  return {};
}

// Runs the scenario in a sandbox; answers why it could not run, failures go to the test.
inline std::string RunInSandbox(const Scenario& scenario) {
  if (std::string reason = MissingPrivilege(); !reason.empty()) return reason;
  char base[] = "/tmp/oasd-e2e-XXXXXX";
  if (!::mkdtemp(base)) return std::string("mkdtemp: ") + std::strerror(errno);
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) return std::string("pipe2: ") + std::strerror(errno);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(report[0]);
    ::_exit(SandboxMain(base, scenario, report[1]));
  }
  ::close(report[1]);
  const Exit exit = WaitFor(pid, kSandboxLimit);
  const std::string text = ReadAvailable(report[0]);
  ::close(report[0]);
  ::rmdir(base);  // the mounts went with the sandbox's namespace
  if (exit.Is(kSkipStatus)) return text;
  if (!exit.Is(0)) ADD_FAILURE() << "sandbox " << exit.Text(false) << "\n" << text;
  return {};
}

// Variadic so that commas inside the scenario's lambda need no extra parentheses.
#define OASD_SCENARIO(...)                                                           \
  if (const std::string skip = RunInSandbox(__VA_ARGS__); !skip.empty()) GTEST_SKIP() << skip


}  // namespace oasd_e2e
