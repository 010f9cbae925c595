#pragma once
// Recently opened sections by resource path, so that opening the same file twice reads it once.
// The cache is bounded by the bytes of the sections it holds, counted in kilobytes; the least
// recently used section leaves first. Thread-safe.

#include "resmgr/data_section.hpp"

#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <utility>

class DataSectionCache
{
public:
  static DataSectionCache& instance();

  // The bound in kilobytes; sections over it leave at once. 0 keeps nothing.
  void setSize(size_t kilobytes);
  size_t size() const;
  // Forgets every section.
  void clear();

  // The section cached for `path`, now the most recently used; null if none.
  DataSectionPtr find(const std::string& path);
  // Caches `section` for `path`, replacing what was cached for it.
  void add(const std::string& path, DataSectionPtr section);
  // Forgets the section of `path`, if any.
  void remove(const std::string& path);

  size_t count() const;

private:
  DataSectionCache() = default;
  // The caller holds m_mutex.
  void trim();

  mutable std::mutex m_mutex;
  size_t m_sizeKilobytes = 0;
  size_t m_usedBytes = 0;
  // Most recently used first: path, section, its bytes when added.
  std::list<std::pair<std::string, std::pair<DataSectionPtr, size_t>>> m_entries;
};
