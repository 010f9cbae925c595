#pragma once
// Text conversions between wide characters and UTF-8.
//
// A wide string is UTF-16 where wchar_t has 16 bits (Windows) and UTF-32 where it has 32 bits.
// Every conversion is total: an invalid sequence (a lone surrogate, a value beyond U+10FFFF, a
// malformed or truncated UTF-8 sequence) becomes U+FFFD and conversion goes on with the next unit.

#include <cstddef>
#include <string>
#include <string_view>

namespace FW::StringUtils
{

// No wide character, valid or not, takes more UTF-8 bytes than this.
inline constexpr size_t kMaxUtf8BytesPerWideChar = 4;

// Converts `length` wide characters at `text` to UTF-8 into `buffer` and zero-terminates it.
// `capacity` counts the terminator and must be at least 1. A capacity of
// length * kMaxUtf8BytesPerWideChar + 1 always holds the whole text; with less, conversion stops
// before the first character that does not fit whole. Returns the number of bytes written, not
// counting the terminator.
[[nodiscard]] size_t wtoutf8(const wchar_t* text, size_t length, char* buffer, size_t capacity);

std::string wtoutf8(std::wstring_view text);
std::wstring utf8tow(std::string_view text);

// One step of reading UTF-8 at text[pos] (pos < text.size()): the code point and the length of the
// well-formed sequence there, or, when it is malformed (overlong forms, surrogates and values beyond
// U+10FFFF are), U+FFFD and the length of its longest valid prefix, at least 1.
struct Utf8Step
{
  char32_t codePoint = 0;
  size_t length = 0;
  bool wellFormed = false;
};
Utf8Step decodeUtf8At(std::string_view text, size_t pos);

// Whether every byte of the text belongs to a well-formed UTF-8 sequence.
bool isValidUtf8(std::string_view text);

// The same conversions with UTF-16 spelled out, whatever the width of wchar_t.
std::string utf16toutf8(std::u16string_view text);
std::u16string utf8toutf16(std::string_view text);

} // namespace FW::StringUtils
