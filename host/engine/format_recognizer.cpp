// libmagic handles are not safe to share between threads, and loading the database costs
// milliseconds, so handles are pooled: a recognition borrows one under the pool's lock and
// gives it back when done, and the pool grows only to the number of concurrent callers.
// Text here means text by encoding, whatever the text says: the module asks whether a clean
// file may be skipped next time, and how a script or a markup file reads is the engine's
// business, not the cache's. That is also what keeps recognition cheap (see kMagicFlags).
#include "host/engine/format_recognizer.h"

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
// libmagic's own pattern database (the soft checks) costs half a millisecond and more on
// every text-looking head, and what it adds is a finer name for the text (a shell script,
// HTML, SVG, JSON...): under MIME names some of those are text/* and some are not, which is
// no line a cache of clean files should draw. With it and the format-specific checks off,
// libmagic answers from the encoding alone: text/plain for text in any encoding it knows,
// application/octet-stream for anything else, in a microsecond or so.
constexpr int kMagicFlags = MAGIC_MIME_TYPE | MAGIC_NO_CHECK_SOFT | MAGIC_NO_CHECK_COMPRESS |
                            MAGIC_NO_CHECK_TAR | MAGIC_NO_CHECK_APPTYPE | MAGIC_NO_CHECK_ELF |
                            MAGIC_NO_CHECK_CDF | MAGIC_NO_CHECK_CSV | MAGIC_NO_CHECK_TOKENS |
                            MAGIC_NO_CHECK_JSON;

// The bytes libmagic's encoding test never finds in single-byte text: NUL, the C0 controls
// other than BEL, BS, HT, LF, VT, FF, CR and ESC, and DEL.
constexpr bool NeverInSingleByteText(unsigned char c) noexcept {
  if (c == 0x7F) return true;
  if (c >= 0x20) return false;
  return (c < 0x07 || c > 0x0D) && c != 0x1B;
}

// UTF-16 and UTF-32 text is full of such bytes; libmagic takes it for text only behind a
// byte-order mark (FF FE also starts UTF-32LE's), so only such a head still needs asking.
bool StartsWithWideByteOrderMark(std::string_view head) noexcept {
  using namespace std::string_view_literals;
  return head.starts_with("\xFF\xFE"sv) || head.starts_with("\xFE\xFF"sv) ||
         head.starts_with("\0\0\xFE\xFF"sv);
}

// Most binary files show a NUL in their first few bytes, so this settles them without
// libmagic. It errs only towards "not text", and only for EBCDIC, which libmagic's loose
// test would accept (it takes ASCII with a stray control byte for EBCDIC too): such a file
// is scanned each time rather than remembered, which is the safe way to be wrong.
bool SurelyNotText(std::string_view head) noexcept {
  if (StartsWithWideByteOrderMark(head)) return false;
  return std::any_of(head.begin(), head.end(),
                     [](char c) { return NeverInSingleByteText(static_cast<unsigned char>(c)); });
}

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
      if (head.empty() || SurelyNotText(head)) return res::False;
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
