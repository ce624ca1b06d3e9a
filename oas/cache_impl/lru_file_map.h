// Bounded least-recently-used storage of clean-file entries by FileId, shared by the
// per-kind caches. It owns the keys, the shared entries and the recency order; it has
// no lock of its own, so its owner serialises every call. Entries handed out stay
// alive with their holders after the map drops them.
#pragma once

#include <cstddef>
#include <iterator>
#include <list>
#include <memory>
#include <unordered_map>
#include <utility>

#include "oas/files_cache.h"

namespace nox::oas {

template <class Entry>
class LruFileMap {
 public:
  explicit LruFileMap(size_t capacity) : m_capacity(capacity) { m_index.max_load_factor(1.0f); }

  // The entry, made most recently used; null when the key is absent.
  std::shared_ptr<Entry> Find(const FileId& id) {
    auto it = m_index.find(id);
    if (it == m_index.end()) return nullptr;
    m_order.splice(m_order.end(), m_order, it->second.position);
    return it->second.entry;
  }

  // Adds a key not yet held as most recently used; when the map is full the least
  // recently used file goes first. False (and nothing changed) when the key is held.
  bool Insert(FileId id, std::shared_ptr<Entry> entry) {
    if (m_index.count(id)) return false;
    if (m_index.size() >= m_capacity) RemoveLeastRecentlyUsed();
    auto [it, inserted] = m_index.try_emplace(std::move(id), Slot{std::move(entry), {}});
    try {
      m_order.push_back(&it->first);
    } catch (...) {
      m_index.erase(it);
      throw;
    }
    it->second.position = std::prev(m_order.end());
    return inserted;
  }

  bool Remove(const FileId& id) {
    auto it = m_index.find(id);
    if (it == m_index.end()) return false;
    m_order.erase(it->second.position);
    m_index.erase(it);
    return true;
  }

  void Clear() noexcept {
    m_order.clear();
    m_index.clear();
  }

  size_t Size() const noexcept { return m_index.size(); }
  size_t Capacity() const noexcept { return m_capacity; }

 private:
  struct Slot {
    std::shared_ptr<Entry> entry;
    typename std::list<const FileId*>::iterator position;
  };

  void RemoveLeastRecentlyUsed() {
    if (m_order.empty()) return;
    const FileId* oldest = m_order.front();
    m_order.pop_front();
    m_index.erase(*oldest);
  }

  size_t m_capacity;
  std::unordered_map<FileId, Slot, FileIdHash> m_index;
  std::list<const FileId*> m_order;  // least recently used first; points at the map's keys
};

}  // namespace nox::oas
