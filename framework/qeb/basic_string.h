// The framework's narrow string as it crosses binary interfaces: data pointer first,
// then the length in bytes, then capacity and a small inline buffer (48 bytes in all).
// A copy always owns its own bytes; a null data pointer is a distinct "no string" state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qeb {

class basic_string_t {
 public:
  basic_string_t() noexcept = default;
  basic_string_t(std::string_view s) { Assign(s.data(), s.size()); }
  basic_string_t(const basic_string_t& o) { if (o.m_data) Assign(o.m_data, o.m_length); }
  basic_string_t(basic_string_t&& o) noexcept { MoveFrom(o); }
  basic_string_t& operator=(const basic_string_t& o);
  basic_string_t& operator=(basic_string_t&& o) noexcept;
  ~basic_string_t() { Free(); }

  // Null when no string was ever set (printed as "(null)").
  const char* data() const noexcept { return m_data; }
  size_t size() const noexcept { return static_cast<size_t>(m_length); }
  bool empty() const noexcept { return m_length == 0; }
  std::string_view view() const noexcept {
    return m_data ? std::string_view(m_data, m_length) : std::string_view();
  }
  void Assign(const char* data, size_t length);
  void Reset() noexcept;

  bool operator==(const basic_string_t& o) const noexcept {
    return (m_data == nullptr) == (o.m_data == nullptr) && view() == o.view();
  }

 private:
  bool IsLocal() const noexcept { return m_data == m_local; }
  void Free() noexcept;
  void MoveFrom(basic_string_t& o) noexcept;

  char* m_data = nullptr;
  uint64_t m_length = 0;
  uint64_t m_capacity = 0;
  char m_local[24] = {};
};

static_assert(sizeof(basic_string_t) == 48);

}  // namespace qeb
