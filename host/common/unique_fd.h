// One owned file descriptor, closed when the owner goes. The fanotify services keep their
// groups, stop descriptors and per-filesystem anchors in these; event descriptors are not
// held here, because the permission table decides when each of those is closed.
#pragma once

#include <unistd.h>

#include <utility>

namespace oasd {

class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) Reset(std::exchange(other.m_fd, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }

  int Get() const noexcept { return m_fd; }
  bool Valid() const noexcept { return m_fd >= 0; }
  void Reset(int fd = -1) noexcept {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd = -1;
};

}  // namespace oasd
