// The fake object-skip checker: answers a code the test sets (0, "the bases allow it", by
// default), or throws, and counts its calls. During each check it reads back everything
// the callback lends, so tests can see what the caller handed over; it keeps no callback.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/object_skip.h"
#include "testing/locked.h"

namespace qeb::testing {

class FakeObjectSkipChecker : public object::Ifaces<avengine::object_skip::IObjectSkipChecker> {
 public:
  // What the last check's callback lent, as the checker saw it.
  struct Seen {
    std::string fileName;
    avengine::object_skip::CachedObjectInfo entry;
    uint64_t processIdentity = 0;
    bool complete = false;  // every callback query succeeded
  };

  result_t Check(const vrel::EventParams& event,
                 avengine::object_skip::IObjectSkipCallback* callback) override;

  void Answer(result_t code);
  // Each later check throws a std::runtime_error carrying message.
  void Throw(std::string message);
  size_t Calls() const { return m_calls; }
  Seen LastSeen() const { return LockedCopy(m_mutex, m_seen); }

 private:
  mutable std::mutex m_mutex;
  result_t m_answer = res::Ok;
  bool m_throws = false;
  std::string m_message;
  std::atomic<size_t> m_calls{0};
  Seen m_seen;
};

}  // namespace qeb::testing
