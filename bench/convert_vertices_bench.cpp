// Moo::convertVertices from each registered source format to its GPU format.

#include "moo/primitive_vertex_format.hpp"
#include "moo/vertex_conversion.hpp"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace
{

constexpr size_t kVertexCount = 64 * 1024;

const char* const kSourceFormats[] = {
  "xyznuv",     "xyznuv2",     "xyznuvtb",     "xyznuv2tb",  "xyznuviiiww",  "xyznuviiiwwtb", "xyznuv2iiiwwtb",
  "xyznuvtbi",  "xyznuv2tbi",  "xyznuvtboi",   "xyznuv2tboi", "xyznuvr",      "xyznuviiiwwr",
};

uint32_t packNormal111110(const Moo::Vector3& v)
{
  const auto field = [](float c, float scale, uint32_t mask) {
    return static_cast<uint32_t>(static_cast<int32_t>(std::lround(c * scale))) & mask;
  };
  return field(v.x, 1023.0f, 0x7FF) | (field(v.y, 1023.0f, 0x7FF) << 11) | (field(v.z, 511.0f, 0x3FF) << 22);
}

// Random vertices that satisfy the conversion's preconditions (unit normals).
std::vector<std::byte> makeSourceVertices(const Moo::VertexFormat& format, size_t count)
{
  const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(format, 0);
  std::vector<std::byte> data(count * stride);
  std::mt19937 random(42);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  for (size_t v = 0; v < count; ++v)
    for (const Moo::VertexElement& element : format.elements)
    {
      std::byte* out = data.data() + v * stride + element.offset_;
      Moo::Vector3 n{unit(random), unit(random), unit(random) + 2.0f};
      const float length = n.length();
      n = {n.x / length, n.y / length, n.z / length};
      switch (element.type_)
      {
      case VertexDataType::FLOAT3:
        if (element.semantic_ == VertexSemantic::POSITION)
          n = {n.x * 100.0f, n.y * 100.0f, n.z * 100.0f};
        std::memcpy(out, &n, sizeof(n));
        break;
      case VertexDataType::PACKED_NORMAL:
      {
        const uint32_t word = packNormal111110(n);
        std::memcpy(out, &word, sizeof(word));
        break;
      }
      default:
        for (uint32_t i = 0; i < ari::getVertexDataTypeSize(element.type_); ++i)
          out[i] = static_cast<std::byte>(random());
      }
    }
  return data;
}

void convertFormat(benchmark::State& state, const char* name)
{
  const Moo::PrimitiveVertexFormat* entry = Moo::PrimitiveVertexFormat::findByFormatName(name);
  if (entry == nullptr)
  {
    state.SkipWithError("format not registered");
    return;
  }
  const std::vector<std::byte> source = makeSourceVertices(entry->m_format, kVertexCount);
  std::vector<std::byte> dest(kVertexCount * ari::VertexDeclaration::computeStreamDataSize(entry->m_gpuFormat, 0));
  for (auto _ : state)
  {
    const bool ok = Moo::convertVertices(dest.data(), entry->m_gpuFormat, source.data(), entry->m_format, kVertexCount);
    benchmark::DoNotOptimize(ok);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kVertexCount));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * source.size()));
}

} // namespace

int main(int argc, char** argv)
{
  Moo::PrimitiveVertexFormat::init(0);
  for (const char* name : kSourceFormats)
    benchmark::RegisterBenchmark((std::string("convertVertices/") + name).c_str(), convertFormat, name)
      ->Unit(benchmark::kMicrosecond);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  Moo::PrimitiveVertexFormat::fini();
  return 0;
}
