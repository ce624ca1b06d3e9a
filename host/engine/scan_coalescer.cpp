// A flight leaves the list when its scan ends, before waiters wake: a caller arriving after
// that starts a scan of its own, so nobody joins a scan that read the file before the caller
// opened it. Waiters copy the outcome out under the lock; the flight dies with the last one.
#include "host/engine/scan_coalescer.h"

#include <algorithm>

namespace oasd {

ScanCoalescer::FlightPtr ScanCoalescer::FindLocked(const CheckedKey& key) const {
  const auto it = std::find_if(m_flights.begin(), m_flights.end(),
                               [&](const FlightPtr& f) { return f->key == key; });
  return it == m_flights.end() ? nullptr : *it;
}

ScanOutcome ScanCoalescer::Run(const CheckedKey& key, const Scan& scan, const Recheck& recheck,
                               bool& shared) {
  shared = false;
  std::unique_lock lock(m_mutex);
  if (const FlightPtr flight = FindLocked(key)) {
    ++flight->waiters;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return flight->finished; });
    std::optional<ScanOutcome> outcome = flight->outcome;
    lock.unlock();
    if (!outcome) return scan();
    shared = true;
    return *std::move(outcome);
  }
  auto flight = std::make_shared<Flight>();
  flight->key = key;
  m_flights.push_back(flight);
  lock.unlock();
  return Lead(flight, scan, recheck);
}

ScanOutcome ScanCoalescer::Lead(const FlightPtr& flight, const Scan& scan, const Recheck& recheck) {
  std::optional<ScanOutcome> outcome;
  try {
    outcome = scan();
  } catch (...) {
    // Waiters must not wait for good: they scan for themselves, the leader's caller sees
    // the exception.
    std::lock_guard lock(m_mutex);
    m_flights.remove(flight);
    flight->finished = true;
    m_changed.notify_all();
    throw;
  }
  const std::optional<CheckedKey> after = recheck ? recheck() : std::nullopt;
  std::lock_guard lock(m_mutex);
  m_flights.remove(flight);
  if (after && *after == flight->key) flight->outcome = outcome;
  flight->finished = true;
  m_changed.notify_all();
  return *std::move(outcome);
}

bool ScanCoalescer::AwaitWaiters(const CheckedKey& key, size_t count,
                                 std::chrono::milliseconds limit) const {
  std::unique_lock lock(m_mutex);
  return m_changed.wait_for(lock, limit, [&] {
    const FlightPtr flight = FindLocked(key);
    return flight && flight->waiters >= count;
  });
}

}  // namespace oasd
