// Arbitrary bytes into the encoded-buffer decoders. The first byte picks the target (a vertex buffer
// of one of several strides, or a 16-bit or 32-bit index buffer) and the mode:
// - below 128, the rest is taken as an encoded buffer, once as given and once with the "ENCD" magic
//   forced; whatever decodes must survive a re-encode and decode unchanged;
// - from 128, the rest is a few byte edits followed by raw vertex or index data, which is encoded,
//   edited (bytes flipped or the buffer cut) and decoded. meshoptimizer is not instrumented, so the
//   fuzzer cannot steer into its decoders on its own; starting from valid streams gets it there.
//   Without edits the data must come back.

#include "cstdmf/debug.hpp"
#include "mesh_data_optimizer/coder.hpp"

#include <spdlog/logger.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr size_t kStrides[] = {4, 8, 12, 16, 28, 32, 64, 256};
constexpr size_t kStrideCount = sizeof(kStrides) / sizeof(kStrides[0]);

void require(bool condition)
{
  if (!condition)
    std::abort();
}

void fuzzVertices(std::span<const std::byte> encoded, size_t stride)
{
  std::vector<std::byte> vertices;
  if (!MeshDataOptimizer::decodeVertexData(encoded, stride, vertices))
  {
    require(vertices.empty());
    return;
  }
  const auto header = MeshDataOptimizer::EncodedBufferHeader::readFrom(encoded);
  require(vertices.size() == size_t(header.getElementCount()) * stride);
  std::vector<std::byte> again;
  require(MeshDataOptimizer::decodeVertexData(MeshDataOptimizer::encodeVertexData(vertices, stride), stride, again));
  require(again == vertices);
}

template <typename IndexT>
void fuzzIndices(std::span<const std::byte> encoded)
{
  std::vector<IndexT> indices;
  if (!MeshDataOptimizer::decodeIndexData<IndexT>(encoded, indices))
  {
    require(indices.empty());
    return;
  }
  const auto header = MeshDataOptimizer::EncodedBufferHeader::readFrom(encoded);
  require(indices.size() == header.getElementCount() && indices.size() % 3 == 0);
  const size_t vertexCount = size_t(*std::max_element(indices.begin(), indices.end())) + 1;
  std::vector<IndexT> again;
  require(MeshDataOptimizer::decodeIndexData<IndexT>(MeshDataOptimizer::encodeIndexData<IndexT>(indices, vertexCount),
                                                     again));
  require(MeshDataOptimizer::sameTriangles<IndexT>(again, indices));
}

void fuzzOne(size_t target, std::span<const std::byte> encoded)
{
  if (target < kStrideCount)
    fuzzVertices(encoded, kStrides[target]);
  else if (target == kStrideCount)
    fuzzIndices<uint16_t>(encoded);
  else
    fuzzIndices<uint32_t>(encoded);
}

// The edit list at the start of a structured input: a count byte (modulo 8), then per edit a 16-bit
// position (modulo the buffer size) and a value to xor in there; the value 0 cuts the buffer there.
size_t editListSize(std::span<const uint8_t> input)
{
  return input.empty() ? 0 : 1 + (input[0] % 8) * 3;
}

// Returns whether anything was edited.
bool applyEdits(std::span<const uint8_t> input, std::vector<std::byte>& encoded)
{
  const size_t editCount = input.empty() ? 0 : input[0] % 8;
  for (size_t i = 0; i < editCount && !encoded.empty(); ++i)
  {
    const uint8_t* edit = &input[1 + i * 3];
    const size_t position = (size_t(edit[0]) | size_t(edit[1]) << 8) % encoded.size();
    if (edit[2] == 0)
      encoded.resize(position);
    else
      encoded[position] ^= std::byte(edit[2]);
  }
  return editCount != 0;
}

void fuzzEncodedVertices(std::span<const uint8_t> input, size_t stride)
{
  if (input.size() < editListSize(input))
    return;
  const auto raw = input.subspan(editListSize(input));
  const std::span<const std::byte> vertices(reinterpret_cast<const std::byte*>(raw.data()),
                                            raw.size() / stride * stride);
  const cstdmf::ByteVector encodedBytes = MeshDataOptimizer::encodeVertexData(vertices, stride);
  std::vector<std::byte> encoded(encodedBytes.begin(), encodedBytes.end());
  const bool edited = applyEdits(input, encoded);
  std::vector<std::byte> decoded;
  const bool ok = MeshDataOptimizer::decodeVertexData(encoded, stride, decoded);
  if (!edited)
    require(vertices.empty() ? !ok
                             : ok && std::equal(decoded.begin(), decoded.end(), vertices.begin(), vertices.end()));
  fuzzVertices(encoded, stride);
}

template <typename IndexT>
void fuzzEncodedIndices(std::span<const uint8_t> input)
{
  if (input.size() < editListSize(input))
    return;
  const auto raw = input.subspan(editListSize(input));
  std::vector<IndexT> indices(raw.size() / sizeof(IndexT) / 3 * 3);
  if (!indices.empty())
    std::memcpy(indices.data(), raw.data(), indices.size() * sizeof(IndexT));
  const size_t vertexCount = indices.empty() ? 0 : size_t(*std::max_element(indices.begin(), indices.end())) + 1;
  const cstdmf::ByteVector encodedBytes = MeshDataOptimizer::encodeIndexData<IndexT>(indices, vertexCount);
  std::vector<std::byte> encoded(encodedBytes.begin(), encodedBytes.end());
  const bool edited = applyEdits(input, encoded);
  std::vector<IndexT> decoded;
  const bool ok = MeshDataOptimizer::decodeIndexData<IndexT>(encoded, decoded);
  if (!edited)
    require(indices.empty() ? !ok : ok && MeshDataOptimizer::sameTriangles<IndexT>(decoded, indices));
  fuzzIndices<IndexT>(encoded);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  // Refusals are expected on almost every input; formatting their messages only slows the search.
  cstdmf::appLogger().set_level(spdlog::level::off);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  if (size == 0)
    return 0;
  const size_t target = (data[0] & 0x7F) % (kStrideCount + 2);
  const std::span<const uint8_t> rest(data + 1, size - 1);
  if (data[0] & 0x80)
  {
    if (target < kStrideCount)
      fuzzEncodedVertices(rest, kStrides[target]);
    else if (target == kStrideCount)
      fuzzEncodedIndices<uint16_t>(rest);
    else
      fuzzEncodedIndices<uint32_t>(rest);
    return 0;
  }

  const std::span<const std::byte> encoded(reinterpret_cast<const std::byte*>(rest.data()), rest.size());
  fuzzOne(target, encoded);
  if (encoded.size() >= 4)
  {
    std::vector<std::byte> patched(encoded.begin(), encoded.end());
    std::memcpy(patched.data(), "ENCD", 4);
    fuzzOne(target, patched);
  }
  return 0;
}
