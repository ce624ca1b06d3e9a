// Short strings live in the inline buffer, so copying a typical file name into an event
// record costs no allocation; longer ones are allocated with malloc and freed with free.
#include "framework/qeb/basic_string.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace qeb {

void basic_string_t::Assign(const char* data, size_t length) {
  if (!data) {
    Reset();
    return;
  }
  char* target = m_local;
  size_t capacity = sizeof m_local - 1;
  if (length > capacity) {
    if (m_data && !IsLocal() && m_capacity >= length) {
      target = m_data;
      capacity = m_capacity;
    } else {
      target = static_cast<char*>(std::malloc(length + 1));
      if (!target) throw std::bad_alloc();
      capacity = length;
    }
  }
  std::memmove(target, data, length);
  target[length] = '\0';
  if (target != m_data) Free();
  m_data = target;
  m_length = length;
  m_capacity = capacity;
}

void basic_string_t::Free() noexcept {
  if (m_data && !IsLocal()) std::free(m_data);
  m_data = nullptr;
}

void basic_string_t::Reset() noexcept {
  Free();
  m_length = 0;
  m_capacity = 0;
}

void basic_string_t::MoveFrom(basic_string_t& o) noexcept {
  if (!o.m_data) return;
  if (o.IsLocal()) {
    std::memcpy(m_local, o.m_local, sizeof m_local);
    m_data = m_local;
  } else {
    m_data = o.m_data;
  }
  m_length = o.m_length;
  m_capacity = o.m_capacity;
  o.m_data = nullptr;
  o.m_length = 0;
  o.m_capacity = 0;
}

basic_string_t& basic_string_t::operator=(const basic_string_t& o) {
  if (this == &o) return *this;
  if (o.m_data) Assign(o.m_data, o.m_length);
  else Reset();
  return *this;
}

basic_string_t& basic_string_t::operator=(basic_string_t&& o) noexcept {
  if (this == &o) return *this;
  Reset();
  MoveFrom(o);
  return *this;
}

}  // namespace qeb
