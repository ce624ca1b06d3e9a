// Concurrent scans of one file state share one scan: the first caller for a key runs it,
// callers arriving while it runs wait for it and take a copy of its outcome. It owns only
// the scans in flight, each shared by its leader and waiters until the last lets go.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>

#include "host/engine/checked_cache.h"
#include "host/engine/scan_outcome.h"

namespace oasd {

class ScanCoalescer {
 public:
  using Scan = std::function<ScanOutcome()>;
  // The key of the leader's file read again once its scan is done.
  using Recheck = std::function<std::optional<CheckedKey>()>;

  // Runs scan, or waits for the scan already running for key. An outcome is shared only
  // when the leader's file kept key throughout its scan; otherwise every waiter scans for
  // itself, so nobody is answered about content other than its own event's. `shared`
  // tells whether the outcome came from another caller's scan.
  ScanOutcome Run(const CheckedKey& key, const Scan& scan, const Recheck& recheck, bool& shared);

  // Waits up to `limit` for the scan running for key to have `count` waiters (for tests).
  bool AwaitWaiters(const CheckedKey& key, size_t count, std::chrono::milliseconds limit) const;

 private:
  struct Flight {
    CheckedKey key;
    size_t waiters = 0;
    bool finished = false;
    std::optional<ScanOutcome> outcome;  // empty when the file changed under the scan
  };
  using FlightPtr = std::shared_ptr<Flight>;

  FlightPtr FindLocked(const CheckedKey& key) const;
  ScanOutcome Lead(const FlightPtr& flight, const Scan& scan, const Recheck& recheck);

  mutable std::mutex m_mutex;  // a leaf lock: scans run outside it
  mutable std::condition_variable m_changed;
  std::list<FlightPtr> m_flights;  // few: one per file being scanned now
};

}  // namespace oasd
