// libmagic handles are not safe to share between threads, and loading the database costs
// milliseconds, so handles are pooled: a recognition borrows one under the pool's lock and
// gives it back when done, and the pool grows only to the number of concurrent callers.
#include "host/format_recognizer.h"

#include <magic.h>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nox_tracing/tracing.h"

namespace oasd {
namespace {

using qeb::trace::LevelError;
namespace res = qeb::res;

// The recognizer formats that mean plain text, as the module asks for them.
constexpr uint32_t kTextFormats[] = {0xEDC681B2, 0xF9558CA0, 0x3B516E84, 0x50AE7558, 0xC0050694};
constexpr int kMagicFlags = MAGIC_MIME_TYPE | MAGIC_NO_CHECK_COMPRESS | MAGIC_NO_CHECK_TAR;

bool AsksForText(const nox::IoRecognizerParams& params) {
  return std::any_of(params.formats.begin(), params.formats.end(), [](uint32_t format) {
    return std::find(std::begin(kTextFormats), std::end(kTextFormats), format) !=
           std::end(kTextFormats);
  });
}

}  // namespace

class MagicPool {
 public:
  MagicPool() = default;
  MagicPool(const MagicPool&) = delete;
  MagicPool& operator=(const MagicPool&) = delete;
  ~MagicPool() {
    for (magic_t handle : m_free) magic_close(handle);
  }

  // A handle for this thread's exclusive use, or null (with why in error) when libmagic
  // cannot open its database.
  magic_t Acquire(std::string& error) {
    {
      std::lock_guard lock(m_mutex);
      if (!m_free.empty()) {
        magic_t handle = m_free.back();
        m_free.pop_back();
        return handle;
      }
    }
    return OpenHandle(error);
  }

  void Release(magic_t handle) {
    std::lock_guard lock(m_mutex);
    m_free.push_back(handle);
  }

 private:
  static magic_t OpenHandle(std::string& error) {
    magic_t handle = magic_open(kMagicFlags);
    if (!handle) {
      error = "magic_open failed";
      return nullptr;
    }
    if (magic_load(handle, nullptr) != 0) {
      const char* why = magic_error(handle);
      error = why ? why : "magic_load failed";
      magic_close(handle);
      return nullptr;
    }
    return handle;
  }

  std::mutex m_mutex;
  std::vector<magic_t> m_free;
};

namespace {

class MagicLease {
 public:
  MagicLease(MagicPool& pool, std::string& error) : m_pool(pool), m_handle(pool.Acquire(error)) {}
  ~MagicLease() {
    if (m_handle) m_pool.Release(m_handle);
  }
  MagicLease(const MagicLease&) = delete;
  MagicLease& operator=(const MagicLease&) = delete;

  magic_t Get() const noexcept { return m_handle; }

 private:
  MagicPool& m_pool;
  magic_t m_handle;
};

class MagicIoRecognizer : public qeb::object::Ifaces<nox::IIoRecognizer> {
 public:
  MagicIoRecognizer(qeb::objptr_t<qeb::ITracer> tracer, std::shared_ptr<MagicPool> pool,
                    bool wantsText)
      : m_tracer(std::move(tracer)), m_pool(std::move(pool)), m_wantsText(wantsText) {}

  qeb::result_t Recognize(qeb::IIO* io) noexcept override {
    if (!io) return res::InvalidArgument;
    if (!m_wantsText) return res::False;
    try {
      std::string head;
      if (const qeb::result_t r = ReadHead(io, head); QEB_FAILED(r)) return r;
      if (head.empty()) return res::False;
      std::string mime;
      if (const qeb::result_t r = MimeType(head, mime); QEB_FAILED(r)) return r;
      return mime.starts_with("text/") ? res::Ok : res::False;
    } catch (...) {
      return res::OutOfMemory;
    }
  }

 private:
  static qeb::result_t ReadHead(qeb::IIO* io, std::string& head) {
    head.resize(FormatRecognizer::HeadSize);
    uint32_t read = 0;
    qeb::result_t r = io->Seek(0);
    if (QEB_SUCCEEDED(r)) r = io->Read(head.data(), FormatRecognizer::HeadSize, read);
    head.resize(QEB_SUCCEEDED(r) ? read : 0);
    return r;
  }

  qeb::result_t MimeType(const std::string& head, std::string& mime) {
    std::string error;
    const MagicLease lease(*m_pool, error);
    const char* type = lease.Get() ? magic_buffer(lease.Get(), head.data(), head.size()) : nullptr;
    if (!type) {
      if (lease.Get() && magic_error(lease.Get())) error = magic_error(lease.Get());
      QEB_TRACE(m_tracer, LevelError) << "format recognizer: " << error;
      return res::Unspecified;
    }
    mime = type;
    return res::Ok;
  }

  qeb::objptr_t<qeb::ITracer> m_tracer;
  std::shared_ptr<MagicPool> m_pool;
  const bool m_wantsText;
};

}  // namespace

FormatRecognizer::FormatRecognizer(qeb::objptr_t<qeb::ITracer> tracer)
    : m_tracer(std::move(tracer)), m_pool(std::make_shared<MagicPool>()) {}

FormatRecognizer::~FormatRecognizer() = default;

qeb::result_t FormatRecognizer::SetUp() {
  std::string error;
  const MagicLease lease(*m_pool, error);
  if (lease.Get()) return res::Ok;
  QEB_TRACE(m_tracer, LevelError) << "format recognizer: cannot load the magic database: " << error;
  return res::NotReady;
}

qeb::result_t FormatRecognizer::CreateIoRecognizer(const nox::IoRecognizerParams& params,
                                                   nox::IIoRecognizer** recognizer) noexcept {
  if (!recognizer) return res::InvalidArgument;
  *recognizer = nullptr;
  try {
    *recognizer =
        qeb::host::MakeHostObject<MagicIoRecognizer>(m_tracer, m_pool, AsksForText(params))
            .Detach();
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

}  // namespace oasd
