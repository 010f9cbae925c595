// Arbitrary bytes into the .geometry reader. An accepted file has every accessor exercised and is
// packed again from what was read; the repacked file must load to the same records.

#include "moo/geometry_data.hpp"
#include "moo/moo_prototypes.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{

// Keeps the byte sums alive so the reads are not optimised away.
volatile uint32_t s_sink = 0;

void check(bool condition)
{
  if (!condition)
    std::abort();
}

// Reads every byte, so the address sanitizer sees each span.
uint32_t touch(std::span<const std::byte> bytes)
{
  uint32_t sum = 0;
  for (const std::byte b : bytes)
    sum += static_cast<uint32_t>(b);
  return sum;
}

red::types::String toString(const std::string& text)
{
  return red::types::String{static_cast<uint32_t>(text.size() + 1), 0, text.c_str()};
}

const std::byte* dataOf(std::span<const std::byte> bytes)
{
  return bytes.empty() ? nullptr : bytes.data();
}

BinaryPtr repack(const Moo::GeometryData& geometry)
{
  std::vector<Moo::MergedVerticesPrototype> vertices;
  for (const auto& buffer : geometry.vertexBuffers())
    vertices.push_back({dataOf(buffer.data), toString(buffer.formatName), buffer.sizeInBytes, buffer.strideInBytes,
                        std::byte{buffer.isSkinned}, std::byte{buffer.isBumped}});
  std::vector<Moo::MergedIndicesPrototype> indices;
  for (const auto& buffer : geometry.indexBuffers())
    indices.push_back({dataOf(buffer.data), buffer.sizeInBytes, buffer.primitiveType, buffer.strideInBytes});
  std::vector<Moo::CollisionModelDataPrototype> collisionModels;
  for (const auto& model : geometry.collisionModels())
    collisionModels.push_back(
      {static_cast<uint32_t>(model.data.size()), 0, toString(model.name), dataOf(model.data)});
  std::vector<Moo::ArmorDataPrototype> armorModels;
  for (const auto& model : geometry.armorModels())
    armorModels.push_back({static_cast<uint32_t>(model.data.size()), 0, toString(model.name), dataOf(model.data)});

  const auto pointer = [](const auto& records) { return records.empty() ? nullptr : records.data(); };
  Moo::MergedGeometryPrototype prototype{};
  prototype.mergedVerticesCount = static_cast<uint32_t>(vertices.size());
  prototype.mergedIndicesCount = static_cast<uint32_t>(indices.size());
  prototype.verticesMappingCount = static_cast<uint32_t>(geometry.verticesMapping().size());
  prototype.indicesMappingCount = static_cast<uint32_t>(geometry.indicesMapping().size());
  prototype.collisionModelCount = static_cast<uint32_t>(collisionModels.size());
  prototype.armorModelCount = static_cast<uint32_t>(armorModels.size());
  prototype.verticesMapping = pointer(geometry.verticesMapping());
  prototype.indicesMapping = pointer(geometry.indicesMapping());
  prototype.mergedVertices = pointer(vertices);
  prototype.mergedIndices = pointer(indices);
  prototype.collisionModels = pointer(collisionModels);
  prototype.armorModels = pointer(armorModels);
  return Moo::packMergedGeometry(prototype);
}

bool sameRecords(const Moo::GeometryData& a, const Moo::GeometryData& b)
{
  const auto sameBytes = [](std::span<const std::byte> x, std::span<const std::byte> y) {
    return x.size() == y.size() && (x.empty() || std::memcmp(x.data(), y.data(), x.size()) == 0);
  };
  const auto sameMappings = [](const std::vector<Moo::MappingPrototype>& x, const std::vector<Moo::MappingPrototype>& y) {
    return x.size() == y.size() && (x.empty() || std::memcmp(x.data(), y.data(), x.size() * sizeof(x[0])) == 0);
  };
  if (a.vertexBuffers().size() != b.vertexBuffers().size() || a.indexBuffers().size() != b.indexBuffers().size() ||
      a.collisionModels().size() != b.collisionModels().size() || a.armorModels().size() != b.armorModels().size() ||
      !sameMappings(a.verticesMapping(), b.verticesMapping()) || !sameMappings(a.indicesMapping(), b.indicesMapping()))
    return false;
  for (size_t i = 0; i < a.vertexBuffers().size(); ++i)
  {
    const auto& x = a.vertexBuffers()[i];
    const auto& y = b.vertexBuffers()[i];
    if (x.formatName != y.formatName || !sameBytes(x.data, y.data) || x.strideInBytes != y.strideInBytes ||
        x.isSkinned != y.isSkinned || x.isBumped != y.isBumped || x.encoded != y.encoded)
      return false;
  }
  for (size_t i = 0; i < a.indexBuffers().size(); ++i)
  {
    const auto& x = a.indexBuffers()[i];
    const auto& y = b.indexBuffers()[i];
    if (!sameBytes(x.data, y.data) || x.primitiveType != y.primitiveType || x.strideInBytes != y.strideInBytes)
      return false;
  }
  const auto sameModels = [&](const std::vector<Moo::GeometryData::ModelData>& x,
                              const std::vector<Moo::GeometryData::ModelData>& y) {
    for (size_t i = 0; i < x.size(); ++i)
    {
      if (x[i].name != y[i].name || !sameBytes(x[i].data, y[i].data))
        return false;
    }
    return true;
  };
  return sameModels(a.collisionModels(), b.collisionModels()) && sameModels(a.armorModels(), b.armorModels());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  Moo::GeometryData geometry;
  if (!geometry.load(BinaryPtr(new BinaryBlock(data, size, "Fuzz")), "fuzz.geometry"))
    return 0;

  uint32_t sum = 0;
  for (const auto& buffer : geometry.vertexBuffers())
    sum += touch(buffer.data) + static_cast<uint32_t>(buffer.formatName.size());
  for (const auto& buffer : geometry.indexBuffers())
    sum += touch(buffer.data);
  for (const auto& model : geometry.collisionModels())
    sum += touch(model.data) + static_cast<uint32_t>(model.name.size());
  for (const auto& model : geometry.armorModels())
    sum += touch(model.data) + static_cast<uint32_t>(model.name.size());

  for (size_t i = 0; i < geometry.verticesMapping().size(); ++i)
  {
    Moo::GeometryData::VertexRange range;
    check(geometry.fetchVerticesById(geometry.verticesMapping()[i].mappingId, range, i));
    check(range.buffer >= geometry.vertexBuffers().data() &&
          range.buffer < geometry.vertexBuffers().data() + geometry.vertexBuffers().size());
  }
  for (size_t i = 0; i < geometry.indicesMapping().size(); ++i)
  {
    Moo::GeometryData::IndexRange range;
    if (geometry.fetchIndicesById(geometry.indicesMapping()[i].mappingId, range, i))
      check(range.buffer >= geometry.indexBuffers().data() &&
            range.buffer < geometry.indexBuffers().data() + geometry.indexBuffers().size());
  }
  Moo::GeometryData::VertexRange missing;
  (void)geometry.fetchVertices("fuzz.vertices", missing);

  const BinaryPtr packed = repack(geometry);
  check(packed != nullptr);
  Moo::GeometryData reread;
  check(reread.load(packed, "repacked.geometry"));
  check(sameRecords(geometry, reread));
  s_sink = sum;
  return 0;
}
