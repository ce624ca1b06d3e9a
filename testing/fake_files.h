// Fake file services over real files: io objects that pread a descriptor they own, a
// file factory that opens by path or duplicates a caller's descriptor, and a format
// recognizer whose io recognizers really read the content and judge it with a
// predicate (printable text by default). Each can be told to fail. TempDir owns a
// scratch directory for the files and removes it with everything in it.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/files.h"
#include "testing/fake_service_locator.h"
#include "testing/locked.h"

namespace qeb::testing {

// Reads through its own position with pread; owns and closes the descriptor.
class FdIO : public object::Ifaces<IIO> {
 public:
  explicit FdIO(int ownedFd) noexcept : m_fd(ownedFd) {}
  ~FdIO();

  result_t Seek(uint64_t position) noexcept override;
  result_t Read(void* buffer, uint32_t size, uint32_t& read) noexcept override;

 private:
  int m_fd;
  uint64_t m_position = 0;
};

struct CreateFileCall {
  std::string path;
  io_access_mode access;
  io_share_mode share;
  io_disposition disposition;
  uint32_t flags;
};

// Opens existing files read-only by path (any other access or disposition is refused
// with NotSupported), or duplicates a descriptor so the caller's stays its own.
class FakeFileFactory : public object::Ifaces<nox::IFileFactory, nox::IFdFileFactory> {
 public:
  result_t CreateFile(const char* path, io_access_mode access, io_share_mode share,
                      io_disposition disposition, uint32_t flags, IIO** io) noexcept override;
  result_t GetIO(int fd, IIO** io) noexcept override;

  void FailByFd(result_t code) { m_fdFailure = code; }

  size_t OpenedByName() const { return m_openedByName; }  // successful opens
  size_t OpenedByFd() const { return m_openedByFd; }
  std::optional<CreateFileCall> LastCreateFile() const { return LockedCopy(m_mutex, m_lastCreate); }

  // As IFileFactory under vrel::CLSID_FileFactories and as IFdFileFactory under key 0.
  void RegisterWith(FakeServiceLocator& locator);

 private:
  mutable std::mutex m_mutex;
  std::atomic<result_t> m_fdFailure{res::Ok};
  std::atomic<size_t> m_openedByName{0};
  std::atomic<size_t> m_openedByFd{0};
  std::optional<CreateFileCall> m_lastCreate;
};

// Printable ASCII, tab, line breaks, form feed and UTF-8 lead/continuation bytes. An
// empty head is not text.
bool LooksLikeText(std::string_view head) noexcept;

using ContentPredicate = std::function<bool(std::string_view head)>;

class FakeFormatRecognizer : public object::Ifaces<nox::IFormatRecognizer> {
 public:
  static constexpr uint32_t HeadSize = 4096;  // bytes an io recognizer reads from offset 0

  FakeFormatRecognizer();

  // Io recognizers answer 0 when the predicate accepts the file's head, 1 otherwise (and
  // always 1 when created with no formats); a failed read answers the read's code.
  result_t CreateIoRecognizer(const nox::IoRecognizerParams& params,
                              nox::IIoRecognizer** recognizer) noexcept override;

  void FailCreate(result_t code);  // res::Ok restores
  // Applies to existing io recognizers too.
  void SetPredicate(ContentPredicate predicate);
  std::optional<nox::IoRecognizerParams> LastParams() const;
  size_t Recognitions() const;

  void RegisterWith(FakeServiceLocator& locator);

  struct State;

 private:
  std::shared_ptr<State> m_state;
};

// A read-only descriptor of a file, closed when it goes; Get() is -1 if the open failed.
class ReadFd {
 public:
  explicit ReadFd(const std::string& path);
  ReadFd(const ReadFd&) = delete;
  ReadFd& operator=(const ReadFd&) = delete;
  ~ReadFd();
  int Get() const { return m_fd; }

 private:
  int m_fd;
};

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return m_path; }
  // Writes the file (replacing it) and answers its full path.
  std::string Write(std::string_view name, std::string_view content) const;

 private:
  std::string m_path;
};

}  // namespace qeb::testing
