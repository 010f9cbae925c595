#pragma once
// The zero-terminated copies of names that a prototype's string records point to while it is
// packed. Each copy keeps its address until the pool is cleared.

#include "red/types.hpp"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace GeometryCompilerDetail
{

class StringPool
{
public:
  // Points record at a new pooled copy of text; its size counts the terminating zero.
  const char* add(std::string_view text, red::types::String& record)
  {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(copy.get(), text.data(), text.size());
    copy[text.size()] = '\0';
    record.size = static_cast<uint32_t>(text.size() + 1);
    record.text = copy.get();
    m_texts.push_back(std::move(copy));
    return record.text;
  }

  void clear() { m_texts.clear(); }
  size_t size() const { return m_texts.size(); }

private:
  std::vector<std::unique_ptr<char[]>> m_texts;
};

} // namespace GeometryCompilerDetail
