// The subscriber bookkeeping the fake providers share: a thread-safe list holding one
// reference per subscriber, a settable refusal code, and a snapshot for delivering
// notifications without holding the list's lock.
#pragma once

#include <algorithm>
#include <mutex>
#include <vector>

#include "framework/qeb/objptr.h"

namespace qeb::testing {

template <class I>
class SubscriberList {
 public:
  result_t Add(I* subscriber) {
    std::lock_guard lock(m_mutex);
    if (QEB_FAILED(m_refusal)) return m_refusal;
    if (!subscriber) return res::InvalidArgument;
    m_subscribers.emplace_back(subscriber);
    return res::Ok;
  }

  result_t Remove(I* subscriber) {
    objptr_t<I> removed;
    std::lock_guard lock(m_mutex);
    auto it = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                           [&](const objptr_t<I>& s) { return s.Get() == subscriber; });
    if (it == m_subscribers.end()) return res::NotFound;
    removed = std::move(*it);
    m_subscribers.erase(it);
    return res::Ok;
  }

  // Lets go of every subscriber, as a provider that stops does.
  void Clear() {
    std::vector<objptr_t<I>> dropped;
    std::lock_guard lock(m_mutex);
    dropped.swap(m_subscribers);
  }

  // Subscribe calls answer code from now on (0 to accept again).
  void Refuse(result_t code) {
    std::lock_guard lock(m_mutex);
    m_refusal = code;
  }

  std::vector<objptr_t<I>> Snapshot() const {
    std::lock_guard lock(m_mutex);
    return m_subscribers;
  }
  size_t Count() const {
    std::lock_guard lock(m_mutex);
    return m_subscribers.size();
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<objptr_t<I>> m_subscribers;
  result_t m_refusal = res::Ok;
};

}  // namespace qeb::testing
