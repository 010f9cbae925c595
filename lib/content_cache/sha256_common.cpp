#include "content_cache/sha256.hpp"

#include <cstdint>

namespace content_cache
{

void Sha256::update(std::string_view text)
{
  update(std::as_bytes(std::span<const char>(text.data(), text.size())));
}

Digest sha256(std::span<const std::byte> bytes)
{
  Sha256 hash;
  hash.update(bytes);
  return hash.finish();
}

Digest sha256(std::string_view bytes)
{
  Sha256 hash;
  hash.update(bytes);
  return hash.finish();
}

std::string toHex(const Digest& digest)
{
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(digest.size() * 2);
  for (const uint8_t byte : digest)
  {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0F];
  }
  return text;
}

bool fromHex(std::string_view text, Digest& digest)
{
  if (text.size() != digest.size() * 2)
    return false;
  const auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9')
      return c - '0';
    if (c >= 'a' && c <= 'f')
      return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
      return c - 'A' + 10;
    return -1;
  };
  for (size_t i = 0; i < digest.size(); ++i)
  {
    const int high = nibble(text[2 * i]);
    const int low = nibble(text[2 * i + 1]);
    if (high < 0 || low < 0)
      return false;
    digest[i] = static_cast<uint8_t>(high * 16 + low);
  }
  return true;
}

} // namespace content_cache
