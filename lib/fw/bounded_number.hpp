#pragma once
// Whole numbers typed by people (option values) or written by the tools themselves (a worker's
// arguments): decimal digits only, the whole text, within a range.

#include <cstdint>
#include <optional>
#include <string_view>

namespace FW
{

// The number `text` spells when it is one or more decimal digits and nothing else (no sign, no
// blanks, no suffix) and lies from `min` to `max`; empty otherwise.
[[nodiscard]] std::optional<uint64_t> parseBoundedNumber(std::string_view text, uint64_t min, uint64_t max);

} // namespace FW
