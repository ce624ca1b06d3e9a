// The host's view of its own mount table: a parser of mountinfo text, the diff of two
// mount lists, and MountWatcher, which owns the current list, the mountinfo descriptor and
// the poll thread that re-reads it. Subscribers are held by one reference each and are
// called from the poll thread on copies of the list, never under a lock.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "interfaces/nox/mounts.h"
#include "interfaces/nox/shares.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

// Undoes the kernel's octal escapes ("\040" for a space, "\134" for a backslash).
std::string UnescapeMountField(std::string_view field);
// One record per well-formed line; malformed lines are skipped. Never-monitored
// filesystem types come back with skip set.
nox::MountList ParseMountInfo(std::string_view text);
// Filesystem types that reach files over the network (nfs, cifs, smb3, 9p, sshfs...).
bool IsNetworkFilesystemType(std::string_view fsType);

struct MountDiff {
  nox::MountList added;    // in the new list only (a remount on a new device included)
  nox::MountList removed;  // in the old list only
  bool Empty() const noexcept { return added.empty() && removed.empty(); }
  // A network filesystem appeared or went.
  bool TouchesShares() const noexcept;
};
// Compares records as a whole (device, mount point, type), counting stacked duplicates.
MountDiff DiffMounts(const nox::MountList& before, const nox::MountList& after);

class MountWatcher
    : public qeb::object::Ifaces<nox::IMountProvider, nox::IMountSubscription, nox::ISharesParser> {
 public:
  static constexpr std::chrono::milliseconds DefaultFallbackPeriod{5000};

  explicit MountWatcher(qeb::objptr_t<qeb::ITracer> tracer,
                        std::string mountInfoPath = "/proc/self/mountinfo",
                        std::chrono::milliseconds fallbackPeriod = DefaultFallbackPeriod);
  ~MountWatcher();

  // Opens the mount table and reads the first list.
  qeb::result_t SetUp();
  // Starts the poll thread: it wakes on the kernel's change notice or every fallback period.
  void Start();
  // Stops and joins the poll thread, closes the descriptors and drops the subscribers
  // still registered. Idempotent.
  void TearDown();
  // Re-reads the table and notifies subscribers of any difference. Called by the poll
  // thread; before Start a caller may use it directly (one caller at a time).
  qeb::result_t Refresh();

  qeb::result_t GetMountList(nox::MountList& mounts) noexcept override;
  qeb::result_t Subscribe(nox::IMountEvents* subscriber) noexcept override;
  qeb::result_t Unsubscribe(nox::IMountEvents* subscriber) noexcept override;
  qeb::result_t Subscribe(nox::ISharesParserEvents* subscriber) noexcept override;
  qeb::result_t Unsubscribe(nox::ISharesParserEvents* subscriber) noexcept override;

 private:
  qeb::result_t ReadTable(std::string& text) const;
  void Notify(const MountDiff& diff, const nox::MountList& current);
  void PollLoop();
  void DropSubscribers() noexcept;

  const qeb::objptr_t<qeb::ITracer> m_tracer;
  const std::string m_path;
  const std::chrono::milliseconds m_fallbackPeriod;

  mutable std::mutex m_mutex;  // guards the list and both subscriber lists
  nox::MountList m_current;
  bool m_loaded = false;
  std::vector<qeb::objptr_t<nox::IMountEvents>> m_mountSubscribers;
  std::vector<qeb::objptr_t<nox::ISharesParserEvents>> m_shareSubscribers;

  int m_fd = -1;    // the mount table, polled for its change notice
  int m_stopFd = -1;  // eventfd that wakes the poll thread for TearDown
  std::thread m_thread;
};

}  // namespace oasd
