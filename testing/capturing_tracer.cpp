// Records are small host objects with the 512-byte buffer a real host record has, so
// the line writer's growth path is exercised exactly as in production.
#include "testing/capturing_tracer.h"

#include "testing/host_object.h"

namespace qeb::testing {
namespace {

class Record : public object::Ifaces<ITraceRecord> {
 public:
  explicit Record(uint32_t level) : m_level(level) {}
  char* Buffer(size_t* capacity) noexcept override {
    *capacity = sizeof m_buffer;
    return m_buffer;
  }
  uint32_t Level() const { return m_level; }

 private:
  uint32_t m_level;
  char m_buffer[512];
};

}  // namespace

bool CapturingTracer::IsOn(uint32_t level) const {
  if (m_forcedOff.count(level)) return false;
  return level <= m_ceiling || m_forcedOn.count(level);
}

result_t CapturingTracer::CreateRecord(uint32_t level, ITraceRecord** record) noexcept {
  std::lock_guard lock(m_mutex);
  ++m_requests;
  *record = nullptr;
  const result_t recordResult = m_recordResult;
  if (QEB_FAILED(recordResult)) return recordResult;
  if (!IsOn(level)) return res::False;
  *record = MakeHostObject<Record>(level).Detach();
  return res::Ok;
}

result_t CapturingTracer::CommitRecord(ITraceRecord* record, const char* text,
                                       size_t length) noexcept {
  if (!record) return res::InvalidArgument;
  const uint32_t level = static_cast<Record*>(record)->Level();
  std::function<void(std::string_view)> hook;
  {
    std::lock_guard lock(m_mutex);
    m_lines.push_back({level, std::string(text, length)});
    hook = m_hook;
  }
  if (hook) hook(std::string_view(text, length));
  return res::Ok;
}

void CapturingTracer::EnableUpTo(uint32_t ceiling) {
  std::lock_guard lock(m_mutex);
  m_ceiling = ceiling;
  m_forcedOn.clear();
  m_forcedOff.clear();
}

void CapturingTracer::Enable(uint32_t level, bool on) {
  std::lock_guard lock(m_mutex);
  (on ? m_forcedOff : m_forcedOn).erase(level);
  (on ? m_forcedOn : m_forcedOff).insert(level);
}

void CapturingTracer::OnLine(std::function<void(std::string_view)> hook) {
  std::lock_guard lock(m_mutex);
  m_hook = std::move(hook);
}

std::vector<std::string> CapturingTracer::Texts(uint32_t level) const {
  std::lock_guard lock(m_mutex);
  std::vector<std::string> out;
  for (const auto& l : m_lines)
    if (l.level == level) out.push_back(l.text);
  return out;
}

size_t CapturingTracer::Count(std::string_view fragment) const {
  std::lock_guard lock(m_mutex);
  size_t n = 0;
  for (const auto& l : m_lines)
    if (l.text.find(fragment) != std::string::npos) ++n;
  return n;
}

void CapturingTracer::Clear() {
  std::lock_guard lock(m_mutex);
  m_lines.clear();
  m_requests = 0;
}

}  // namespace qeb::testing
