// One enumeration's value/name pairs, indexed by value (sorted, binary search) and by
// name (hashed, exact match). A table is immutable once built; names are views into
// static storage, so the table owns only its indexes and can be shared by any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace nox::enums {

struct EnumEntry {
  uint32_t value;
  std::string_view name;  // must outlive the table (string literals)
};

class EnumTable {
 public:
  EnumTable(std::string_view enumName, std::span<const EnumEntry> entries);

  std::string_view EnumName() const noexcept { return m_enumName; }
  // Both throw std::runtime_error naming the enumeration when there is no match.
  std::string_view NameOf(uint32_t value) const;
  uint32_t ValueOf(std::string_view name) const;
  // Ordered by value.
  std::span<const EnumEntry> Entries() const noexcept { return m_byValue; }

 private:
  std::string_view m_enumName;
  std::vector<EnumEntry> m_byValue;
  std::unordered_map<std::string_view, uint32_t> m_byName;
};

}  // namespace nox::enums
