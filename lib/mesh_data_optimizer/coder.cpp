#include "mesh_data_optimizer/coder.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/range_check.hpp"
#include "cstdmf/span_reader.hpp"

#include <meshoptimizer.h>

#include <cstring>

namespace MeshDataOptimizer
{

namespace
{

constexpr size_t kMaxVertexSize = 256;

// The vertex codec spends at least a 2-bit mode on every group of 16 bytes it produces.
constexpr size_t kMaxVertexExpansion = 64;
// The index codec has a 1-byte version, at least one code byte per triangle and a 16-byte tail.
constexpr size_t kIndexStreamOverhead = 17;

bool isValidVertexSize(size_t vertexSize)
{
  return vertexSize >= 4 && vertexSize <= kMaxVertexSize && vertexSize % 4 == 0;
}

unsigned char* payloadOf(cstdmf::ByteVector& encoded)
{
  return reinterpret_cast<unsigned char*>(encoded.data() + EncodedBufferHeader::kSize);
}

const unsigned char* payloadOf(std::span<const std::byte> encoded)
{
  return reinterpret_cast<const unsigned char*>(encoded.data() + EncodedBufferHeader::kSize);
}

// Trims the buffer to header + stream and writes the header. A failed encoding (size 0) leaves the
// header alone, which is what the file then holds.
void finishEncoded(cstdmf::ByteVector& encoded, size_t encodedSize, uint32_t elementCount)
{
  encoded.resize(EncodedBufferHeader::kSize + encodedSize);
  EncodedBufferHeader header;
  header.m_magic = EncodedBufferHeader::kMagic;
  header.m_elementCount = elementCount;
  std::memcpy(encoded.data(), &header, sizeof(header));
}

} // namespace

EncodedBufferHeader EncodedBufferHeader::readFrom(std::span<const std::byte> encoded)
{
  cstdmf::SpanReader reader(encoded);
  EncodedBufferHeader header = reader.read<EncodedBufferHeader>();
  return reader.ok() ? header : EncodedBufferHeader{};
}

bool EncodedBufferHeader::checkHeaderData() const
{
  if (!checkHeaderMagicVal() || m_elementCount == 0)
  {
    ZR_MSG(DebugMessagePriority::Error, "Other",
           "MeshDataOptimizer::checkHeaderData: Encoded buffer has invalid header data.\n");
    return false;
  }
  return true;
}

cstdmf::ByteVector encodeVertexData(std::span<const std::byte> vertices, size_t vertexSize)
{
  ZR_ASSERT(isValidVertexSize(vertexSize));
  ZR_ASSERT(vertices.size() % vertexSize == 0);
  const size_t vertexCount = vertices.size() / vertexSize;
  const uint32_t elementCount = ZR::range_check_cast<uint32_t>(vertexCount);

  const size_t bound = meshopt_encodeVertexBufferBound(vertexCount, vertexSize);
  cstdmf::ByteVector encoded(EncodedBufferHeader::kSize + bound);
  const size_t encodedSize =
    meshopt_encodeVertexBuffer(payloadOf(encoded), bound, vertices.data(), vertexCount, vertexSize);
  if (encodedSize == 0)
    ZR_MSG(DebugMessagePriority::Error, "Other",
           "MeshDataOptimizer::encodeVertexData: The Vertex data can't be encoded.\n");
  finishEncoded(encoded, encodedSize, elementCount);
  return encoded;
}

template <MeshIndex IndexT>
cstdmf::ByteVector encodeIndexData(std::span<const IndexT> indices, size_t vertexCount)
{
  ZR_ASSERT(indices.size() % 3 == 0);
  const uint32_t elementCount = ZR::range_check_cast<uint32_t>(indices.size());

  const size_t bound = meshopt_encodeIndexBufferBound(indices.size(), vertexCount);
  cstdmf::ByteVector encoded(EncodedBufferHeader::kSize + bound);
  size_t encodedSize = 0;
  if constexpr (std::same_as<IndexT, uint32_t>)
  {
    encodedSize = meshopt_encodeIndexBuffer(payloadOf(encoded), bound, indices.data(), indices.size());
  }
  else
  {
    const std::vector<uint32_t> wide(indices.begin(), indices.end());
    encodedSize = meshopt_encodeIndexBuffer(payloadOf(encoded), bound, wide.data(), wide.size());
  }
  if (encodedSize == 0)
    ZR_MSG(DebugMessagePriority::Error, "Other",
           "MeshDataOptimizer::encodeIndexData: The Index data can't be encoded.\n");
  finishEncoded(encoded, encodedSize, elementCount);
  return encoded;
}

bool decodeVertexData(std::span<const std::byte> encoded, size_t vertexSize, std::vector<std::byte>& vertices)
{
  vertices.clear();
  if (!isValidVertexSize(vertexSize))
  {
    ZR_MSG(DebugMessagePriority::Error, "Other",
           "MeshDataOptimizer::decodeVertexData: Invalid vertex size %zu (a multiple of 4 in 4..256 is needed).\n",
           vertexSize);
    return false;
  }
  const EncodedBufferHeader header = EncodedBufferHeader::readFrom(encoded);
  if (!header.checkHeaderData())
    return false;

  const size_t payloadSize = encoded.size() - EncodedBufferHeader::kSize;
  size_t decodedSize = 0;
  // decodedSize >= 4 here, so (decodedSize - 1) / k >= payloadSize means decodedSize > k * payloadSize.
  const bool plausible = cstdmf::checkedMultiply(header.getElementCount(), vertexSize, decodedSize) &&
                         (decodedSize - 1) / kMaxVertexExpansion < payloadSize;
  if (plausible)
  {
    vertices.resize(decodedSize);
    if (meshopt_decodeVertexBuffer(vertices.data(), header.getElementCount(), vertexSize, payloadOf(encoded),
                                   payloadSize) == 0)
      return true;
  }
  vertices.clear();
  ZR_MSG(DebugMessagePriority::Error, "Other",
         "MeshDataOptimizer::decodeVertexData: The Vertex data can't be decoded.\n");
  return false;
}

template <MeshIndex IndexT>
bool decodeIndexData(std::span<const std::byte> encoded, std::vector<IndexT>& indices)
{
  indices.clear();
  const EncodedBufferHeader header = EncodedBufferHeader::readFrom(encoded);
  if (!header.checkHeaderData())
    return false;

  const size_t payloadSize = encoded.size() - EncodedBufferHeader::kSize;
  const size_t indexCount = header.getElementCount();
  // The library asserts on a count that is not a whole number of triangles.
  const bool plausible =
    indexCount % 3 == 0 && payloadSize >= kIndexStreamOverhead && indexCount / 3 <= payloadSize - kIndexStreamOverhead;
  if (plausible)
  {
    indices.resize(indexCount);
    if (meshopt_decodeIndexBuffer(indices.data(), indexCount, sizeof(IndexT), payloadOf(encoded), payloadSize) == 0)
      return true;
  }
  indices.clear();
  ZR_MSG(DebugMessagePriority::Error, "Other",
         "MeshDataOptimizer::decodeIndexData: The Index data can't be decoded.\n");
  return false;
}

template cstdmf::ByteVector encodeIndexData<uint16_t>(std::span<const uint16_t>, size_t);
template cstdmf::ByteVector encodeIndexData<uint32_t>(std::span<const uint32_t>, size_t);
template bool decodeIndexData<uint16_t>(std::span<const std::byte>, std::vector<uint16_t>&);
template bool decodeIndexData<uint32_t>(std::span<const std::byte>, std::vector<uint32_t>&);

} // namespace MeshDataOptimizer
