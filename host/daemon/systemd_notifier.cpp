// A stalled stage is reported once per stall and the watchdog is left to run out, so systemd
// restarts oasd; meanwhile the permission deadline still answers every waiting open. The
// status line names no file: anyone may read it with `systemctl status`.
#include "host/daemon/systemd_notifier.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "nox_tracing/tracing.h"

namespace oasd {

namespace {

std::string ClockText(int64_t unixSeconds) {
  const time_t t = static_cast<time_t>(unixSeconds);
  tm utc{};
  char text[32];
  if (!::gmtime_r(&t, &utc) || !std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc))
    return "?";
  return text;
}

}  // namespace

SystemdNotifier::SystemdNotifier(qeb::objptr_t<qeb::ITracer> tracer, const HostMetrics& metrics)
    : m_tracer(std::move(tracer)), m_metrics(metrics), m_enabled(std::getenv("NOTIFY_SOCKET")) {}

SystemdNotifier::~SystemdNotifier() { TearDown(); }

void SystemdNotifier::Ready() noexcept {
  if (m_enabled) ::sd_notify(0, "READY=1");
}

void SystemdNotifier::Reloading() noexcept {
  if (!m_enabled) return;
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  char message[64];
  std::snprintf(message, sizeof message, "RELOADING=1\nMONOTONIC_USEC=%llu",
                static_cast<unsigned long long>(now.tv_sec) * 1000000ULL +
                    static_cast<unsigned long long>(now.tv_nsec / 1000));
  ::sd_notify(0, message);
}

void SystemdNotifier::Stopping() noexcept {
  if (m_enabled) ::sd_notify(0, "STOPPING=1");
}

void SystemdNotifier::Start(int64_t workerStallMs) {
  if (!m_enabled || m_thread.joinable()) return;
  m_workerStallMs = workerStallMs;
  if (::sd_watchdog_enabled(0, &m_watchdogUs) <= 0) m_watchdogUs = 0;
  m_lastTickMs = StageProgress::NowMs();
  m_lastEvents = m_metrics.events.load();
  m_lastScans = m_metrics.scans.load();
  Tick(m_lastTickMs);
  m_thread = std::thread([this] { Loop(); });
}

void SystemdNotifier::TearDown() noexcept {
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

void SystemdNotifier::Loop() {
  // Twice per watchdog period, as sd_watchdog_enabled(3) advises; the status every 5 s at most.
  const int64_t periodMs =
      m_watchdogUs ? std::clamp<int64_t>(static_cast<int64_t>(m_watchdogUs / 2000), 1, 5000) : 5000;
  std::unique_lock lock(m_mutex);
  while (!m_wake.wait_for(lock, std::chrono::milliseconds(periodMs), [&] { return m_stopping; })) {
    lock.unlock();
    Tick(StageProgress::NowMs());
    lock.lock();
  }
}

void SystemdNotifier::Tick(int64_t nowMs) {
  const double seconds = std::max<int64_t>(nowMs - m_lastTickMs, 1) / 1000.0;
  const uint64_t events = m_metrics.events.load(), scans = m_metrics.scans.load();
  const int64_t lastDetection = m_metrics.lastDetectionAt.load();
  char status[256];
  std::snprintf(status, sizeof status,
                "STATUS=protecting %lld paths; %.1f events/s, %.1f scans/s; %llu detections%s%s",
                static_cast<long long>(m_metrics.watchedPaths.load()), static_cast<double>(events - m_lastEvents) / seconds,
                static_cast<double>(scans - m_lastScans) / seconds,
                static_cast<unsigned long long>(m_metrics.detections.load()),
                lastDetection ? ", last " : "", lastDetection ? ClockText(lastDetection).c_str() : "");
  m_lastTickMs = nowMs;
  m_lastEvents = events;
  m_lastScans = scans;
  ::sd_notify(0, status);
  if (!m_watchdogUs) return;
  const auto& progress = m_metrics.progress;
  const char* stalled = progress.reader.Stalled(static_cast<int64_t>(m_watchdogUs / 2000), nowMs)
                            ? "the fanotify reader"
                        : progress.workers.Stalled(m_workerStallMs, nowMs) ? "the worker pool"
                                                                           : nullptr;
  if (!stalled) {
    m_stallReported = false;
    ::sd_notify(0, "WATCHDOG=1");
    return;
  }
  if (m_stallReported) return;
  m_stallReported = true;
  QEB_TRACE(m_tracer, qeb::trace::LevelError)
      << "oasd: " << stalled << " has made no progress; the watchdog is left to expire";
}

}  // namespace oasd
