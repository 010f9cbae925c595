#pragma once
// The encoded vertex and index buffers stored in .geometry files: an 8-byte header ("ENCD" and the
// element count) followed by a meshoptimizer codec stream. Encoders run in the compiler, decoders
// in whatever reads the files, so the decoders treat every byte as untrusted.
//
// All functions are re-entrant (no shared mutable state). Failures are logged at ERROR in the
// category "Other".

#include "cstdmf/byte_vector.hpp"
#include "mesh_data_optimizer/optimizer.hpp"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <vector>

static_assert(std::endian::native == std::endian::little, "encoded buffers are little-endian");

namespace MeshDataOptimizer
{

// The record at offset 0 of every encoded buffer, little-endian.
struct EncodedBufferHeader
{
  static constexpr uint32_t kMagic = 0x44434E45; // the bytes "ENCD"
  static constexpr size_t kSize = 8;

  uint32_t m_magic = 0;
  uint32_t m_elementCount = 0; // vertex count for vertex data, index count for index data

  // The header at the start of `encoded`; a buffer shorter than the header gives a zeroed header,
  // which checkHeaderData refuses.
  [[nodiscard]] static EncodedBufferHeader readFrom(std::span<const std::byte> encoded);

  // True when the magic is "ENCD" and the element count is not 0; otherwise logs
  // "MeshDataOptimizer::checkHeaderData: Encoded buffer has invalid header data.\n" and returns false.
  [[nodiscard]] bool checkHeaderData() const;
  [[nodiscard]] bool checkHeaderMagicVal() const { return m_magic == kMagic; }
  [[nodiscard]] uint32_t getElementCount() const { return m_elementCount; }
};

static_assert(sizeof(EncodedBufferHeader) == EncodedBufferHeader::kSize);
static_assert(offsetof(EncodedBufferHeader, m_magic) == 0);
static_assert(offsetof(EncodedBufferHeader, m_elementCount) == 4);
static_assert(std::is_trivially_copyable_v<EncodedBufferHeader>);
static_assert(std::is_standard_layout_v<EncodedBufferHeader>);

// Encodes vertices of `vertexSize` bytes each (the vertex count is vertices.size() / vertexSize)
// into header + codec stream. Needs vertexSize in 4..256 and a multiple of 4, vertices.size() a
// multiple of vertexSize and a vertex count that fits 32 bits (fatal assertions otherwise). If the
// library cannot encode, logs "MeshDataOptimizer::encodeVertexData: The Vertex data can't be
// encoded.\n" and returns the 8-byte header alone. Zero vertices give a header with count 0.
[[nodiscard]] cstdmf::ByteVector encodeVertexData(std::span<const std::byte> vertices, size_t vertexSize);

// Encodes a triangle list into header + codec stream; `vertexCount` sizes the encoder's worst-case
// buffer and should exceed every index. Needs indices.size() a multiple of 3 that fits 32 bits
// (fatal assertions otherwise). 16-bit indices are widened first. If the stream does not fit the
// worst case computed from `vertexCount` (an index at or past it), logs
// "MeshDataOptimizer::encodeIndexData: The Index data can't be encoded.\n" and returns the 8-byte
// header alone.
template <MeshIndex IndexT>
[[nodiscard]] cstdmf::ByteVector encodeIndexData(std::span<const IndexT> indices, size_t vertexCount);

// Decodes an encoded vertex buffer into `vertices` (count * vertexSize bytes). Returns false, with
// `vertices` empty and one ERROR logged, when: vertexSize is not a multiple of 4 in 4..256; the
// header is short or invalid (checkHeaderData); the decoded size would exceed 64 times the payload
// (the codec spends at least 2 bits on every 16 bytes of output, so no valid stream expands more;
// this refuses absurd counts before allocating); or the library rejects the payload (truncated,
// unknown version, trailing bytes): "MeshDataOptimizer::decodeVertexData: The Vertex data can't be
// decoded.\n". Decoded bytes are not validated further.
[[nodiscard]] bool decodeVertexData(std::span<const std::byte> encoded, size_t vertexSize,
                                    std::vector<std::byte>& vertices);

// Decodes an encoded index buffer into `indices` (element count of them, narrowed to IndexT).
// Returns false, with `indices` empty and one ERROR logged, when the header is short or invalid, or
// when the count is not a multiple of 3, exceeds what the payload can hold (the codec spends at
// least one byte per triangle plus 17 bytes, so count / 3 + 17 > payload size is refused before
// allocating) or the library rejects the payload: "MeshDataOptimizer::decodeIndexData: The Index
// data can't be decoded.\n". The indices are not checked against any vertex count; the caller
// knows the vertex range and must check them before use.
template <MeshIndex IndexT>
[[nodiscard]] bool decodeIndexData(std::span<const std::byte> encoded, std::vector<IndexT>& indices);

// Whether decoded indices draw the original triangles: the index codec keeps the triangle order
// and winding but may start a triangle at another corner.
template <MeshIndex IndexT>
[[nodiscard]] bool sameTriangles(std::span<const IndexT> decoded, std::span<const IndexT> original)
{
  if (decoded.size() != original.size())
    return false;
  for (size_t i = 0; i + 2 < original.size(); i += 3)
  {
    const IndexT* a = &decoded[i];
    const IndexT* b = &original[i];
    if (!((a[0] == b[0] && a[1] == b[1] && a[2] == b[2]) || (a[0] == b[1] && a[1] == b[2] && a[2] == b[0]) ||
          (a[0] == b[2] && a[1] == b[0] && a[2] == b[1])))
      return false;
  }
  return true;
}

extern template cstdmf::ByteVector encodeIndexData<uint16_t>(std::span<const uint16_t>, size_t);
extern template cstdmf::ByteVector encodeIndexData<uint32_t>(std::span<const uint32_t>, size_t);
extern template bool decodeIndexData<uint16_t>(std::span<const std::byte>, std::vector<uint16_t>&);
extern template bool decodeIndexData<uint32_t>(std::span<const std::byte>, std::vector<uint32_t>&);

} // namespace MeshDataOptimizer
