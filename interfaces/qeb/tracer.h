// The host's tracer as the module sees it: a record per line, obtained only when the
// level is enabled, filled in its own buffer and committed back. A prefix tracer
// also answers who it wraps and with what prefix, so wrappers can be flattened.
#pragma once

#include <cstddef>
#include <cstdint>

#include "interfaces/qeb/object.h"

namespace qeb {

namespace trace {
constexpr uint32_t LevelError = 300;
constexpr uint32_t LevelNotice = 700;
constexpr uint32_t LevelDetail = 800;
}  // namespace trace

// One line being written: a buffer of at least 512 bytes owned by the record.
struct ITraceRecord : IObject {
  static constexpr iid_t IID = 0x1b52e0c4;
  using BaseInterface = IObject;

  virtual char* Buffer(size_t* capacity) noexcept = 0;

 protected:
  ~ITraceRecord() = default;
};

struct ITracer : IObject {
  static constexpr iid_t IID = 0x6ef3329b;
  using BaseInterface = IObject;

  // A failure or a null record means the level is off.
  virtual result_t CreateRecord(uint32_t level, ITraceRecord** record) noexcept = 0;
  // text may point into the record's buffer or, after growth, elsewhere.
  virtual result_t CommitRecord(ITraceRecord* record, const char* text, size_t length) noexcept = 0;

 protected:
  ~ITracer() = default;
};

namespace trace {
struct IPrefixTracer : IObject {
  static constexpr iid_t IID = 0x4d0c7a92;
  using BaseInterface = IObject;

  virtual result_t GetPrefix(const char** prefix, size_t* length) noexcept = 0;
  virtual result_t GetInnerTracer(ITracer** inner) noexcept = 0;

 protected:
  ~IPrefixTracer() = default;
};
}  // namespace trace

}  // namespace qeb
