// oasd end to end on a real fanotify. Each scenario runs in a forked sandbox process that
// takes a private mount namespace and mounts fresh tmpfs filesystems, so oasd marks nothing
// outside them; the sandbox owns oasd and every opener (all die with it) and sends its
// failures back to the test through a pipe. Every wait is bounded, so a hang fails a test.
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

namespace {

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

Exit WaitFor(pid_t pid, Millis limit) {
  const auto deadline = Clock::now() + limit;
  int status = 0;
  for (;;) {
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) return {true, status};
    if (done < 0) return {false, 0};
    if (Clock::now() >= deadline) break;
    std::this_thread::sleep_for(20ms);
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return {false, status};
}

bool WaitUntil(const std::function<bool()>& done, Millis limit) {
  const auto deadline = Clock::now() + limit;
  while (!done()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(50ms);
  }
  return true;
}

// Children die with the sandbox, so nothing outlives a test that was cut short.
pid_t Spawn(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::_exit(body());
  }
  return pid;
}

Exit InChild(const std::function<int()>& body, Millis limit = kOpenerLimit) {
  return WaitFor(Spawn(body), limit);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
  std::ofstream(path, std::ios::trunc) << content;
  ::chmod(path.c_str(), mode);
}

void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// Everything the descriptor yields until end of file or until `limit` passes without data.
std::string ReadAvailable(int fd, Millis limit = 2s) {
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

std::optional<std::string> ReadLine(int fd, Millis limit) {
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
int OpenAndRead(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  char c;
  const int error = ::read(fd, &c, 1) < 0 ? errno : 0;
  ::close(fd);
  return error;
}

int Execute(const std::string& path) {
  ::execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
  return errno;
}

int CreateWith(const std::string& path, const std::string& content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  const int error = ::write(fd, content.data(), content.size()) < 0 ? errno : 0;
  return ::close(fd) < 0 ? errno : error;
}

std::optional<uint64_t> MetricValue(const std::string& page, const std::string& name) {
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(name + " ")) return std::stoull(line.substr(name.size() + 1));
  return std::nullopt;
}

// ---- The sandbox side ----

class Sandbox {
 public:
  explicit Sandbox(std::string base) : m_base(std::move(base)) {}
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

  std::string Watched(const std::string& name) const { return m_base + "/w/" + name; }
  std::string State(const std::string& name) const { return m_base + "/s/" + name; }

  void Expect(bool ok, const std::string& what) {
    if (!ok) m_failures.push_back(what);
  }

  bool StartOasd(const std::string& extraConfig) {
    const std::string config = State("oasd.json");
    WriteFile(config, ConfigText(extraConfig));
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
  void StopOasd() {
    if (m_oasd <= 0) return;
    ::kill(m_oasd, SIGTERM);
    const Exit exit = WaitFor(std::exchange(m_oasd, -1), kStopLimit);
    Expect(exit.Is(0), "oasd after SIGTERM: " + exit.Text(false));
    const std::string rest = ReadAvailable(m_stdout);
    ::close(std::exchange(m_stdout, -1));
    Expect(rest.empty(), "oasd printed more than its ready line: " + rest);
  }

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
    std::istringstream lines(ReadFile(State("events.jsonl")));
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
    const std::string log = ReadFile(State("stderr.txt"));
    return text + "--- end of oasd's stderr ---\n" + log.substr(log.size() > 4000 ? log.size() - 4000 : 0);
  }

 private:
  static std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

  bool Fail(const std::string& what) {
    m_failures.push_back(what);
    return false;
  }

  std::string ConfigText(const std::string& extra) const {
    std::string text = R"({"watch": [")" + Watched("") + R"("], "events_file": ")" +
                       State("events.jsonl") + R"(", "metrics_file": ")" + State("metrics.prom") +
                       R"(", "metrics_interval_s": 3600, "log_level": "notice")";
    if (!extra.empty()) text += ", " + extra;
    return text + "}";
  }

  std::string m_base;
  pid_t m_oasd = -1;
  int m_stdout = -1;
  std::vector<std::string> m_failures;
};

using Scenario = std::function<void(Sandbox&)>;

