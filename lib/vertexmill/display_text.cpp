#include "vertexmill/display_text.hpp"

#include "fw/string_utils.hpp"

#include <cstdint>
#include <cstdio>

namespace vertexmill
{
namespace
{
constexpr std::string_view kReplacement = "\xEF\xBF\xBD"; // U+FFFD

bool isContinuation(unsigned char byte)
{
  return (byte & 0xC0) == 0x80;
}

// Length of the well-formed sequence at text[pos], or 0 when the byte there starts none.
size_t sequenceLength(std::string_view text, size_t pos)
{
  const FW::StringUtils::Utf8Step step = FW::StringUtils::decodeUtf8At(text, pos);
  return step.wellFormed ? step.length : 0;
}

// A character a terminal would act on rather than show: the C0 controls but line end and tab,
// DEL, and the C1 controls (U+0080 to U+009F; 0x9B alone starts an escape sequence on some
// terminals).
bool isTerminalControl(std::string_view text, size_t pos, size_t length)
{
  const auto byte = static_cast<unsigned char>(text[pos]);
  if (length == 1)
    return (byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7F;
  return length == 2 && byte == 0xC2 && static_cast<unsigned char>(text[pos + 1]) < 0xA0;
}

bool isPlainText(std::string_view text)
{
  for (size_t pos = 0; pos < text.size();)
  {
    const size_t length = sequenceLength(text, pos);
    if (length == 0 || isTerminalControl(text, pos, length))
      return false;
    pos += length;
  }
  return true;
}
} // namespace

std::string toDisplayText(std::string_view text)
{
  if (isPlainText(text))
    return std::string(text);
  std::string shown;
  shown.reserve(text.size() + 16);
  for (size_t pos = 0; pos < text.size();)
  {
    const size_t length = sequenceLength(text, pos);
    if (length == 0)
    {
      shown += kReplacement;
      ++pos;
      continue;
    }
    if (isTerminalControl(text, pos, length))
    {
      // Shown as its code, like a C string would write it: "\x1b", "\u009b".
      const unsigned code = length == 1 ? static_cast<unsigned char>(text[pos])
                                        : static_cast<unsigned char>(text[pos + 1]);
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), length == 1 ? "\\x%02x" : "\\u%04x", code);
      shown += escaped;
      pos += length;
      continue;
    }
    shown.append(text, pos, length);
    pos += length;
  }
  return shown;
}

size_t displayWidth(std::string_view text)
{
  size_t columns = 0;
  for (const char c : text)
  {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80)
      ++columns;
    else if (!isContinuation(byte))
      columns += 2;
  }
  return columns;
}

std::string tailToWidth(std::string_view text, size_t columns)
{
  if (displayWidth(text) <= columns)
    return std::string(text);
  constexpr std::string_view kEllipsis = "...";
  if (columns <= kEllipsis.size())
    return std::string(kEllipsis.substr(0, columns));
  // Walk back from the end one character at a time while the tail still fits.
  const size_t budget = columns - kEllipsis.size();
  size_t start = text.size();
  size_t used = 0;
  while (start > 0)
  {
    size_t begin = start - 1;
    while (begin > 0 && isContinuation(static_cast<unsigned char>(text[begin])))
      --begin;
    const size_t width = displayWidth(text.substr(begin, start - begin));
    if (used + width > budget)
      break;
    used += width;
    start = begin;
  }
  return std::string(kEllipsis) + std::string(text.substr(start));
}

} // namespace vertexmill
