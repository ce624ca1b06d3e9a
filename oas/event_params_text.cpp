// The record printer. Numbers go through the line so that they follow its number base;
// times always use the fixed seconds.nanoseconds form. ToString borrows the same printer
// through a tracer that keeps the one line it is given.
#include "oas/event_params_text.h"

#include <cstdio>
#include <iterator>
#include <string_view>

#include "framework/qeb/object_wrapper.h"

namespace vrel {
namespace {

constexpr const char* kOperationNames[] = {
    "VREL_ACTION_NONE",   "VREL_ACTION_OPEN",      "VREL_ACTION_CLOSE",
    "VREL_ACTION_EXEC",   "VREL_ACTION_RENAME",    "VREL_ACTION_UNLINK",
    "VREL_ACTION_LONG_NAME", "VREL_ACTION_CLOSE_MODIFY", "VREL_ACTION_ACCESS",
};
static_assert(std::size(kOperationNames) == VREL_ACTION_ACCESS + 1);

// A tracer whose every level is on and which keeps the text of what it is given. It is
// its own record: Line falls back to a private buffer when the record offers none.
class StringTracer : public qeb::object::Ifaces<qeb::ITracer, qeb::ITraceRecord> {
 public:
  qeb::result_t CreateRecord(uint32_t, qeb::ITraceRecord** record) noexcept override {
    if (!record) return qeb::res::InvalidArgument;
    AddRef();
    *record = this;
    return qeb::res::Ok;
  }
  qeb::result_t CommitRecord(qeb::ITraceRecord*, const char* text, size_t length) noexcept override {
    try {
      m_text.append(text, length);
    } catch (...) {
      return qeb::res::OutOfMemory;
    }
    return qeb::res::Ok;
  }
  char* Buffer(size_t* capacity) noexcept override {
    if (capacity) *capacity = 0;
    return nullptr;
  }

  std::string Take() noexcept { return std::move(m_text); }

 private:
  std::string m_text;
};

}  // namespace

const char* OperationName(uint32_t oper) noexcept {
  return oper < std::size(kOperationNames) ? kOperationNames[oper] : nullptr;
}

std::string ToString(const EventParams& params) {
  auto tracer = qeb::CreateObject<StringTracer>();
  {
    qeb::trace::Line line(static_cast<qeb::ITracer*>(tracer.Get()), qeb::trace::LevelDetail);
    line << params;
  }
  return tracer->Take();
}

}  // namespace vrel

namespace qeb::trace {
namespace {

Line& AppendTime(Line& line, const vrel::Timespec& t) noexcept {
  char buf[48];
  const int n = std::snprintf(buf, sizeof buf, "%lld.%09lld", static_cast<long long>(t.sec),
                              static_cast<long long>(t.nsec));
  return n > 0 ? line.Append(buf, static_cast<size_t>(n)) : line;
}

Line& AppendFileName(Line& line, const qeb::basic_string_t& name) noexcept {
  if (!name.data()) return line << "(null)";
  return line << name.view();
}

}  // namespace

Line& operator<<(Line& line, const vrel::EventParams& params) noexcept {
  if (!line) return line;
  AppendFileName(line << " Filename: ", params.fileName);
  line << ", cookie: " << params.cookie << ", uid: " << params.uid << ", pid: " << params.pid
       << ", upid: " << params.upid << ", fd: " << params.fd << ", queue_id: " << params.queue_id
       << ", oper: " << vrel::OperationName(params.oper) << ", dev: " << params.dev
       << ", ino: " << params.ino << ", nsid: " << params.nsid << ", mtime: ";
  AppendTime(line, params.mtime) << ", ctime: ";
  return AppendTime(line, params.ctime);
}

}  // namespace qeb::trace
