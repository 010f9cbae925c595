#include "resmgr/data_section_cache.hpp"

#include <cstdint>

DataSectionCache& DataSectionCache::instance()
{
  static DataSectionCache s_cache;
  return s_cache;
}

void DataSectionCache::setSize(size_t kilobytes)
{
  std::lock_guard lock(m_mutex);
  m_sizeKilobytes = kilobytes;
  trim();
}

size_t DataSectionCache::size() const
{
  std::lock_guard lock(m_mutex);
  return m_sizeKilobytes;
}

void DataSectionCache::clear()
{
  std::lock_guard lock(m_mutex);
  m_entries.clear();
  m_usedBytes = 0;
}

DataSectionPtr DataSectionCache::find(const std::string& path)
{
  std::lock_guard lock(m_mutex);
  for (auto entry = m_entries.begin(); entry != m_entries.end(); ++entry)
  {
    if (entry->first == path)
    {
      m_entries.splice(m_entries.begin(), m_entries, entry);
      return m_entries.front().second.first;
    }
  }
  return nullptr;
}

void DataSectionCache::add(const std::string& path, DataSectionPtr section)
{
  if (!section)
    return;
  // Measured outside the lock: bytes() may take the sections' own lock.
  const size_t bytes = section->bytes();
  std::lock_guard lock(m_mutex);
  for (auto entry = m_entries.begin(); entry != m_entries.end(); ++entry)
  {
    if (entry->first == path)
    {
      m_usedBytes -= entry->second.second;
      m_entries.erase(entry);
      break;
    }
  }
  m_entries.emplace_front(path, std::make_pair(std::move(section), bytes));
  m_usedBytes += bytes;
  trim();
}

void DataSectionCache::remove(const std::string& path)
{
  std::lock_guard lock(m_mutex);
  for (auto entry = m_entries.begin(); entry != m_entries.end(); ++entry)
  {
    if (entry->first == path)
    {
      m_usedBytes -= entry->second.second;
      m_entries.erase(entry);
      return;
    }
  }
}

size_t DataSectionCache::count() const
{
  std::lock_guard lock(m_mutex);
  return m_entries.size();
}

void DataSectionCache::trim()
{
  const size_t limit = m_sizeKilobytes > SIZE_MAX / 1024 ? SIZE_MAX : m_sizeKilobytes * 1024;
  while (!m_entries.empty() && (m_usedBytes > limit || m_sizeKilobytes == 0))
  {
    m_usedBytes -= m_entries.back().second.second;
    m_entries.pop_back();
  }
}
