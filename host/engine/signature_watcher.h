// Watches the signature directories for a database update (freshclam replacing a file, a
// signature added by hand) and tells whoever started it, from its own thread. Owns that
// thread and the stamp of what it saw last; it loads nothing itself.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace oasd {

// Names, sizes and modification times of the directory's entries: any change shows.
std::string DirectoryStamp(const std::string& dir);

class SignatureWatcher {
 public:
  // onChange runs on the watcher's thread, once per change seen after this constructor
  // took its first stamp; build the watcher before the engine loads, so nothing falls
  // between.
  SignatureWatcher(std::vector<std::string> dirs, std::chrono::seconds interval,
                   std::function<void()> onChange);
  ~SignatureWatcher() { TearDown(); }
  void Start();
  void TearDown() noexcept;

 private:
  std::string Stamp() const;
  void Run();

  const std::vector<std::string> m_dirs;
  const std::chrono::seconds m_interval;
  const std::function<void()> m_onChange;
  std::mutex m_mutex;  // with m_wake: a stop ends the wait at once
  std::condition_variable m_wake;
  bool m_stopping = false;
  std::string m_last;  // the watcher thread's after Start
  std::thread m_thread;
};

}  // namespace oasd
