#pragma once
// How a vertex layout is described: element types and semantics, the eight-byte vertex element,
// vertex streams, Moo::VertexFormat, stream strides, and typed read access to one element of a
// vertex buffer (Moo::ElementAccessor).

#include "cstdmf/debug.hpp"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <type_traits>
#include <vector>

// Element type. The numbering is stored in element records and must not change. Values without a
// use in this program keep a placeholder name and their size, so that size queries are total.
enum class VertexDataType : uint8_t
{
  FLOAT1 = 0,
  FLOAT2 = 1,
  FLOAT3 = 2,
  FLOAT4 = 3,
  UBYTE4 = 4,
  RESERVED_5 = 5,
  PACKED_NORMAL = 6, // 11-11-10 signed unit vector in one 32-bit word
  RESERVED_7 = 7,
  RESERVED_8 = 8,
  RESERVED_9 = 9,
  RESERVED_10 = 10,
  RESERVED_11 = 11,
  RESERVED_12 = 12,
  RESERVED_13 = 13,
  RESERVED_14 = 14,
  RESERVED_15 = 15,
  RESERVED_16 = 16,
  RESERVED_17 = 17,
  RESERVED_18 = 18,
  FLOAT16_2 = 19,
  RESERVED_20 = 20,
  UBYTE4_NORMAL_888 = 21, // unit vector as three biased bytes and one spare byte
  UINT32 = 22,
  RESERVED_23 = 23,
  RESERVED_24 = 24,
  RESERVED_25 = 25,
  UBYTE3 = 26,
  UBYTE2 = 27,
  UNKNOWN = 28, // terminator; no element has it
};

// Element semantic, numbered as the Direct3D 9 declaration usage codes.
enum class VertexSemantic : uint8_t
{
  POSITION = 0,
  BLENDWEIGHT = 1,
  BLENDINDICES = 2,
  NORMAL = 3,
  PSIZE = 4,
  TEXCOORD = 5,
  TANGENT = 6,
  BINORMAL = 7,
  TESSFACTOR = 8,
  POSITIONT = 9,
  COLOR = 10,
  FOG = 11,
  DEPTH = 12,
  SAMPLE = 13,
};

namespace ari
{

enum class VertexInputProgressionMode : uint32_t
{
  VERTEX_DATA = 0,   // advances once a vertex
  INSTANCE_DATA = 1, // advances once an instance
};

// Byte size of one element of the type (0 for UNKNOWN). A value above UNKNOWN is a programming
// error and fails an assertion.
uint32_t getVertexDataTypeSize(VertexDataType type);

} // namespace ari

namespace Moo
{

struct Vector2
{
  float x = 0.0f;
  float y = 0.0f;
};

struct Vector3
{
  float x = 0.0f;
  float y = 0.0f;
  float z = 0.0f;

  float length() const { return std::sqrt(x * x + y * y + z * z); }
};

static_assert(sizeof(Vector2) == 8 && sizeof(Vector3) == 12);

// One element of a vertex, laid out as a Direct3D 9 vertex element.
struct VertexElement
{
  int16_t stream_ = 0;
  uint16_t offset_ = 0; // byte offset inside one vertex of its stream
  VertexDataType type_ = VertexDataType::UNKNOWN;
  uint8_t method_ = 0;
  VertexSemantic semantic_ = VertexSemantic::POSITION;
  uint8_t semanticIndex_ = 0;

  friend bool operator==(const VertexElement&, const VertexElement&) = default;
};

static_assert(sizeof(VertexElement) == 8);
static_assert(offsetof(VertexElement, stream_) == 0);
static_assert(offsetof(VertexElement, offset_) == 2);
static_assert(offsetof(VertexElement, type_) == 4);
static_assert(offsetof(VertexElement, method_) == 5);
static_assert(offsetof(VertexElement, semantic_) == 6);
static_assert(offsetof(VertexElement, semanticIndex_) == 7);
static_assert(std::is_trivially_copyable_v<VertexElement>);

struct VertexStream
{
  int16_t stream_ = 0;
  ari::VertexInputProgressionMode progressionMode_ = ari::VertexInputProgressionMode::VERTEX_DATA;
  uint32_t instanceDataStepRate_ = 1;

  friend bool operator==(const VertexStream&, const VertexStream&) = default;
};

// A vector of trivially copyable values that keeps up to N of them in place and moves them to
// the heap when it grows beyond that.
template <typename T, size_t N>
class SmallVector
{
  static_assert(std::is_trivially_copyable_v<T>);

public:
  SmallVector() = default;
  SmallVector(std::initializer_list<T> values)
  {
    for (const T& value : values)
      push_back(value);
  }

  void push_back(const T& value)
  {
    if (m_heap.empty() && m_size < N)
    {
      m_inline[m_size++] = value;
      return;
    }
    if (m_heap.empty())
      m_heap.assign(m_inline.begin(), m_inline.begin() + m_size);
    m_heap.push_back(value);
    ++m_size;
  }

  void clear()
  {
    m_heap.clear();
    m_size = 0;
  }

  size_t size() const { return m_size; }
  bool empty() const { return m_size == 0; }
  bool isInline() const { return m_heap.empty(); }

  T* data() { return m_heap.empty() ? m_inline.data() : m_heap.data(); }
  const T* data() const { return m_heap.empty() ? m_inline.data() : m_heap.data(); }
  T* begin() { return data(); }
  T* end() { return data() + m_size; }
  const T* begin() const { return data(); }
  const T* end() const { return data() + m_size; }

  T& operator[](size_t i)
  {
    ZR_ASSERT(i < m_size);
    return data()[i];
  }
  const T& operator[](size_t i) const
  {
    ZR_ASSERT(i < m_size);
    return data()[i];
  }

