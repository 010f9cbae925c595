#include "fw/bounded_number.hpp"

#include <charconv>
#include <system_error>

namespace FW
{

std::optional<uint64_t> parseBoundedNumber(std::string_view text, uint64_t min, uint64_t max)
{
  // from_chars takes a leading '-' for signed types only, but never a '+' or blanks: the digit
  // check makes that explicit.
  if (text.empty() || text.front() < '0' || text.front() > '9')
    return std::nullopt;
  uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value < min || value > max)
    return std::nullopt;
  return value;
}

} // namespace FW
