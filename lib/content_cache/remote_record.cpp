#include "content_cache/remote_store.hpp"

#include "cstdmf/span_reader.hpp"

#include <algorithm>
#include <cstring>

namespace content_cache
{

namespace
{
// "VMAC", u32 version 1, the key, the content's SHA-256, u64 content size, then the SHA-256 of
// everything before it.
constexpr char kRecordMagic[4] = {'V', 'M', 'A', 'C'};
constexpr uint32_t kRecordVersion = 1;
constexpr size_t kRecordSize = 4 + 4 + 32 + 32 + 8 + 32;
} // namespace

std::string RemoteStore::shownUrl(std::string_view url)
{
  // scheme://[user[:password]@]host...: only the authority, before the first '/', '?' or '#'
  // after "://", can hold credentials.
  const size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos)
    return std::string(url);
  const size_t authority = schemeEnd + 3;
  const size_t authorityEnd = std::min(url.find_first_of("/?#", authority), url.size());
  const size_t at = url.substr(0, authorityEnd).rfind('@');
  if (at == std::string_view::npos || at < authority)
    return std::string(url);
  const size_t colon = url.substr(0, at).find(':', authority);
  if (colon == std::string_view::npos)
    return std::string(url);
  return std::string(url.substr(0, colon + 1)) + "***" + std::string(url.substr(at));
}

std::string RemoteStore::encodeRecord(const Digest& key, const Digest& content, uint64_t size)
{
  std::string bytes(kRecordMagic, sizeof(kRecordMagic));
  bytes.append(reinterpret_cast<const char*>(&kRecordVersion), 4);
  bytes.append(reinterpret_cast<const char*>(key.data()), key.size());
  bytes.append(reinterpret_cast<const char*>(content.data()), content.size());
  bytes.append(reinterpret_cast<const char*>(&size), 8);
  const Digest checksum = sha256(bytes);
  bytes.append(reinterpret_cast<const char*>(checksum.data()), checksum.size());
  return bytes;
}

bool RemoteStore::decodeRecord(std::string_view bytes, const Digest& key, Digest& content, uint64_t& size)
{
  if (bytes.size() != kRecordSize || std::memcmp(bytes.data(), kRecordMagic, 4) != 0)
    return false;
  const Digest checksum = sha256(bytes.substr(0, kRecordSize - 32));
  if (std::memcmp(checksum.data(), bytes.data() + kRecordSize - 32, 32) != 0)
    return false;
  cstdmf::SpanReader reader(bytes.data(), bytes.size());
  reader.skip(4);
  if (reader.read<uint32_t>() != kRecordVersion)
    return false;
  const std::span<const std::byte> storedKey = reader.readBytes(32);
  if (std::memcmp(storedKey.data(), key.data(), 32) != 0)
    return false;
  const std::span<const std::byte> storedContent = reader.readBytes(32);
  std::memcpy(content.data(), storedContent.data(), 32);
  size = reader.read<uint64_t>();
  return reader.ok();
}

bool RemoteStore::stopUploads()
{
  return !m_noUploads.exchange(true);
}

bool RemoteStore::turnOff()
{
  return !m_off.exchange(true);
}

} // namespace content_cache
