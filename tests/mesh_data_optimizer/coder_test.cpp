#include "mesh_data_optimizer/coder.hpp"

#include "cstdmf/log_sinks.hpp"
#include "mesh_data_optimizer/test_mesh.hpp"
#include "fatal_exit_status.hpp"
#include "log_capture.hpp"

#include <gtest/gtest.h>
#include <spdlog/logger.h>

#include <cstring>
#include <random>
#include <sstream>

namespace
{

using MeshDataOptimizer::EncodedBufferHeader;
using MeshDataOptimizerTest::makeSphere;
using MeshDataOptimizerTest::TestMesh;

// Collects the log lines written while it lives, as "LEVEL: text".
struct CapturedLog : testutil::LogCapture
{
  size_t takeErrorCount()
  {
    const std::string text = take();
    size_t count = 0;
    for (size_t at = text.find("ERROR: "); at != std::string::npos; at = text.find("ERROR: ", at + 1))
      ++count;
    return count;
  }
};

const std::string kInvalidHeader =
  "ERROR: MeshDataOptimizer::checkHeaderData: Encoded buffer has invalid header data.\n\n";

std::vector<std::byte> withHeader(uint32_t count, size_t payloadSize)
{
  std::vector<std::byte> encoded(8 + payloadSize);
  std::memcpy(encoded.data(), "ENCD", 4);
  std::memcpy(encoded.data() + 4, &count, 4);
  return encoded;
}

// decode(bytes) -> (result, output size). Every prefix, a trailing byte and a wrong codec version
// are refused, each with exactly one error and an empty output.
template <typename Decode>
void expectDamageRefused(std::span<const std::byte> encodedBytes, Decode decode)
{
  CapturedLog log;
  auto expectRefused = [&](std::span<const std::byte> bytes, size_t length) {
    EXPECT_EQ(decode(bytes), std::make_pair(false, size_t(0))) << "length " << length;
    EXPECT_EQ(log.takeErrorCount(), 1u) << "length " << length;
  };
  const std::vector<std::byte> encoded(encodedBytes.begin(), encodedBytes.end());
  for (size_t length = 0; length < encoded.size(); ++length)
    expectRefused(std::span(encoded).first(length), length);
  std::vector<std::byte> damaged = encoded;
  damaged.push_back(std::byte{0});
  expectRefused(damaged, damaged.size());
  damaged = encoded;
  damaged[8] = std::byte{0x01};
  expectRefused(damaged, damaged.size());
}

TEST(EncodedBufferHeader, LayoutAndChecks)
{
  CapturedLog log;
  EXPECT_EQ(EncodedBufferHeader::kMagic, 1145261637u);
  const auto encoded = MeshDataOptimizer::encodeVertexData(makeSphere(1, 2, 12, 1).vertices, 12);
  const unsigned char golden[8] = {'E', 'N', 'C', 'D', 6, 0, 0, 0};
  ASSERT_GT(encoded.size(), 8u);
  EXPECT_EQ(std::memcmp(encoded.data(), golden, 8), 0);
  EXPECT_TRUE(EncodedBufferHeader::readFrom(encoded).checkHeaderData());
  EXPECT_EQ(log.take(), "");

  // Nothing to encode still gives a stream, but its count of 0 marks the buffer as unusable.
  const auto empty = EncodedBufferHeader::readFrom(MeshDataOptimizer::encodeVertexData({}, 32));
  EXPECT_TRUE(empty.checkHeaderMagicVal());
  EXPECT_EQ(empty.getElementCount(), 0u);
  EXPECT_FALSE(empty.checkHeaderData());
  EXPECT_EQ(log.take(), kInvalidHeader);

  cstdmf::ByteVector wrongMagic = encoded;
  wrongMagic[3] = std::byte('X');
  EXPECT_FALSE(EncodedBufferHeader::readFrom(wrongMagic).checkHeaderMagicVal());
  EXPECT_FALSE(EncodedBufferHeader::readFrom(wrongMagic).checkHeaderData());
  EXPECT_EQ(log.take(), kInvalidHeader);
  EXPECT_FALSE(EncodedBufferHeader::readFrom(std::span(encoded).first(7)).checkHeaderData());
}

TEST(VertexCoder, RoundTripAndRefusals)
{
  for (const size_t stride : {size_t(4), size_t(28), size_t(32), size_t(256)})
  {
    const TestMesh mesh = makeSphere(20, 30, stride, 5);
    const auto encoded = MeshDataOptimizer::encodeVertexData(mesh.vertices, stride);
    EXPECT_EQ(EncodedBufferHeader::readFrom(encoded).getElementCount(), mesh.vertexCount());
    std::vector<std::byte> decoded;
    ASSERT_TRUE(MeshDataOptimizer::decodeVertexData(encoded, stride, decoded)) << stride;
    EXPECT_TRUE(decoded == mesh.vertices) << stride;
  }
  // The most compressible input must stay within the decoder's expansion limit.
  const std::vector<std::byte> zeros(100000 * 4);
  std::vector<std::byte> decoded;
  ASSERT_TRUE(MeshDataOptimizer::decodeVertexData(MeshDataOptimizer::encodeVertexData(zeros, 4), 4, decoded));
  EXPECT_TRUE(decoded == zeros);

  const auto encoded = MeshDataOptimizer::encodeVertexData(makeSphere(6, 8, 28, 2).vertices, 28);
  auto decodeAs = [&decoded](size_t stride) {
    return [&decoded, stride](std::span<const std::byte> bytes) {
      decoded.resize(5);
      const bool result = MeshDataOptimizer::decodeVertexData(bytes, stride, decoded);
      return std::make_pair(result, decoded.size());
    };
  };
  expectDamageRefused(encoded, decodeAs(28));
  CapturedLog log;
  for (const size_t badStride : {size_t(0), size_t(6), size_t(32), size_t(260)})
    EXPECT_FALSE(decodeAs(badStride)(encoded).first) << badStride;
  // An absurd count is refused before anything is allocated for it.
  EXPECT_FALSE(decodeAs(256)(withHeader(0xFFFFFFFFu, 100)).first);
  EXPECT_EQ(log.takeErrorCount(), 5u);
}

template <typename IndexT>
void checkIndexCoder()
{
  SCOPED_TRACE(testing::Message() << sizeof(IndexT) * 8 << "-bit indices");
  const TestMesh mesh = makeSphere(40, 60, 32, 8);
  const std::vector<IndexT> indices = mesh.indicesAs<IndexT>();
  const auto encoded = MeshDataOptimizer::encodeIndexData<IndexT>(indices, mesh.vertexCount());
  EXPECT_EQ(EncodedBufferHeader::readFrom(encoded).getElementCount(), indices.size());
  std::vector<IndexT> decoded;
  ASSERT_TRUE(MeshDataOptimizer::decodeIndexData<IndexT>(encoded, decoded));
  EXPECT_TRUE(MeshDataOptimizer::sameTriangles<IndexT>(decoded, indices));

  auto decode = [&decoded](std::span<const std::byte> bytes) {
    decoded.resize(5);
    const bool result = MeshDataOptimizer::decodeIndexData<IndexT>(bytes, decoded);
    return std::make_pair(result, decoded.size());
  };
  const TestMesh small = makeSphere(6, 8, 32, 4);
  expectDamageRefused(MeshDataOptimizer::encodeIndexData<IndexT>(small.indicesAs<IndexT>(), small.vertexCount()),
                      decode);
  // Counts the library would assert on, or that the payload cannot hold.
  CapturedLog log;
  cstdmf::ByteVector notTriangles = encoded;
  notTriangles[4] = std::byte(uint8_t(notTriangles[4]) + 1);
  EXPECT_FALSE(decode(notTriangles).first);
  EXPECT_FALSE(decode(withHeader(0xFFFFFFFCu, 100)).first);
  EXPECT_EQ(log.takeErrorCount(), 2u);
}

TEST(IndexCoder, RoundTripAndRefusals)
{
  checkIndexCoder<uint16_t>();
  checkIndexCoder<uint32_t>();
}

// The encoder sizes its worst case from the vertex count; indices far past it overflow that, the
// library gives up, and the result is the bare header. (The vertex encoder's worst case is exact,
// so it has no such path.)
TEST(IndexCoder, EncoderFailureLeavesTheHeaderAlone)
{
  CapturedLog log;
  std::mt19937 rng(5);
  std::vector<uint32_t> indices(300);
  for (uint32_t& index : indices)
    index = rng();
  const auto encoded = MeshDataOptimizer::encodeIndexData<uint32_t>(indices, 1);
  ASSERT_EQ(encoded.size(), 8u);
  EXPECT_TRUE(EncodedBufferHeader::readFrom(encoded).checkHeaderMagicVal());
  EXPECT_EQ(EncodedBufferHeader::readFrom(encoded).getElementCount(), 300u);
  EXPECT_EQ(log.take(), "ERROR: MeshDataOptimizer::encodeIndexData: The Index data can't be encoded.\n\n");
  std::vector<uint32_t> decoded;
  EXPECT_FALSE(MeshDataOptimizer::decodeIndexData<uint32_t>(encoded, decoded));
}

TEST(CoderDeathTest, EncoderPreconditionsAreFatalAssertions)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::vector<uint16_t> notTriangles{0, 1, 2, 3};
  const std::vector<std::byte> vertices(60);
  auto run = [](auto&& call) {
    cstdmf::setupConsoleLogging(1);
    (void)call();
  };
  EXPECT_EXIT(run([&] { return MeshDataOptimizer::encodeIndexData<uint16_t>(notTriangles, 4); }),
              testing::ExitedWithCode(kFatalExitStatus), "ASSERTION FAILED: indices.size\\(\\) % 3 == 0");
  EXPECT_EXIT(run([&] { return MeshDataOptimizer::encodeVertexData(vertices, 6); }), testing::ExitedWithCode(kFatalExitStatus),
              "ASSERTION FAILED: isValidVertexSize\\(vertexSize\\)");
}

} // namespace