  friend bool operator==(const SmallVector& a, const SmallVector& b)
  {
    if (a.m_size != b.m_size)
      return false;
    for (size_t i = 0; i < a.m_size; ++i)
      if (!(a.data()[i] == b.data()[i]))
        return false;
    return true;
  }

private:
  std::array<T, N> m_inline{};
  std::vector<T> m_heap; // holds all values once the inline room has been exceeded
  size_t m_size = 0;
};

// Value type an accessor yields per semantic, and the element type that value has.
template <VertexSemantic Semantic>
struct SemanticValue;
template <>
struct SemanticValue<VertexSemantic::POSITION>
{
  using Type = Vector3;
};
template <>
struct SemanticValue<VertexSemantic::NORMAL>
{
  using Type = Vector3;
};
template <>
struct SemanticValue<VertexSemantic::TEXCOORD>
{
  using Type = Vector2;
};
template <>
struct SemanticValue<VertexSemantic::TANGENT>
{
  using Type = Vector3;
};
template <>
struct SemanticValue<VertexSemantic::BINORMAL>
{
  using Type = Vector3;
};

template <typename T>
struct VertexElementType;
template <>
struct VertexElementType<Vector2>
{
  static constexpr VertexDataType s_type = VertexDataType::FLOAT2;
};
template <>
struct VertexElementType<Vector3>
{
  static constexpr VertexDataType s_type = VertexDataType::FLOAT3;
};

// Reads one element of every vertex of a buffer as full-precision floats. Instantiated for
// POSITION, NORMAL, TANGENT, BINORMAL (Vector3) and TEXCOORD (Vector2).
template <VertexSemantic Semantic>
class ElementAccessor
{
public:
  using T = typename SemanticValue<Semantic>::Type;

  // Empty: the format has no such element.
  ElementAccessor() = default;
  // Needs a non-null buffer, size > 0 and stride > 0 (asserted); offset + the type's size must
  // not exceed the stride.
  ElementAccessor(const std::byte* buffer, size_t size, uint32_t stride, uint32_t offset, VertexDataType type)
    : m_buffer(buffer), m_size(size), m_stride(stride), m_offset(offset), m_type(type)
  {
    ZR_ASSERT(m_buffer && m_size > 0 && m_stride > 0);
    ZR_ASSERT(m_offset + ari::getVertexDataTypeSize(m_type) <= m_stride);
  }

  explicit operator bool() const { return m_buffer != nullptr && vertexCount() > 0; }
  // Whole vertices in the buffer.
  size_t vertexCount() const { return m_stride == 0 ? 0 : m_size / m_stride; }

  // The element of vertex i converted to T. Needs i < vertexCount() and an element type that
  // converts to T for this semantic; both are asserted. Defined beside the element conversion.
  T get(size_t i) const;

private:
  const std::byte* m_buffer = nullptr;
  size_t m_size = 0;
  uint32_t m_stride = 0;
  uint32_t m_offset = 0;
  VertexDataType m_type = VertexDataType::UNKNOWN;
};

extern template class ElementAccessor<VertexSemantic::POSITION>;
extern template class ElementAccessor<VertexSemantic::NORMAL>;
extern template class ElementAccessor<VertexSemantic::TEXCOORD>;
extern template class ElementAccessor<VertexSemantic::TANGENT>;
extern template class ElementAccessor<VertexSemantic::BINORMAL>;

class VertexFormat
{
public:
  using Elements = SmallVector<VertexElement, 16>;
  using Streams = SmallVector<VertexStream, 16>;

  Elements elements; // in declaration order
  Streams streams;

  // The first element with this semantic and semantic index in the stream, or nullptr.
  const VertexElement* findElement(VertexSemantic semantic, uint8_t semanticIndex, int streamIndex = 0) const;

  bool hasElement(VertexSemantic semantic) const;
  // Skinned: the format has bone indices. Bumped: the format has a tangent.
  bool isSkinned() const { return hasElement(VertexSemantic::BLENDINDICES); }
  bool isBumped() const { return hasElement(VertexSemantic::TANGENT); }

  // An accessor over `buffer` (vertices of this format) for the element with this semantic,
  // stream and semantic index. Returns an empty accessor when the format has no such element or
  // the buffer is empty.
  template <VertexSemantic Semantic>
  ElementAccessor<Semantic> getAccessor(std::span<const std::byte> buffer, int streamIndex = 0,
                                        uint8_t semanticIndex = 0) const;

  friend bool operator==(const VertexFormat&, const VertexFormat&) = default;
};

// Returns the vertex format's elements followed by the instancing format's, and likewise their
// streams. The vertex format must have exactly one VERTEX_DATA stream, the instancing format none
// or one INSTANCE_DATA stream, every element must belong to its format's stream and the two
// stream indices must differ; all of this is asserted.
VertexFormat combineVertexFormats(const VertexFormat& vertexFormat, const VertexFormat& instancingFormat);

} // namespace Moo

namespace ari
{

class VertexDeclaration
{
public:
  // Bytes per vertex of one stream: the largest offset + type size of the stream's elements.
  // Asserts streamIndex >= 0 and that the stream has at least one element.
  static uint32_t computeStreamDataSize(const Moo::VertexFormat& format, int streamIndex);
};

} // namespace ari

namespace Moo
{

template <VertexSemantic Semantic>
ElementAccessor<Semantic> VertexFormat::getAccessor(std::span<const std::byte> buffer, int streamIndex,
                                                    uint8_t semanticIndex) const
{
  const VertexElement* element = findElement(Semantic, semanticIndex, streamIndex);
  if (element == nullptr || buffer.empty())
    return {};
  const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(*this, streamIndex);
  return ElementAccessor<Semantic>(buffer.data(), buffer.size(), stride, element->offset_, element->type_);
}

} // namespace Moo
