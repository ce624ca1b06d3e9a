// Polling, not inotify: freshclam replaces databases by rename and a directory may be
// replaced whole, which a poll of the listing sees the same way in every case, at the cost
// of one readdir and a stat per file every interval.
#include "host/engine/signature_watcher.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

namespace oasd {

std::string DirectoryStamp(const std::string& dir) {
  std::vector<std::string> entries;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    struct stat st {};
    if (::stat(entry.path().c_str(), &st) != 0) continue;
    entries.push_back(entry.path().filename().string() + ":" + std::to_string(st.st_size) + ":" +
                      std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) +
                      ":" + std::to_string(st.st_ino));
  }
  std::sort(entries.begin(), entries.end());
  std::string stamp;
  for (const auto& e : entries) stamp += e + "\n";
  return stamp;
}

SignatureWatcher::SignatureWatcher(std::vector<std::string> dirs, std::chrono::seconds interval,
                                   std::function<void()> onChange)
    : m_dirs(std::move(dirs)), m_interval(interval), m_onChange(std::move(onChange)), m_last(Stamp()) {}

void SignatureWatcher::Start() { m_thread = std::thread([this] { Run(); }); }

void SignatureWatcher::TearDown() noexcept {
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

std::string SignatureWatcher::Stamp() const {
  std::string stamp;
  for (const auto& dir : m_dirs) stamp += dir + "\n" + DirectoryStamp(dir);
  return stamp;
}

void SignatureWatcher::Run() {
  std::unique_lock lock(m_mutex);
  while (!m_wake.wait_for(lock, m_interval, [this] { return m_stopping; })) {
    lock.unlock();
    std::string now = Stamp();
    if (now != m_last) {
      m_last = std::move(now);
      m_onChange();
    }
    lock.lock();
  }
}

}  // namespace oasd
