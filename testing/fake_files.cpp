// Errors from the system map onto the framework codes a host would give: a missing
// file is FileNotFound, a bad descriptor InvalidHandle, anything else the errno facility.
#include "testing/fake_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "testing/fault_injection.h"
#include "testing/host_object.h"

namespace qeb::testing {
namespace {

result_t FromErrno(int error) noexcept {
  switch (error) {
    case ENOENT: return res::FileNotFound;
    case EBADF: return res::InvalidHandle;
    case EACCES: return res::AccessDenied;
    default: return res::ErrnoFacilityBase | (error & 0xFFFF);
  }
}

}  // namespace

// ---- FdIO ----

FdIO::~FdIO() {
  if (m_fd >= 0) ::close(m_fd);
}

result_t FdIO::Seek(uint64_t position) noexcept {
  OAS_FAULT_POINT("io Seek");
  m_position = position;
  return res::Ok;
}

result_t FdIO::Read(void* buffer, uint32_t size, uint32_t& read) noexcept {
  read = 0;
  OAS_FAULT_POINT("io Read");
  auto* out = static_cast<char*>(buffer);
  while (read < size) {
    const ssize_t n = ::pread(m_fd, out + read, size - read, static_cast<off_t>(m_position));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return FromErrno(errno);
    if (n == 0) break;
    read += static_cast<uint32_t>(n);
    m_position += static_cast<uint64_t>(n);
  }
  return res::Ok;
}

// ---- FakeFileFactory ----

result_t FakeFileFactory::CreateFile(const char* path, io_access_mode access, io_share_mode share,
                                     io_disposition disposition, uint32_t flags,
                                     IIO** io) noexcept {
  if (!io || !path) return res::InvalidArgument;
  *io = nullptr;
  OAS_FAULT_POINT("file factory CreateFile");
  {
    std::lock_guard lock(m_mutex);
    m_lastCreate = CreateFileCall{path, access, share, disposition, flags};
  }
  if (access != io_access_mode::Read || disposition != io_disposition::OpenIfExist)
    return res::NotSupported;
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return FromErrno(errno);
  *io = MakeHostObject<FdIO>(fd).Detach();
  ++m_openedByName;
  return res::Ok;
}

result_t FakeFileFactory::GetIO(int fd, IIO** io) noexcept {
  if (!io) return res::InvalidArgument;
  *io = nullptr;
  OAS_FAULT_POINT("fd file factory GetIO");
  const result_t failure = m_fdFailure;
  if (QEB_FAILED(failure)) return failure;
  const int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (own < 0) return FromErrno(errno);
  *io = MakeHostObject<FdIO>(own).Detach();
  ++m_openedByFd;
  return res::Ok;
}

void FakeFileFactory::RegisterWith(FakeServiceLocator& locator) {
  locator.Register(nox::IFileFactory::IID, vrel::CLSID_FileFactories,
                   static_cast<nox::IFileFactory*>(this));
  locator.Register(nox::IFdFileFactory::IID, 0, static_cast<nox::IFdFileFactory*>(this));
}

// ---- FakeFormatRecognizer ----

bool LooksLikeText(std::string_view head) noexcept {
  if (head.empty()) return false;
  for (const char c : head) {
    const auto b = static_cast<unsigned char>(c);
    const bool printable = (b >= 0x20 && b < 0x7F) || b >= 0x80;
    const bool space = b == '\t' || b == '\n' || b == '\r' || b == '\f';
    if (!printable && !space) return false;
  }
  return true;
}

struct FakeFormatRecognizer::State {
  mutable std::mutex mutex;
  ContentPredicate predicate = LooksLikeText;
  result_t createFailure = res::Ok;
  std::optional<nox::IoRecognizerParams> lastParams;
  size_t recognitions = 0;

  ContentPredicate Predicate() {
    std::lock_guard lock(mutex);
    ++recognitions;
    return predicate;
  }
};

namespace {

class FakeIoRecognizer : public object::Ifaces<nox::IIoRecognizer> {
 public:
  FakeIoRecognizer(std::shared_ptr<FakeFormatRecognizer::State> state, bool anyFormat)
      : m_state(std::move(state)), m_anyFormat(anyFormat) {}

  result_t Recognize(IIO* io) noexcept override {
    if (!io) return res::InvalidArgument;
    OAS_FAULT_POINT("io recognizer Recognize");
    try {
      std::string head(FakeFormatRecognizer::HeadSize, '\0');
      uint32_t read = 0;
      result_t r = io->Seek(0);
      if (QEB_SUCCEEDED(r)) r = io->Read(head.data(), FakeFormatRecognizer::HeadSize, read);
      if (QEB_FAILED(r)) return r;
      head.resize(read);
      const ContentPredicate predicate = m_state->Predicate();
      return m_anyFormat && predicate && predicate(head) ? res::Ok : res::False;
    } catch (...) {
      return res::Unexpected;
    }
  }

 private:
  std::shared_ptr<FakeFormatRecognizer::State> m_state;
  bool m_anyFormat;
};

}  // namespace

FakeFormatRecognizer::FakeFormatRecognizer() : m_state(std::make_shared<State>()) {}

result_t FakeFormatRecognizer::CreateIoRecognizer(const nox::IoRecognizerParams& params,
                                                  nox::IIoRecognizer** recognizer) noexcept {
  if (!recognizer) return res::InvalidArgument;
  *recognizer = nullptr;
  OAS_FAULT_POINT("format recognizer CreateIoRecognizer");
  try {
    std::lock_guard lock(m_state->mutex);
    m_state->lastParams = params;
    if (QEB_FAILED(m_state->createFailure)) return m_state->createFailure;
    *recognizer = MakeHostObject<FakeIoRecognizer>(m_state, !params.formats.empty()).Detach();
    return res::Ok;
  } catch (...) {
    return res::OutOfMemory;
  }
}

void FakeFormatRecognizer::FailCreate(result_t code) {
  std::lock_guard lock(m_state->mutex);
  m_state->createFailure = code;
}

void FakeFormatRecognizer::SetPredicate(ContentPredicate predicate) {
  std::lock_guard lock(m_state->mutex);
  m_state->predicate = std::move(predicate);
}

std::optional<nox::IoRecognizerParams> FakeFormatRecognizer::LastParams() const {
  std::lock_guard lock(m_state->mutex);
  return m_state->lastParams;
}

size_t FakeFormatRecognizer::Recognitions() const {
  std::lock_guard lock(m_state->mutex);
  return m_state->recognitions;
}

void FakeFormatRecognizer::RegisterWith(FakeServiceLocator& locator) {
  locator.Register<nox::IFormatRecognizer>(this);
}

// ---- TempDir ----

ReadFd::ReadFd(const std::string& path) : m_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}

ReadFd::~ReadFd() {
  if (m_fd >= 0) ::close(m_fd);
}

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/oas-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!::mkdtemp(buffer.data())) throw std::runtime_error("cannot create a temporary directory");
  m_path = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::Write(std::string_view name, std::string_view content) const {
  const std::string path = m_path + "/" + std::string(name);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
  return path;
}

}  // namespace qeb::testing
