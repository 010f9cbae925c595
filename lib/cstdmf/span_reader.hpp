#pragma once
// A bounds-checked little-endian reader over a byte span. Every read copies with memcpy, never
// casts into the buffer; the first failed read sets a sticky error, so a caller can read a group
// of fields and check once.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>

static_assert(std::endian::native == std::endian::little, "file formats are little-endian and read in place");

namespace cstdmf
{

class SpanReader
{
public:
  explicit SpanReader(std::span<const std::byte> bytes) : m_bytes(bytes) {}
  SpanReader(const void* data, size_t size) : m_bytes(static_cast<const std::byte*>(data), size) {}

  // Reads a trivially copyable value at the cursor; on failure returns a zero value.
  template <typename T>
  T read()
  {
    static_assert(std::is_trivially_copyable_v<T>);
    T value{};
    if (!has(sizeof(T)))
    {
      fail();
      return value;
    }
    std::memcpy(&value, m_bytes.data() + m_pos, sizeof(T));
    m_pos += sizeof(T);
    return value;
  }

  // Reads a value at an absolute offset without moving the cursor.
  template <typename T>
  T readAt(size_t offset)
  {
    static_assert(std::is_trivially_copyable_v<T>);
    T value{};
    if (offset > m_bytes.size() || m_bytes.size() - offset < sizeof(T))
    {
      fail();
      return value;
    }
    std::memcpy(&value, m_bytes.data() + offset, sizeof(T));
    return value;
  }

  // A sub-span of `size` bytes at the cursor; empty on failure.
  std::span<const std::byte> readBytes(size_t size)
  {
    if (!has(size))
    {
      fail();
      return {};
    }
    auto result = m_bytes.subspan(m_pos, size);
    m_pos += size;
    return result;
  }

  // A fixed-size text field: the text up to its first NUL (or the whole field).
  std::string_view readFixedString(size_t fieldSize)
  {
    auto field = readBytes(fieldSize);
    const auto* chars = reinterpret_cast<const char*>(field.data());
    size_t length = 0;
    while (length < field.size() && chars[length] != '\0')
      ++length;
    return std::string_view(chars, length);
  }

  void skip(size_t size)
  {
    if (!has(size))
      fail();
    else
      m_pos += size;
  }

  void seek(size_t offset)
  {
    if (offset > m_bytes.size())
      fail();
    else
      m_pos = offset;
  }

  bool has(size_t size) const { return !m_failed && m_bytes.size() - m_pos >= size; }
  size_t position() const { return m_pos; }
  size_t remaining() const { return m_bytes.size() - m_pos; }
  size_t size() const { return m_bytes.size(); }
  bool ok() const { return !m_failed; }
  bool failed() const { return m_failed; }

private:
  void fail() { m_failed = true; }

  std::span<const std::byte> m_bytes;
  size_t m_pos = 0;
  bool m_failed = false;
};

// count * elementSize without overflow; false when the product does not fit in size_t.
[[nodiscard]] inline bool checkedMultiply(uint64_t count, uint64_t elementSize, size_t& result)
{
  if (elementSize != 0 && count > SIZE_MAX / elementSize)
    return false;
  result = static_cast<size_t>(count * elementSize);
  return true;
}

} // namespace cstdmf
