#include "fw/string_utils.hpp"

#include "cstdmf/debug.hpp"

#include <cstdint>
#include <type_traits>

namespace FW::StringUtils
{
namespace
{
constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kMaxCodePoint = 0x10FFFF;

bool isHighSurrogate(uint32_t unit)
{
  return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(uint32_t unit)
{
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

// Reads one code point from UTF-16 or UTF-32 units, advancing `pos` past what it consumed.
template <typename Unit>
char32_t decodeWide(const Unit* text, size_t length, size_t& pos)
{
  static_assert(sizeof(Unit) == 2 || sizeof(Unit) == 4);
  // wchar_t is signed on some compilers; go through the unsigned type of the same width.
  using Unsigned = std::conditional_t<sizeof(Unit) == 2, uint16_t, uint32_t>;
  const uint32_t unit = static_cast<Unsigned>(text[pos++]);
  if constexpr (sizeof(Unit) == 2)
  {
    if (isHighSurrogate(unit) && pos < length)
    {
      const uint32_t next = static_cast<Unsigned>(text[pos]);
      if (isLowSurrogate(next))
      {
        ++pos;
        return static_cast<char32_t>(0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
      }
    }
    if (isHighSurrogate(unit) || isLowSurrogate(unit))
      return kReplacement;
    return static_cast<char32_t>(unit);
  }
  else
  {
    if (unit > kMaxCodePoint || isHighSurrogate(unit) || isLowSurrogate(unit))
      return kReplacement;
    return static_cast<char32_t>(unit);
  }
}

// Writes the UTF-8 form of a valid code point; returns its length (1..4).
size_t encodeUtf8(char32_t codePoint, char* out)
{
  if (codePoint < 0x80)
  {
    out[0] = static_cast<char>(codePoint);
    return 1;
  }
  if (codePoint < 0x800)
  {
    out[0] = static_cast<char>(0xC0 | (codePoint >> 6));
    out[1] = static_cast<char>(0x80 | (codePoint & 0x3F));
    return 2;
  }
  if (codePoint < 0x10000)
  {
    out[0] = static_cast<char>(0xE0 | (codePoint >> 12));
    out[1] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (codePoint & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (codePoint >> 18));
  out[1] = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (codePoint & 0x3F));
  return 4;
}

// Reads one code point from UTF-8. A malformed sequence yields one U+FFFD for its longest valid
// prefix (at least one byte), so the byte that broke the sequence starts the next read.
char32_t decodeUtf8(std::string_view text, size_t& pos)
{
  const Utf8Step step = decodeUtf8At(text, pos);
  pos += step.length;
  return step.codePoint;
}

template <typename Unit>
std::string wideToUtf8(const Unit* text, size_t length)
{
  std::string result;
  result.reserve(length);
  char encoded[4];
  size_t pos = 0;
  while (pos < length)
    result.append(encoded, encodeUtf8(decodeWide(text, length, pos), encoded));
  return result;
}

template <typename String>
String utf8ToWide(std::string_view text)
{
  using Unit = typename String::value_type;
  String result;
  result.reserve(text.size());
  size_t pos = 0;
  while (pos < text.size())
  {
    const char32_t codePoint = decodeUtf8(text, pos);
    if (sizeof(Unit) == 2 && codePoint >= 0x10000)
    {
      const char32_t offset = codePoint - 0x10000;
      result.push_back(static_cast<Unit>(0xD800 + (offset >> 10)));
      result.push_back(static_cast<Unit>(0xDC00 + (offset & 0x3FF)));
    }
    else
    {
      result.push_back(static_cast<Unit>(codePoint));
    }
  }
  return result;
}
} // namespace

size_t wtoutf8(const wchar_t* text, size_t length, char* buffer, size_t capacity)
{
  ZR_ASSERT(buffer != nullptr && capacity >= 1);
  ZR_ASSERT(text != nullptr || length == 0);
  size_t written = 0;
  size_t pos = 0;
  char encoded[4];
  while (pos < length)
  {
    const size_t size = encodeUtf8(decodeWide(text, length, pos), encoded);
    if (size > capacity - 1 - written)
      break;
    for (size_t i = 0; i < size; ++i)
      buffer[written++] = encoded[i];
  }
  buffer[written] = '\0';
  return written;
}

std::string wtoutf8(std::wstring_view text)
{
  return wideToUtf8(text.data(), text.size());
}

std::wstring utf8tow(std::string_view text)
{
  return utf8ToWide<std::wstring>(text);
}

std::string utf16toutf8(std::u16string_view text)
{
  return wideToUtf8(text.data(), text.size());
}

std::u16string utf8toutf16(std::string_view text)
{
  return utf8ToWide<std::u16string>(text);
}

Utf8Step decodeUtf8At(std::string_view text, size_t start)
{
  const auto byteAt = [&](size_t index) { return static_cast<unsigned char>(text[index]); };
  size_t pos = start;
  const auto malformed = [&] { return Utf8Step{kReplacement, pos - start, false}; };
  const unsigned char lead = byteAt(pos++);
  if (lead < 0x80)
    return Utf8Step{lead, 1, true};

  size_t trailing = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  char32_t codePoint = 0;
  if (lead >= 0xC2 && lead <= 0xDF)
  {
    trailing = 1;
    codePoint = lead & 0x1F;
  }
  else if (lead >= 0xE0 && lead <= 0xEF)
  {
    trailing = 2;
    codePoint = lead & 0x0F;
    if (lead == 0xE0)
      low = 0xA0; // overlong below U+0800
    else if (lead == 0xED)
      high = 0x9F; // surrogates
  }
  else if (lead >= 0xF0 && lead <= 0xF4)
  {
    trailing = 3;
    codePoint = lead & 0x07;
    if (lead == 0xF0)
      low = 0x90; // overlong below U+10000
    else if (lead == 0xF4)
      high = 0x8F; // beyond U+10FFFF
  }
  else
  {
    return malformed(); // a stray continuation byte, C0, C1 or F5..FF
  }

  for (size_t i = 0; i < trailing; ++i)
  {
    if (pos >= text.size())
      return malformed();
    const unsigned char byte = byteAt(pos);
    if (byte < low || byte > high)
      return malformed();
    codePoint = (codePoint << 6) | (byte & 0x3F);
    ++pos;
    low = 0x80;
    high = 0xBF;
  }
  return Utf8Step{codePoint, pos - start, true};
}

bool isValidUtf8(std::string_view text)
{
  for (size_t pos = 0; pos < text.size();)
  {
    const Utf8Step step = decodeUtf8At(text, pos);
    if (!step.wellFormed)
      return false;
    pos += step.length;
  }
  return true;
}

} // namespace FW::StringUtils
