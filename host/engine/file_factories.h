// The host's file factories: io objects by path (refused on a fanotify reader thread, which
// must never open a file on a marked mount) and over a descriptor the caller keeps. Each io
// object reads with pread at its own position; one opened by path owns its descriptor, one
// over a borrowed descriptor never closes it and must not outlive it.
#pragma once

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "interfaces/nox/files.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

// Register as nox::IFileFactory under vrel::CLSID_FileFactories and as nox::IFdFileFactory
// under service key 0.
class FileFactories : public qeb::object::Ifaces<nox::IFileFactory, nox::IFdFileFactory> {
 public:
  explicit FileFactories(qeb::objptr_t<qeb::ITracer> tracer);

  qeb::result_t CreateFile(const char* path, qeb::io_access_mode access, qeb::io_share_mode share,
                           qeb::io_disposition disposition, uint32_t flags,
                           qeb::IIO** io) noexcept override;
  qeb::result_t GetIO(int fd, qeb::IIO** io) noexcept override;

 private:
  qeb::objptr_t<qeb::ITracer> m_tracer;
};

}  // namespace oasd
