// Generations come from one counter for all files, so "older" is well defined across files:
// when the table is full the older half goes at once and the floor takes its highest value,
// which keeps the cost of a full table at one linear pass per half-table of new files. The
// lock covers the table only; nothing here calls out.
#include "host/system/written_files.h"

#include <functional>

namespace oasd {

size_t WrittenFiles::IdentityHash::operator()(const Identity& id) const noexcept {
  return std::hash<uint64_t>{}(id.ino * 0x9e3779b97f4a7c15ULL ^ id.dev);
}

WrittenFiles::WrittenFiles(size_t capacity) : m_capacity(capacity < 2 ? 2 : capacity) {
  m_generations.reserve(m_capacity);
}

void WrittenFiles::NoteWrite(uint64_t dev, uint64_t ino) {
  std::lock_guard lock(m_mutex);
  const Identity id{dev, ino};
  if (m_generations.size() >= m_capacity && !m_generations.count(id)) DropOlderHalf();
  m_generations[id] = ++m_lastGeneration;
}

void WrittenFiles::NoteWriteTo(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
    NoteWrite(static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino));
}

void WrittenFiles::DropOlderHalf() {
  // Generations are unique, so at most half a table's worth lies above the cut.
  const uint64_t cut = m_lastGeneration - m_capacity / 2;
  std::erase_if(m_generations, [cut](const auto& entry) { return entry.second <= cut; });
  if (cut > m_floor) m_floor = cut;
}

uint64_t WrittenFiles::GenerationOf(uint64_t dev, uint64_t ino) const {
  std::lock_guard lock(m_mutex);
  const auto found = m_generations.find(Identity{dev, ino});
  return found == m_generations.end() ? m_floor : found->second;
}

vrel::Timespec WrittenFiles::StampedChangeTime(const struct stat& st) const {
  constexpr uint64_t kNs = 1'000'000'000;
  const uint64_t generation =
      GenerationOf(static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino));
  const uint64_t nsec = static_cast<uint64_t>(st.st_ctim.tv_nsec) + generation;
  return vrel::Timespec{static_cast<int64_t>(st.st_ctim.tv_sec) + static_cast<int64_t>(nsec / kNs),
                        static_cast<int64_t>(nsec % kNs)};
}

size_t WrittenFiles::Size() const {
  std::lock_guard lock(m_mutex);
  return m_generations.size();
}

}  // namespace oasd
