// In-memory file services for the fuzz targets: io objects over a shared byte string and a
// factory that serves the current input's content for every path and every descriptor, so
// no fuzzed name or descriptor ever reaches the real file system. The factory owns the
// content; each io object shares the content it was opened over and keeps its position.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/files.h"
#include "interfaces/vrel/event_params.h"
#include "testing/fake_service_locator.h"
#include "testing/host_object.h"

namespace oas_fuzz {

class MemoryIO : public qeb::object::Ifaces<qeb::IIO> {
 public:
  explicit MemoryIO(std::shared_ptr<const std::string> content) noexcept
      : m_content(std::move(content)) {}

  qeb::result_t Seek(uint64_t position) noexcept override {
    m_position = position;
    return qeb::res::Ok;
  }
  qeb::result_t Read(void* buffer, uint32_t size, uint32_t& read) noexcept override {
    read = 0;
    if (!buffer && size) return qeb::res::InvalidArgument;
    if (m_position >= m_content->size()) return qeb::res::Ok;
    read = static_cast<uint32_t>(std::min<uint64_t>(size, m_content->size() - m_position));
    std::memcpy(buffer, m_content->data() + m_position, read);
    m_position += read;
    return qeb::res::Ok;
  }

 private:
  std::shared_ptr<const std::string> m_content;
  uint64_t m_position = 0;
};

// Every open answers the current content, or the current failure code.
class MemoryFileFactory : public qeb::object::Ifaces<nox::IFileFactory, nox::IFdFileFactory> {
 public:
  qeb::result_t CreateFile(const char* path, qeb::io_access_mode, qeb::io_share_mode,
                           qeb::io_disposition, uint32_t, qeb::IIO** io) noexcept override {
    if (!path) return qeb::res::InvalidArgument;
    return Open(io);
  }
  qeb::result_t GetIO(int, qeb::IIO** io) noexcept override { return Open(io); }

  void Serve(std::string content, qeb::result_t failure) {
    auto shared = std::make_shared<const std::string>(std::move(content));
    std::lock_guard lock(m_mutex);
    m_content = std::move(shared);
    m_failure = failure;
  }

  // Replaces the fake host's file factories under their usual keys.
  void RegisterWith(qeb::testing::FakeServiceLocator& locator) {
    locator.Register(nox::IFileFactory::IID, vrel::CLSID_FileFactories,
                     static_cast<nox::IFileFactory*>(this));
    locator.Register(nox::IFdFileFactory::IID, 0, static_cast<nox::IFdFileFactory*>(this));
  }

 private:
  qeb::result_t Open(qeb::IIO** io) noexcept {
    if (!io) return qeb::res::InvalidArgument;
    *io = nullptr;
    std::lock_guard lock(m_mutex);
    if (QEB_FAILED(m_failure)) return m_failure;
    *io = qeb::testing::MakeHostObject<MemoryIO>(m_content).Detach();
    return qeb::res::Ok;
  }

  std::mutex m_mutex;
  std::shared_ptr<const std::string> m_content = std::make_shared<const std::string>();
  qeb::result_t m_failure = qeb::res::Ok;
};

}  // namespace oas_fuzz
