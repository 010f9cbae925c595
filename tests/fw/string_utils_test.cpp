#include "fw/string_utils.hpp"

#include <gtest/gtest.h>

#include <string>

using namespace FW::StringUtils;

namespace
{
// U+00E9, U+20AC and U+1F600: two, three and four UTF-8 bytes.
const std::string kMixedUtf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
const std::string kReplacementUtf8 = "\xEF\xBF\xBD";
} // namespace

TEST(StringUtils, WideRoundTripsThroughUtf8)
{
  const std::wstring wide = L"a\u00E9\u20AC\U0001F600";
  EXPECT_EQ(wtoutf8(wide), kMixedUtf8);
  EXPECT_EQ(utf8tow(kMixedUtf8), wide);
  EXPECT_EQ(wtoutf8(L""), "");
  EXPECT_EQ(utf8tow(""), L"");
}

TEST(StringUtils, Utf16SurrogatePairs)
{
  const std::u16string utf16 = u"a\u00E9\u20AC\U0001F600";
  ASSERT_EQ(utf16.size(), 5u); // the last character is a surrogate pair
  EXPECT_EQ(utf16toutf8(utf16), kMixedUtf8);
  EXPECT_EQ(utf8toutf16(kMixedUtf8), utf16);
  EXPECT_EQ(utf16toutf8(u"\U0010FFFF"), "\xF4\x8F\xBF\xBF");
}

TEST(StringUtils, LoneSurrogatesAreReplaced)
{
  EXPECT_EQ(utf16toutf8(std::u16string{char16_t(0xD83D)}), kReplacementUtf8);
  EXPECT_EQ(utf16toutf8(std::u16string{char16_t(0xD83D), u'x'}), kReplacementUtf8 + "x");
  EXPECT_EQ(utf16toutf8(std::u16string{char16_t(0xDE00), char16_t(0xD83D)}), kReplacementUtf8 + kReplacementUtf8);
  if constexpr (sizeof(wchar_t) == 4)
  {
    const std::wstring bad = {wchar_t(0xD800), wchar_t(0x110000), L'z'};
    EXPECT_EQ(wtoutf8(bad), kReplacementUtf8 + kReplacementUtf8 + "z");
    // A negative wchar_t is no code point either.
    EXPECT_EQ(wtoutf8(std::wstring{static_cast<wchar_t>(-1)}), kReplacementUtf8);
  }
}

TEST(StringUtils, MalformedUtf8IsReplacedPerMaximalPrefix)
{
  const std::u16string r = u"\uFFFD";
  // Stray continuation byte, C0/C1 and F5 leads.
  EXPECT_EQ(utf8toutf16("\x80"), r);
  EXPECT_EQ(utf8toutf16("\xC0\xAF"), r + r);
  EXPECT_EQ(utf8toutf16("\xF5x"), r + u"x");
  // Overlong three-byte form, encoded surrogate, beyond U+10FFFF.
  EXPECT_EQ(utf8toutf16("\xE0\x80\x80"), r + r + r);
  EXPECT_EQ(utf8toutf16("\xED\xA0\x80"), r + r + r);
  EXPECT_EQ(utf8toutf16("\xF4\x90\x80\x80"), r + r + r + r);
  // A truncated sequence gives one replacement, and the byte that broke it starts over.
  EXPECT_EQ(utf8toutf16("\xE2\x82"), r);
  EXPECT_EQ(utf8toutf16("\xE2\x82x"), r + u"x");
  EXPECT_EQ(utf8toutf16("\xF0\x9F\x98\xC3\xA9"), r + u"\u00E9");
  EXPECT_EQ(utf8tow("\xF0\x9F\x98"), L"\uFFFD");
}

TEST(StringUtils, BufferConversionFitsOrStopsOnACharacterBoundary)
{
  const std::wstring wide = L"a\u00E9\u20AC\U0001F600";
  const std::string expected = wtoutf8(wide);

  std::string buffer(wide.size() * kMaxUtf8BytesPerWideChar + 1, '#');
  size_t written = wtoutf8(wide.data(), wide.size(), buffer.data(), buffer.size());
  EXPECT_EQ(std::string(buffer.data(), written), expected);
  EXPECT_EQ(buffer[written], '\0');

  // Every smaller capacity keeps whole characters only and always terminates.
  for (size_t capacity = 1; capacity <= expected.size(); ++capacity)
  {
    std::string small(capacity, '#');
    written = wtoutf8(wide.data(), wide.size(), small.data(), small.size());
    ASSERT_LT(written, capacity);
    EXPECT_EQ(small[written], '\0');
    EXPECT_EQ(expected.compare(0, written, small.data(), written), 0) << capacity;
    const bool boundary = written == expected.size() || (static_cast<unsigned char>(expected[written]) & 0xC0) != 0x80;
    EXPECT_TRUE(boundary) << capacity;
  }
}
