#include "moo/moo_prototypes.hpp"

#include "geometry_samples.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace
{

using geometry_samples::LogCapture;
using geometry_samples::SampleModel;

uint64_t u64At(const BinaryBlock& block, size_t offset)
{
  uint64_t value = 0;
  std::memcpy(&value, block.data() + offset, sizeof(value));
  return value;
}

uint32_t u32At(const BinaryBlock& block, size_t offset)
{
  uint32_t value = 0;
  std::memcpy(&value, block.data() + offset, sizeof(value));
  return value;
}

uint16_t u16At(const BinaryBlock& block, size_t offset)
{
  uint16_t value = 0;
  std::memcpy(&value, block.data() + offset, sizeof(value));
  return value;
}

bool bytesEqual(const BinaryBlock& block, size_t offset, const void* expected, size_t size)
{
  return std::memcmp(block.data() + offset, expected, size) == 0;
}

TEST(GeometryPacking, WorkedExampleByteForByte)
{
  SampleModel model;
  geometry_samples::makeWorkedExample(model);
  const BinaryPtr block = Moo::packMergedGeometry(model.prototype);
  ASSERT_TRUE(block);
  ASSERT_EQ(block->len(), 261u);

  // Root: counts, then offsets from position 0.
  EXPECT_EQ(u32At(*block, 0), 1u);
  EXPECT_EQ(u32At(*block, 4), 1u);
  EXPECT_EQ(u32At(*block, 8), 1u);
  EXPECT_EQ(u32At(*block, 12), 1u);
  EXPECT_EQ(u32At(*block, 16), 0u);
  EXPECT_EQ(u32At(*block, 20), 0u);
  EXPECT_EQ(u64At(*block, 24), 72u);
  EXPECT_EQ(u64At(*block, 32), 88u);
  EXPECT_EQ(u64At(*block, 40), 104u);
  EXPECT_EQ(u64At(*block, 48), 239u);
  EXPECT_EQ(u64At(*block, 56), 0u);
  EXPECT_EQ(u64At(*block, 64), 0u);

  // Mappings are copied whole.
  EXPECT_TRUE(bytesEqual(*block, 72, &model.verticesMapping[0], 16));
  EXPECT_TRUE(bytesEqual(*block, 88, &model.indicesMapping[0], 16));
  EXPECT_EQ(u32At(*block, 88 + 12), 3u);

  // The vertex record at 104: data at 136, name text at 232 counted from the String at 112.
  EXPECT_EQ(u64At(*block, 104), 32u);
  EXPECT_EQ(u32At(*block, 112), 7u);
  EXPECT_EQ(u32At(*block, 116), 0u);
  EXPECT_EQ(u64At(*block, 120), 120u);
  EXPECT_EQ(u32At(*block, 128), 96u);
  EXPECT_EQ(u16At(*block, 132), 32u);
  EXPECT_EQ(block->data()[134], 0);
  EXPECT_EQ(block->data()[135], 0);
  EXPECT_TRUE(bytesEqual(*block, 136, model.data[0].data(), 96));
  EXPECT_TRUE(bytesEqual(*block, 232, "xyznuv", 7));

  // The index record at 239 (unaligned): data at 255.
  EXPECT_EQ(u64At(*block, 239), 16u);
  EXPECT_EQ(u32At(*block, 247), 6u);
  EXPECT_EQ(u16At(*block, 251), 0u);
  EXPECT_EQ(u16At(*block, 253), 2u);
  EXPECT_TRUE(bytesEqual(*block, 255, model.data[1].data(), 6));
}

TEST(GeometryPacking, EmptyPrototypeIsTheBareRoot)
{
  const Moo::MergedGeometryPrototype prototype{};
  const BinaryPtr block = Moo::packMergedGeometry(prototype);
  ASSERT_TRUE(block);
  ASSERT_EQ(block->len(), 72u);
  for (size_t i = 0; i < 72; ++i)
    EXPECT_EQ(block->data()[i], 0) << i;
}

TEST(GeometryPacking, ModelsFollowTheirArraysDataThenName)
{
  SampleModel model;
  geometry_samples::makeRichModel(model);
  const BinaryPtr block = Moo::packMergedGeometry(model.prototype);
  ASSERT_TRUE(block);

  // The armor array is the last one: its record, then its 9 data bytes, then "armor\0".
  const size_t armorAt = u64At(*block, 64);
  ASSERT_EQ(block->len(), armorAt + 32 + 9 + 6);
  EXPECT_EQ(u64At(*block, armorAt + 24), 32u);
  EXPECT_EQ(u64At(*block, armorAt + 16), 32u + 9u - 8u);
  EXPECT_TRUE(bytesEqual(*block, armorAt + 32, model.data.back().data(), 9));
  EXPECT_TRUE(bytesEqual(*block, armorAt + 41, "armor", 6));

  // Collision models: both records, then model 0's data and name, then model 1's.
  const size_t collisionAt = u64At(*block, 56);
  const size_t data0 = collisionAt + 64;
  const size_t name0 = data0 + 5;
  const size_t data1 = name0 + 5;
  const size_t name1 = data1 + 11;
  EXPECT_EQ(u64At(*block, collisionAt + 24), data0 - collisionAt);
  EXPECT_EQ(u64At(*block, collisionAt + 16), name0 - (collisionAt + 8));
  EXPECT_EQ(u64At(*block, collisionAt + 32 + 24), data1 - (collisionAt + 32));
  EXPECT_EQ(u64At(*block, collisionAt + 32 + 16), name1 - (collisionAt + 40));
  EXPECT_TRUE(bytesEqual(*block, name1, "turret_collision", 17));
  EXPECT_EQ(name1 + 17, armorAt);
}

TEST(GeometryPacking, RefusedCountIsLoggedWithItsTraceback)
{
  SampleModel model;
  geometry_samples::makeRichModel(model);
  model.vertices[1].formatName.size = 0; // a zero count with a text pointer

  LogCapture capture;
  EXPECT_FALSE(Moo::packMergedGeometry(model.prototype));
  EXPECT_EQ(capture.stream.str(), "ERROR: GeometryCompiler::packData red::ppa:size error. traceback: "
                                  "Negative or zero count on non-zero array\n"
                                  "\t-> red::types::String::text\n"
                                  "\t-> Moo::MergedVerticesPrototype::formatName\n"
                                  "\t-> Moo::MergedGeometryPrototype::mergedVertices[1]\n"
                                  " \n\n"); // the sink ends the line once more
}

TEST(GeometryPacking, ArmorCountIsUsedThoughNotNamed)
{
  SampleModel model;
  geometry_samples::makeRichModel(model);
  model.prototype.armorModelCount = 0x80000000u;

  LogCapture capture;
  EXPECT_FALSE(Moo::packMergedGeometry(model.prototype));
  EXPECT_EQ(capture.stream.str(), "ERROR: GeometryCompiler::packData red::ppa:size error. traceback: "
                                  "Negative or zero count on non-zero array\n"
                                  "\t-> Moo::MergedGeometryPrototype::armorModels\n"
                                  " \n\n");
}

TEST(GeometryPacking, TexelDensityIsTruncatedToHalf)
{
  EXPECT_EQ(Moo::packedTexelDensity(0.1f), 0x2E66);
  EXPECT_EQ(Moo::packedTexelDensity(1.000732421875f), 0x3C00); // rounding would give 0x3C01
  EXPECT_EQ(Moo::packedTexelDensity(70000.0f), 0x7C00);
}

} // namespace
