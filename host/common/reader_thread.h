// Marks the threads that read fanotify permission events. Such a thread must never open a
// file on a marked mount (its own open would wait for a verdict only it can deliver), so
// services that open by path ask here first. The flag is per thread and owned by the reader.
#pragma once

namespace oasd {

namespace detail {
inline thread_local bool onFanotifyReaderThread = false;
}  // namespace detail

inline bool OnFanotifyReaderThread() noexcept { return detail::onFanotifyReaderThread; }
// Called once by each reader thread before it reads its first event.
inline void MarkFanotifyReaderThread() noexcept { detail::onFanotifyReaderThread = true; }

}  // namespace oasd
