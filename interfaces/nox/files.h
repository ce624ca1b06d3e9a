// The host's file access and content recognition services: io objects that read a file
// by absolute position, the factories that open them by path or from an open
// descriptor, and the format recognizer that classifies an io object's content.
// Every object here is the host's; callers hold them through objptr_t only.
#pragma once

#include <cstdint>
#include <vector>

#include "interfaces/qeb/object.h"

namespace qeb {

enum class io_access_mode : uint32_t {
  Read = 1,
  Write = 2,
  ReadWrite = 3,
};

enum class io_share_mode : uint32_t {
  None = 0,
  Read = 1,
  Write = 2,
  ReadWrite = 3,
};

enum class io_disposition : uint32_t {
  CreateNew = 1,
  CreateAlways = 2,
  OpenIfExist = 3,
  OpenAlways = 4,
};

// An open file. Reads start at the current position and move it on; a read at or past
// the end succeeds with 0 bytes, so short files are told apart by the count read.
struct IIO : IObject {
  static constexpr iid_t IID = 0x1f6b2d38;
  using BaseInterface = IObject;

  // Moves the current position to an absolute offset (past the end is allowed).
  virtual result_t Seek(uint64_t position) noexcept = 0;
  virtual result_t Read(void* buffer, uint32_t size, uint32_t& read) noexcept = 0;

 protected:
  ~IIO() = default;
};

}  // namespace qeb

namespace vrel {
// Service key under which the host registers its file factory by name.
constexpr uint32_t CLSID_FileFactories = 0x0B98A35F;
}  // namespace vrel

namespace nox {

// Opens io objects by path.
struct IFileFactory : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x5E5D84C0;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t CreateFile(const char* path, qeb::io_access_mode access,
                                   qeb::io_share_mode share, qeb::io_disposition disposition,
                                   uint32_t flags, qeb::IIO** io) noexcept = 0;

 protected:
  ~IFileFactory() = default;
};

// Opens io objects over a descriptor the caller keeps: the io object never closes it.
struct IFdFileFactory : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x326456FA;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetIO(int fd, qeb::IIO** io) noexcept = 0;

 protected:
  ~IFdFileFactory() = default;
};

// Classifies one io object's content against the formats it was created for.
struct IIoRecognizer : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x7a3c5e91;
  using BaseInterface = qeb::IObject;

  // 0 when the content is one of the formats; 1 when it is none of them.
  virtual qeb::result_t Recognize(qeb::IIO* io) noexcept = 0;

 protected:
  ~IIoRecognizer() = default;
};

// What an io recognizer is made for. The two option fields are the recognizer's own
// business and are passed through as the caller sets them.
struct IoRecognizerParams {
  std::vector<uint32_t> formats;
  uint64_t value64 = 0;
  bool flag = false;
};

struct IFormatRecognizer : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x9A8776C3;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t CreateIoRecognizer(const IoRecognizerParams& params,
                                           IIoRecognizer** recognizer) noexcept = 0;

 protected:
  ~IFormatRecognizer() = default;
};

}  // namespace nox
