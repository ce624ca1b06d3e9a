// Io objects read with pread at a position of their own, so two readers of one descriptor
// never move each other and the descriptor's shared offset is left alone. Errors from the
// system become the framework codes a caller can tell apart: missing, denied, bad handle.
#include "host/engine/file_factories.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "host/common/reader_thread.h"
#include "nox_tracing/tracing.h"

namespace oasd {
namespace {

using qeb::trace::LevelError;
namespace res = qeb::res;

qeb::result_t ResultFromErrno(int error) noexcept {
  switch (error) {
    case ENOENT: return res::FileNotFound;
    case ENOTDIR: return res::PathNotFound;
    case EEXIST: return res::AlreadyExists;
    case EBADF: return res::InvalidHandle;
    case EACCES:
    case EPERM: return res::AccessDenied;
    case ENOMEM: return res::OutOfMemory;
    case EIO: return res::MediaError;
    default: return res::ErrnoFacilityBase | (error & 0xFFFF);
  }
}

class PreadIO : public qeb::object::Ifaces<qeb::IIO> {
 public:
  PreadIO(int fd, bool owned) noexcept : m_fd(fd), m_owned(owned) {}
  ~PreadIO() {
    if (m_owned) ::close(m_fd);
  }

  qeb::result_t Seek(uint64_t position) noexcept override {
    m_position = position;
    return res::Ok;
  }

  qeb::result_t Read(void* buffer, uint32_t size, uint32_t& read) noexcept override {
    read = 0;
    if (!buffer && size != 0) return res::InvalidArgument;
    auto* out = static_cast<char*>(buffer);
    while (read < size) {
      const ssize_t n = ::pread(m_fd, out + read, size - read, static_cast<off_t>(m_position));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return ResultFromErrno(errno);
      if (n == 0) break;
      read += static_cast<uint32_t>(n);
      m_position += static_cast<uint64_t>(n);
    }
    return res::Ok;
  }

 private:
  const int m_fd;
  const bool m_owned;
  uint64_t m_position = 0;
};

int AccessFlags(qeb::io_access_mode access) noexcept {
  switch (access) {
    case qeb::io_access_mode::Read: return O_RDONLY;
    case qeb::io_access_mode::Write: return O_WRONLY;
    case qeb::io_access_mode::ReadWrite: return O_RDWR;
  }
  return -1;
}

int DispositionFlags(qeb::io_disposition disposition) noexcept {
  switch (disposition) {
    case qeb::io_disposition::CreateNew: return O_CREAT | O_EXCL;
    case qeb::io_disposition::CreateAlways: return O_CREAT | O_TRUNC;
    case qeb::io_disposition::OpenIfExist: return 0;
    case qeb::io_disposition::OpenAlways: return O_CREAT;
  }
  return -1;
}

}  // namespace

FileFactories::FileFactories(qeb::objptr_t<qeb::ITracer> tracer) : m_tracer(std::move(tracer)) {}

// Share modes have no counterpart on Linux and flags are not used by this host.
qeb::result_t FileFactories::CreateFile(const char* path, qeb::io_access_mode access,
                                        qeb::io_share_mode, qeb::io_disposition disposition,
                                        uint32_t, qeb::IIO** io) noexcept {
  if (!io || !path) return res::InvalidArgument;
  *io = nullptr;
  if (OnFanotifyReaderThread()) {
    QEB_TRACE(m_tracer, LevelError)
        << "refusing to open " << path << " on a fanotify reader thread";
    return res::InvalidState;
  }
  const int accessFlags = AccessFlags(access);
  const int dispositionFlags = DispositionFlags(disposition);
  if (accessFlags < 0 || dispositionFlags < 0) return res::InvalidArgument;
  const int fd = ::open(path, accessFlags | dispositionFlags | O_CLOEXEC, 0644);
  if (fd < 0) return ResultFromErrno(errno);
  try {
    *io = qeb::host::MakeHostObject<PreadIO>(fd, true).Detach();
  } catch (...) {
    ::close(fd);
    return res::OutOfMemory;
  }
  return res::Ok;
}

qeb::result_t FileFactories::GetIO(int fd, qeb::IIO** io) noexcept {
  if (!io) return res::InvalidArgument;
  *io = nullptr;
  if (fd < 0 || ::fcntl(fd, F_GETFD) < 0) return res::InvalidHandle;
  try {
    *io = qeb::host::MakeHostObject<PreadIO>(fd, false).Detach();
  } catch (...) {
    return res::OutOfMemory;
  }
  return res::Ok;
}

}  // namespace oasd
