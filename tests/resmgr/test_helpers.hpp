#pragma once
// Small helpers shared by the resource manager tests.

#include "cstdmf/log_sinks.hpp"
#include "log_capture.hpp"
#include "resmgr/binary_block.hpp"

#include <spdlog/logger.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

namespace resmgr_test
{

// An owning block of exactly these bytes, so that a read past its end is caught by the sanitizer.
inline BinaryPtr blockOf(std::string_view bytes)
{
  return new BinaryBlock(bytes.data(), bytes.size(), "Test");
}

inline std::string textOf(const ConstBinaryPtr& block)
{
  return block ? std::string(block->data(), block->len()) : std::string("<null>");
}

// Little-endian byte string builder for hand-made containers.
struct Bytes
{
  std::string text;
  Bytes& u32(uint32_t value)
  {
    for (int i = 0; i < 4; ++i)
      text.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return *this;
  }
  Bytes& raw(std::string_view bytes)
  {
    text.append(bytes);
    return *this;
  }
  Bytes& zeros(size_t count)
  {
    text.append(count, '\0');
    return *this;
  }
};

// Collects what the application logger prints as "LEVEL: [Category] text" while it lives.
struct CapturedLog : testutil::LogCapture
{
  CapturedLog() : testutil::LogCapture("%l: %*%v") {}
};

} // namespace resmgr_test
