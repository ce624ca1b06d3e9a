// Index building and lookups for one enumeration table. The error texts are part of
// the product's external behaviour (they reach result descriptions), so they are
// built here in exactly one place.
#include "framework/enums/enum_table.h"

#include <algorithm>
#include <stdexcept>

namespace nox::enums {

EnumTable::EnumTable(std::string_view enumName, std::span<const EnumEntry> entries)
    : m_enumName(enumName), m_byValue(entries.begin(), entries.end()) {
  std::sort(m_byValue.begin(), m_byValue.end(),
            [](const EnumEntry& a, const EnumEntry& b) { return a.value < b.value; });
  m_byName.reserve(m_byValue.size());
  for (const EnumEntry& e : m_byValue) m_byName.emplace(e.name, e.value);
}

std::string_view EnumTable::NameOf(uint32_t value) const {
  const auto it = std::lower_bound(
      m_byValue.begin(), m_byValue.end(), value,
      [](const EnumEntry& e, uint32_t v) { return e.value < v; });
  if (it == m_byValue.end() || it->value != value) {
    throw std::runtime_error("EnumToString, invalid '" + std::string(m_enumName) +
                             "' enum value: " + std::to_string(value));
  }
  return it->name;
}

uint32_t EnumTable::ValueOf(std::string_view name) const {
  const auto it = m_byName.find(name);
  if (it == m_byName.end()) {
    throw std::runtime_error("There is no such '" + std::string(m_enumName) +
                             "::Type' value: " + std::string(name));
  }
  return it->second;
}

}  // namespace nox::enums