int SandboxMain(const std::string& base, const Scenario& scenario, int reportFd) {
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

std::string MissingPrivilege() {
  if (::geteuid() != 0) return "needs root for fanotify permission events and mount namespaces";
  const int fd = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  if (fd < 0) return std::string("fanotify_init failed: ") + std::strerror(errno);
  ::close(fd);
  return {};
}

// Runs the scenario in a sandbox; answers why it could not run, failures go to the test.
std::string RunInSandbox(const Scenario& scenario) {
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

TEST(OasdEndToEnd, CleanFileOpensAndEicarFileIsDenied) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string clean = s.Watched("clean.txt"), eicar = s.Watched("eicar.com");
    WriteFile(clean, "nothing to see here\n");
    WriteFile(eicar, kEicar);
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const Exit cleanOpen = InChild([&] { return OpenAndRead(clean); });
    s.Expect(cleanOpen.Is(0), "opening a clean file: " + cleanOpen.Text());
    const Exit eicarOpen = InChild([&] { return OpenAndRead(eicar); });
    s.Expect(eicarOpen.Denied(), "opening the EICAR file: " + eicarOpen.Text());

    s.Expect(s.AwaitEvent("detection", eicar), "no detection line for " + eicar);
    if (const auto e = s.FindEvent("detection", eicar)) {
      s.Expect(e->value("threat", "").find("Eicar") != std::string::npos, "threat: " + e->dump());
      s.Expect(e->contains("pid") && e->contains("uid") && e->contains("operation"), e->dump());
    }
    const auto denies = MetricValue(s.Metrics(), R"(oasd_verdicts_total{verdict="deny"})");
    s.Expect(denies.value_or(0) >= 1, "deny verdicts counted: " + std::to_string(denies.value_or(0)));
  });
}

TEST(OasdEndToEnd, EicarExecutableCannotRunWhileACleanOneDoes) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string clean = s.Watched("true"), eicar = s.Watched("eicar.sh");
    std::filesystem::copy_file("/bin/true", clean);
    ::chmod(clean.c_str(), 0755);
    WriteFile(eicar, kEicar, 0755);  // not a valid image: without oasd execve says ENOEXEC
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const Exit cleanRun = InChild([&] { return Execute(clean); });
    s.Expect(cleanRun.Is(0), "running a clean executable: " + cleanRun.Text());
    const Exit eicarRun = InChild([&] { return Execute(eicar); });
    s.Expect(eicarRun.Denied(), "executing the EICAR file: " + eicarRun.Text());
  });
}

TEST(OasdEndToEnd, FileWrittenWithEicarIsReportedOnCloseAndDeniedAfter) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string dropped = s.Watched("dropped.txt");
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const Exit writer = InChild([&] { return CreateWith(dropped, kEicar); });
    s.Expect(writer.Is(0), "creating and writing a file: " + writer.Text());
    s.Expect(s.AwaitEvent("detection", dropped), "no detection line after writing " + dropped);
    const Exit reader = InChild([&] { return OpenAndRead(dropped); });
    s.Expect(reader.Denied(), "opening the written EICAR file: " + reader.Text());
  });
}

TEST(OasdEndToEnd, RepeatedOpenOfCleanTextFileIsServedFromTheCache) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string notes = s.Watched("notes.txt");
    WriteFile(notes, "plain text, line after line\nof nothing remarkable\n");
    if (!s.StartOasd(R"("engine": "clamav")")) return;
    const std::string before = s.Metrics();
    // The cache remembers which processes saw the file, so one process opens it again.
    const Exit opener = InChild([&] {
      for (int i = 0; i < 5; ++i) {
        if (const int error = OpenAndRead(notes)) return error;
        std::this_thread::sleep_for(100ms);
      }
      return 0;
    });
    s.Expect(opener.Is(0), "opening a clean text file five times: " + opener.Text());
    const std::string after = s.Metrics();
    const auto delta = [&](const std::string& name) {
      return MetricValue(after, name).value_or(0) - MetricValue(before, name).value_or(0);
    };
    s.Expect(MetricValue(after, "oas_cache_hits_total").has_value(), "no cache metric:\n" + after);
    s.Expect(delta("oas_cache_hits_total") >= 1, "no cache hit among five opens:\n" + after);
    s.Expect(delta("oasd_events_total") >= 5, "the opens were not all seen:\n" + after);
    s.Expect(delta("oasd_scans_total") < 5, "every open was scanned:\n" + after);
  });
}

