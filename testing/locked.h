// Reads and writes of one member of a fake under the fake's own lock, so that an
// accessor of a log or a scripted value stays a single line in the fake's class. Only
// for plain members: an argument is evaluated before the lock is taken.
#pragma once

#include <mutex>
#include <utility>

namespace qeb::testing {

template <class T>
T LockedCopy(std::mutex& mutex, const T& member) {
  std::lock_guard lock(mutex);
  return member;
}

template <class T, class V>
void LockedSet(std::mutex& mutex, T& member, V&& value) {
  std::lock_guard lock(mutex);
  member = std::forward<V>(value);
}

}  // namespace qeb::testing
