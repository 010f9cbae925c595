#include "moo/geometry_data.hpp"

#include "geometry_samples.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

namespace
{

using geometry_samples::LogCapture;
using geometry_samples::SampleModel;
using Moo::GeometryData;

std::vector<char> packedBytes(const SampleModel& model)
{
  const BinaryPtr block = Moo::packMergedGeometry(model.prototype);
  EXPECT_TRUE(block);
  return block ? std::vector<char>(block->data(), block->data() + block->len()) : std::vector<char>{};
}

BinaryPtr toBlock(const std::vector<char>& bytes)
{
  return BinaryPtr(new BinaryBlock(bytes.data(), bytes.size(), "Test"));
}

// Loads quietly (refusals log an error each).
bool loads(const std::vector<char>& bytes, GeometryData* data = nullptr)
{
  LogCapture quiet;
  GeometryData local;
  GeometryData& target = data ? *data : local;
  return target.load(toBlock(bytes), "test.geometry");
}

std::string refusal(const std::vector<char>& bytes)
{
  LogCapture capture;
  GeometryData data;
  EXPECT_FALSE(data.load(toBlock(bytes), "test.geometry"));
  EXPECT_FALSE(data.isLoaded());
  return capture.stream.str();
}

template <typename T>
T valueAt(const std::vector<char>& bytes, size_t position)
{
  T value{};
  std::memcpy(&value, bytes.data() + position, sizeof(T));
  return value;
}

template <typename T>
void setValue(std::vector<char>& bytes, size_t position, T value)
{
  std::memcpy(bytes.data() + position, &value, sizeof(T));
}

std::string text(std::span<const std::byte> bytes)
{
  return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::string text(const std::byte* bytes, uint32_t size)
{
  return text(std::span<const std::byte>(bytes, size));
}

void expectSameAsModel(const GeometryData& data, const SampleModel& model)
{
  ASSERT_EQ(data.vertexBuffers().size(), model.vertices.size());
  for (size_t i = 0; i < model.vertices.size(); ++i)
  {
    const auto& [expected, buffer] = std::tie(model.vertices[i], data.vertexBuffers()[i]);
    EXPECT_EQ(buffer.formatName, expected.formatName.text);
    EXPECT_EQ(text(buffer.data), text(expected.verticesData, expected.sizeInBytes));
    EXPECT_EQ(buffer.sizeInBytes, expected.sizeInBytes);
    EXPECT_EQ(buffer.strideInBytes, expected.strideInBytes);
    EXPECT_EQ(buffer.isSkinned, expected.isSkinned != std::byte{0});
    EXPECT_EQ(buffer.isBumped, expected.isBumped != std::byte{0});
    EXPECT_FALSE(buffer.encoded);
  }
  ASSERT_EQ(data.indexBuffers().size(), model.indices.size());
  for (size_t i = 0; i < model.indices.size(); ++i)
  {
    const auto& [expected, buffer] = std::tie(model.indices[i], data.indexBuffers()[i]);
    EXPECT_EQ(text(buffer.data), text(expected.indicesData, expected.sizeInBytes));
    EXPECT_EQ(buffer.primitiveType, expected.primitiveType);
    EXPECT_EQ(buffer.strideInBytes, expected.strideInBytes);
  }
  const auto mappingBytes = [](std::span<const Moo::MappingPrototype> mappings) {
    return text(std::as_bytes(mappings));
  };
  EXPECT_EQ(mappingBytes(data.verticesMapping()), mappingBytes(model.verticesMapping));
  EXPECT_EQ(mappingBytes(data.indicesMapping()), mappingBytes(model.indicesMapping));
  ASSERT_EQ(data.collisionModels().size(), model.collisionModels.size());
  for (size_t i = 0; i < model.collisionModels.size(); ++i)
  {
    const auto& [expected, read] = std::tie(model.collisionModels[i], data.collisionModels()[i]);
    EXPECT_EQ(read.name, expected.collisionModelName.text);
    EXPECT_EQ(text(read.data), text(expected.cmData, expected.sizeInBytes));
  }
  ASSERT_EQ(data.armorModels().size(), model.armorModels.size());
  for (size_t i = 0; i < model.armorModels.size(); ++i)
  {
    const auto& [expected, read] = std::tie(model.armorModels[i], data.armorModels()[i]);
    EXPECT_EQ(read.name, expected.armorModelName.text);
    EXPECT_EQ(text(read.data), text(expected.armorData, expected.sizeInBytes));
  }
}

// The texts that a failed buffer-count check reports name the reader's fields as its users know them.
TEST(GeometryData, BufferCountCheckTexts)
{
  EXPECT_STREQ(Moo::GeometryData::kVertexBufferCountCheck, "proto.mergedVerticesCount == mergedVertices_.size()");
  EXPECT_STREQ(Moo::GeometryData::kIndexBufferCountCheck, "proto.mergedIndicesCount == mergedIndices_.size()");
}

TEST(GeometryData, ReadsBackWhatWasPacked)
{
  for (const bool rich : {false, true})
  {
    SampleModel model;
    rich ? geometry_samples::makeRichModel(model) : geometry_samples::makeWorkedExample(model);
    GeometryData data;
    ASSERT_TRUE(loads(packedBytes(model), &data));
    EXPECT_TRUE(data.isLoaded());
    expectSameAsModel(data, model);
  }
}

TEST(GeometryData, LoadsAFileByPath)
{
  SampleModel model;
  geometry_samples::makeWorkedExample(model);
  const std::vector<char> bytes = packedBytes(model);
  const std::filesystem::path path = std::filesystem::temp_directory_path() / "geometry_data_test_\xC3\xA9.geometry";
  {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  GeometryData data;
  const std::u8string utf8 = path.u8string();
  EXPECT_TRUE(data.load(std::string(utf8.begin(), utf8.end())));
  std::filesystem::remove(path);
  expectSameAsModel(data, model);

  LogCapture capture;
  EXPECT_FALSE(data.load(std::string(utf8.begin(), utf8.end())));
  EXPECT_FALSE(data.isLoaded());
  EXPECT_NE(capture.stream.str().find("GeometryData: cannot open"), std::string::npos);
}

TEST(GeometryData, EmptyRootIsAValidFile)
{
  GeometryData data;
  ASSERT_TRUE(loads(std::vector<char>(72, 0), &data));
  EXPECT_TRUE(data.vertexBuffers().empty());
  EXPECT_TRUE(data.armorModels().empty());
}

TEST(GeometryData, EveryTruncationAndTrailingByteIsRefused)
{
  SampleModel model;
  geometry_samples::makeRichModel(model);
  const std::vector<char> bytes = packedBytes(model);
  ASSERT_TRUE(loads(bytes));
  for (size_t length = 0; length < bytes.size(); ++length)
    EXPECT_FALSE(loads(std::vector<char>(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length)))) << length;

  std::vector<char> longer = bytes;
  longer.push_back(0);
  EXPECT_EQ(refusal(longer), "ERROR: GeometryData: 'test.geometry': 1 unused bytes after the last array\n\n");
}

// Positions of every offset field of the rich model's packed file, with the position of the record
// it counts from.
struct OffsetField
{
  size_t field;
  size_t record;
  std::string name;
};

std::vector<OffsetField> offsetFields(const std::vector<char>& bytes)
{
  std::vector<OffsetField> fields;
  const char* rootNames[] = {"verticesMapping", "indicesMapping", "mergedVertices",
                             "mergedIndices",   "collisionModels", "armorModels"};
  for (size_t i = 0; i < 6; ++i)
    fields.push_back({24 + 8 * i, 0, rootNames[i]});
  const auto arrayAt = [&](size_t rootField) { return static_cast<size_t>(valueAt<uint64_t>(bytes, rootField)); };
  for (uint32_t i = 0; i < valueAt<uint32_t>(bytes, 0); ++i)
  {
    const size_t at = arrayAt(40) + 32 * i;
    fields.push_back({at, at, "verticesData"});
    fields.push_back({at + 16, at + 8, "formatName.text"});
  }
  for (uint32_t i = 0; i < valueAt<uint32_t>(bytes, 4); ++i)
  {
    const size_t at = arrayAt(48) + 16 * i;
    fields.push_back({at, at, "indicesData"});
  }
  for (const size_t rootField : {size_t{56}, size_t{64}})
  {
    for (uint32_t i = 0; i < valueAt<uint32_t>(bytes, rootField == 56 ? 16 : 20); ++i)
    {
      const size_t at = arrayAt(rootField) + 32 * i;
      fields.push_back({at + 24, at, "data"});
      fields.push_back({at + 16, at + 8, "name.text"});
    }
  }
  return fields;
}

TEST(GeometryData, EveryOffsetPointingOutsideIsRefused)
{
  SampleModel model;
  geometry_samples::makeRichModel(model);
  const std::vector<char> bytes = packedBytes(model);
  const std::vector<OffsetField> fields = offsetFields(bytes);
  ASSERT_EQ(fields.size(), 6u + 2 * 2 + 2 + 2 * 2 + 2);
  for (const OffsetField& field : fields)
  {
    const uint64_t justPastTheEnd = bytes.size() - field.record + 1;
    const uint64_t atTheEnd = bytes.size() - field.record;
    for (const uint64_t offset : {uint64_t{0}, atTheEnd, justPastTheEnd, uint64_t{0xFFFFFFFFFFFFFFF0ull}})
    {
      std::vector<char> mutated = bytes;
      setValue(mutated, field.field, offset);
      EXPECT_FALSE(loads(mutated)) << field.name << " at " << field.field << " = " << offset;
    }
  }
}

TEST(GeometryData, RefusalsNameTheFileAndTheRecord)
{
  SampleModel model;
  geometry_samples::makeRichModel(model);
  const std::vector<char> bytes = packedBytes(model);
  const size_t vertices = static_cast<size_t>(valueAt<uint64_t>(bytes, 40));
  const size_t indices = static_cast<size_t>(valueAt<uint64_t>(bytes, 48));
  const size_t vertex1 = vertices + 32;

  std::vector<char> mutated = bytes;
  setValue<uint64_t>(mutated, vertex1, bytes.size());
  EXPECT_EQ(refusal(mutated),
            "ERROR: GeometryData: 'test.geometry': mergedVertices[1].verticesData points outside the file\n\n");

  mutated = bytes;
  setValue<uint64_t>(mutated, 24, 0);
  EXPECT_EQ(refusal(mutated), "ERROR: GeometryData: 'test.geometry': verticesMapping has 3 elements but offset 0\n\n");

  // An empty array must have offset 0.
  std::vector<char> empty(72, 0);
  setValue<uint64_t>(empty, 56, 8);
  EXPECT_EQ(refusal(empty), "ERROR: GeometryData: 'test.geometry': collisionModels is empty but has offset 8\n\n");

  // A name whose last byte is not its zero.
  mutated = bytes;
  const size_t nameAt = vertex1 + 8 + static_cast<size_t>(valueAt<uint64_t>(bytes, vertex1 + 16));
  ASSERT_EQ(std::string(mutated.data() + nameAt), "set3/xyznuviiiwwtbpc");
  setValue<uint32_t>(mutated, vertex1 + 8, 20);
  EXPECT_EQ(refusal(mutated),
            "ERROR: GeometryData: 'test.geometry': mergedVertices[1].formatName.text is not zero-terminated\n\n");

  mutated = bytes;
  setValue<uint16_t>(mutated, 72 + 2 * 16 + 4, 2);
  EXPECT_EQ(refusal(mutated),
            "ERROR: GeometryData: 'test.geometry': verticesMapping[2].mergedBufferIndex 2 is not below the buffer "
            "count 2\n\n");

  // b.indices covers indices 6..9 of a buffer of 9.
  mutated = bytes;
  const size_t indexMapping1 = static_cast<size_t>(valueAt<uint64_t>(bytes, 32)) + 16;
  setValue<uint32_t>(mutated, indexMapping1 + 12, 4);
  EXPECT_EQ(refusal(mutated), "ERROR: GeometryData: 'test.geometry': indicesMapping[1] covers items 6 to 10, beyond "
                              "the 9 items of its buffer\n\n");

  mutated = bytes;
  setValue<uint16_t>(mutated, indices + 14, 4); // 16-bit indices with a stride of 4
  EXPECT_EQ(refusal(mutated),
            "ERROR: GeometryData: 'test.geometry': mergedIndices[0] has primitive type 0 with stride 4\n\n");

  mutated = bytes;
  setValue<uint16_t>(mutated, vertices + 28, 64); // 224 bytes are not whole 64-byte vertices
  EXPECT_EQ(refusal(mutated), "ERROR: GeometryData: 'test.geometry': mergedVertices[0] has 224 bytes, not a whole "
                              "number of 64-byte vertices\n\n");

  EXPECT_EQ(refusal(std::vector<char>(71, 0)),
            "ERROR: GeometryData: 'test.geometry': the file has 71 bytes, fewer than the 72-byte root record\n\n");
}

TEST(GeometryData, EncodedBuffersAreFlaggedAndNotRangeChecked)
{
  SampleModel model;
  geometry_samples::makeWorkedExample(model);
  // An encoded stream is shorter than the vertices it holds; mappings count decoded vertices.
  std::vector<std::byte> encoded = geometry_samples::patternBytes(12, 0);
  std::memcpy(encoded.data(), "ENCD\x03\0\0\0", 8);
  model.vertices[0].verticesData = model.keep(encoded);
  model.vertices[0].sizeInBytes = 12;

  GeometryData data;
  ASSERT_TRUE(loads(packedBytes(model), &data));
  EXPECT_TRUE(data.vertexBuffers()[0].encoded);
  EXPECT_EQ(text(data.vertexBuffers()[0].data), text(encoded.data(), 12));
  EXPECT_FALSE(data.indexBuffers()[0].encoded);
}

TEST(GeometryData, FindMappingTriesTheHintThenScans)
{
  const Moo::MappingPrototype mappings[] = {{7, 0, 0, 0, 0}, {8, 0, 0, 0, 0}, {7, 0, 0, 0, 0}};
  EXPECT_EQ(GeometryData::findMapping(mappings, 7, 2), 2u);
  EXPECT_EQ(GeometryData::findMapping(mappings, 7, 1), 0u);
  EXPECT_EQ(GeometryData::findMapping(mappings, 8, 99), 1u);
  EXPECT_EQ(GeometryData::findMapping(mappings, 9, 0), GeometryData::kNotFound);
  EXPECT_EQ(GeometryData::findMapping({}, 7, 0), GeometryData::kNotFound);
}

TEST(GeometryData, FetchesRangesBySectionName)
{
  SampleModel model;
  geometry_samples::makeRichModel(model);
  GeometryData data;
  ASSERT_TRUE(loads(packedBytes(model), &data));

  GeometryData::VertexRange vertices;
  ASSERT_TRUE(data.fetchVertices("c.vertices", vertices, 0));
  EXPECT_EQ(vertices.buffer, &data.vertexBuffers()[1]);
  EXPECT_EQ(vertices.mapping.itemsCount, 3u);

  GeometryData::IndexRange indices;
  ASSERT_TRUE(data.fetchIndices("b.indices", indices, 1));
  EXPECT_EQ(indices.buffer, &data.indexBuffers()[0]);
  EXPECT_EQ(indices.startIndex, 6u);
  EXPECT_EQ(indices.primitiveCount, 1u);
  ASSERT_TRUE(data.fetchIndicesById(cstdmf::makeStringID("a.indices"), indices));
  EXPECT_EQ(indices.primitiveCount, 2u);

  LogCapture capture;
  EXPECT_FALSE(data.fetchVertices("missing.vertices", vertices));
  EXPECT_FALSE(data.fetchIndices("missing.indices", indices));
  EXPECT_FALSE(data.fetchIndicesById(0x1234abcd, indices));
  EXPECT_EQ(capture.stream.str(), "ERROR: GeometryData::fetchVertices: could not find indices missing.vertices\n\n"
                                  "ERROR: GeometryData::fetchIndices: could not find indices missing.indices\n\n"
                                  "ERROR: GeometryData::fetchIndices: could not find indices 0x1234abcd\n\n");
}

TEST(GeometryData, IndexRangeMustBeWholeTriangles)
{
  uint32_t count = 0;
  EXPECT_TRUE(GeometryData::trianglePrimitiveCount(0, count));
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(GeometryData::trianglePrimitiveCount(9, count));
  EXPECT_EQ(count, 3u);
  EXPECT_FALSE(GeometryData::trianglePrimitiveCount(10, count));

  SampleModel model;
  geometry_samples::makeRichModel(model);
  model.indicesMapping[0].itemsCount = 5;
  GeometryData data;
  ASSERT_TRUE(loads(packedBytes(model), &data));
  GeometryData::IndexRange indices;
  LogCapture capture;
  EXPECT_FALSE(data.fetchIndices("a.indices", indices));
  EXPECT_EQ(capture.stream.str(),
            "ERROR: GeometryData::fetchIndices: 5 indices of a.indices are not a whole number of triangles\n\n");
}

} // namespace