TEST(OasdEndToEnd, ScanOutlivingTheVerdictTimeoutIsAnErrorAndTheOpenerIsAnswered) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string slow = s.Watched("slow.bin");
    WriteFile(slow, std::string("\x7f\x01\x02slow", 7));
    if (!s.StartOasd(R"("engine": "clamav", "engine_delay_ms": 4000, "verdict_timeout_ms": 500,)"
                     R"( "permission_deadline_ms": 20000)"))
      return;
    const Exit opener = InChild([&] { return OpenAndRead(slow); });
    s.Expect(opener.Answered(), "opener of a file whose scan timed out: " + opener.Text());
    s.Expect(s.AwaitEvent("processing_error", ""), "no processing_error line");
  });
}

TEST(OasdEndToEnd, StopWhileOpenersLoopLeavesNoneHanging) {
  OASD_SCENARIO([](Sandbox& s) {
    constexpr int kOpeners = 4;
    for (int i = 0; i < kOpeners; ++i)
      WriteFile(s.Watched("busy" + std::to_string(i)), "busy " + std::to_string(i) + "\x01");
    if (!s.StartOasd(R"("engine": "clamav", "engine_delay_ms": 50)")) return;
    const std::string stop = s.State("stop");
    std::vector<pid_t> openers;
    for (int i = 0; i < kOpeners; ++i)
      openers.push_back(Spawn([&, i] {
        const std::string file = s.Watched("busy" + std::to_string(i));
        while (::access(stop.c_str(), F_OK) != 0)
          if (const int error = OpenAndRead(file)) return error;
        return 0;
      }));
    std::this_thread::sleep_for(700ms);
    s.StopOasd();
    WriteFile(stop, "");
    for (int i = 0; i < kOpeners; ++i) {
      const Exit exit = WaitFor(openers[static_cast<size_t>(i)], kOpenerLimit);
      s.Expect(exit.Is(0), "opener " + std::to_string(i) + " across the stop: " + exit.Text());
    }
  });
}

// Bad configurations never start protection (and name paths that cannot exist), so this
// runs without root and outside a sandbox.
TEST(OasdEndToEnd, BadConfigExitsTwoNamingTheKey) {
  char dir[] = "/tmp/oasd-e2e-config-XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  const std::string config = std::string(dir) + "/oasd.json", out = std::string(dir) + "/out";
  const auto run = [&](const std::vector<std::string>& args) {
    return InChild([&] {
      const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(fd, STDOUT_FILENO);
      ::dup2(fd, STDERR_FILENO);
      std::vector<char*> argv{const_cast<char*>(OASD_BINARY)};
      for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      ::execv(OASD_BINARY, argv.data());
      return 127;
    });
  };
  const std::string missing = R"("watch": ["/nonexistent/oasd-e2e"])";
  const struct {
    std::string config, message;
  } cases[] = {
      {"{" + missing + R"(, "bogus": 1})", R"(config key "bogus": unknown key)"},
      {"{" + missing + "}", R"(config key "watch[0]": path "/nonexistent/oasd-e2e" does not exist)"},
      {"{" + missing + R"(, "settings": {"scan_access_type": "open"}})",
       R"(config key "settings.scan_access_type": expected an unsigned integer)"},
      {"{" + missing + ",", "malformed JSON"},
  };
  for (const auto& c : cases) {
    WriteFile(config, c.config);
    for (const char* mode : {"--config", "--check-config"}) {
      const Exit exit = run({mode, config});
      const std::string output = ReadFile(out);
      EXPECT_TRUE(exit.Is(2)) << mode << " " << c.config << ": " << exit.Text(false);
      EXPECT_NE(output.find(c.message), std::string::npos) << c.config << "\n  printed: " << output;
      EXPECT_EQ(output.find("oasd: ready"), std::string::npos) << output;
    }
  }
  const Exit help = run({"--help"});
  EXPECT_TRUE(help.Is(0)) << help.Text(false);
  EXPECT_NE(ReadFile(out).find("--check-config"), std::string::npos);
  std::filesystem::remove_all(dir);
}

}  // namespace
