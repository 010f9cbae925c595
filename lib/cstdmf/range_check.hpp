#pragma once

#include "cstdmf/debug.hpp"

#include <limits>
#include <type_traits>

namespace ZR
{
// Narrows an unsigned value; a value that does not fit is a programming error.
template <typename Target, typename Source>
Target range_check_cast(Source source)
{
  static_assert(std::is_unsigned_v<Source> && std::is_unsigned_v<Target>);
  ZR_ASSERT(source <= std::numeric_limits<Target>::max());
  return static_cast<Target>(source);
}
} // namespace ZR
