// Whole-model compilation over the mesh corpus, beside the bare library on the same data.
//
// At start-up every corpus OBJ (the folder given by VERTEXMILL_CORPUS, else the one beside the
// repository) is imported once, in format xyznuvtb as primitives_from_obj does by default, to a
// .primitives file in a temporary folder. Then per model:
//   compile/<model>  GeometryCompiler::compile as the tool runs it (encode, optimise, verify; one
//                    job; file read and write included). Each iteration also runs, outside the
//                    Time column, the five bare meshoptimizer calls on a fresh copy of the same
//                    converted data, and the compiler's stages one by one on the same model, and
//                    reports them as counters (milliseconds per iteration):
//                      bare_ms     the five bare calls;
//                      ratio       compile time / bare time, summed over the same iterations, so
//                                  both sides saw the same machine load;
//                      cpu_compile_ms, cpu_bare_ms, cpu_ratio
//                                  the same in CPU time of the benchmark thread (user and
//                                  system), which a loaded machine disturbs far less;
//                      read_ms, pack_ms, save_ms
//                                  one more compile, run as its three public steps, each timed:
//                                  readFile (file read, section split), packLOD (conversion,
//                                  verification, texel density, merging, index range checks) and
//                                  save (optimisation, encoding, packing, writing the file);
//                      convert_ms  Moo::convertVertices of every vertex section, with its buffer;
//                      verify_ms   the verifier over the converted vertices;
//                      texel_ms    Moo::Utils::calculateTexelDensity of every render set;
//                      mdo_ms      the compiler's own MeshDataOptimizer wrappers (optimizeMeshData,
//                                  encodeVertexData, encodeIndexData) on the stored index widths:
//                                  the five calls plus widening, narrowing and copies.
//                    The stage counters are CPU time of the benchmark thread. The last four run
//                    alone on the same data, so pack_ms minus them estimates merging and index
//                    checks, and save_ms minus mdo_ms packing and writing.
//   meshopt/<model>  the five bare calls alone (Time column), for reference.
// Before timing, one untimed compile per model checks that the bare calls produce the same encoded
// sizes as the compiler, i.e. that they really are the same calls on the same data.

#include "gpu_mesh.hpp"
#include "gpu_mesh_from_compiler.hpp"

#include "cstdmf/log_sinks.hpp"
#include "geometry_compiler/geometry_compiler.hpp"
#include "geometry_compiler/texel_density.hpp"
#include "geometry_compiler/verifier.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "mesh_data_optimizer/optimizer.hpp"
#include "moo/index_format.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "moo/vertex_conversion.hpp"
#include "moo/vertex_section.hpp"
#include "primitives_from_obj/mesh_builder.hpp"
#include "primitives_from_obj/obj_reader.hpp"
#include "primitives_from_obj/primitives_writer.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <time.h>

#ifndef VERTEXMILL_CORPUS_DIR
#define VERTEXMILL_CORPUS_DIR ""
#endif

namespace
{

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// CPU time of the calling thread (user and system). The compiler runs with one job, so all its
// work is on this thread; on a loaded machine this varies far less than wall time.
struct ThreadCpuClock
{
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<ThreadCpuClock>;
  static constexpr bool is_steady = true;
  static time_point now()
  {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return time_point(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
  }
};

constexpr const char* kSourceFormat = "xyznuvtb";

// A source vertex section as the file holds it, for timing the conversion alone.
struct SourceSection
{
  const Moo::PrimitiveVertexFormat* format = nullptr;
  std::vector<std::byte> payload;
  uint32_t vertexCount = 0;
  uint32_t gpuStride = 0;
};

// The merged buffers as the compiler stores them before optimisation (indices at their stored
// width), for timing the compiler's own stages.
struct StoredMesh
{
  std::vector<std::vector<std::byte>> vertexBuffers;
  std::vector<const Moo::VertexFormat*> gpuFormats; // per vertex buffer
  std::vector<std::vector<std::byte>> indexBuffers;
  std::vector<IndexFormat> indexFormats; // per index buffer
};

struct Model
{
  std::string name;
  std::string primitivesPath;
  std::string outputPath;
  vertexmill_bench::GpuMesh converted; // before optimisation: each run starts from a copy
  uint64_t triangles = 0;
  std::vector<SourceSection> sources;
  StoredMesh stored;
};

template <typename Duration>
double seconds(Duration duration)
{
  return std::chrono::duration<double>(duration).count();
}

fs::path corpusDirectory()
{
  if (const char* overridden = std::getenv("VERTEXMILL_CORPUS"); overridden && *overridden)
    return overridden;
  return VERTEXMILL_CORPUS_DIR;
}

// "koala" for koala.obj and merged_scene for merged_scene.obj.gz; empty for other files.
std::string modelNameOf(const fs::path& path)
{
  std::string name = path.filename().string();
  for (const char* suffix : {".obj.gz", ".obj"})
  {
    const std::string end = suffix;
    if (name.size() > end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0)
      return name.substr(0, name.size() - end.size());
  }
  return {};
}

bool importModel(const fs::path& objPath, const std::string& primitivesPath, std::string& error)
{
  const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName(kSourceFormat);
  if (!format)
  {
    error = "format xyznuvtb is not registered";
    return false;
  }
  objimport::ObjMesh mesh;
  if (!objimport::loadObj(objPath.string(), mesh, error))
    return false;
  objimport::BuildOptions options;
  options.tangentFrames = objimport::needsTangentFrames(*format);
  const std::vector<objimport::RenderSet> sets = objimport::buildRenderSets(mesh, options);
  const BinaryPtr container = objimport::encodePrimitives(sets, *format, error);
  return container && objimport::writeFileReplacing(primitivesPath, container->data(), container->len(), error);
}

std::span<const std::byte> bytesOf(const BinaryPtr& block)
{
  return {reinterpret_cast<const std::byte*>(block->data()), block->len()};
}

// Fills model.sources and model.stored from the .primitives file and model.converted.
bool prepareStages(Model& model, std::string& error)
{
  GeometryCompiler compiler;
  GeometryCompiler::BinFile file;
  if (!compiler.readFile(model.primitivesPath, file))
  {
    error = "cannot read " + model.primitivesPath;
    return false;
  }
  for (const auto& [name, block] : file.children)
  {
    if (!name.ends_with(".vertices"))
      continue;
    Moo::VertexSectionHeader header;
    if (!Moo::readVertexSectionHeader(bytesOf(block), name, header))
      return false;
    SourceSection section;
    section.format = Moo::PrimitiveVertexFormat::findByFormatName(header.formatName);
    if (!section.format)
    {
      error = "unknown format " + header.formatName;
      return false;
    }
    const uint32_t sourceStride = ari::VertexDeclaration::computeStreamDataSize(section.format->m_format, 0);
    if (!Moo::checkVertexPayload(header, sourceStride, name))
      return false;
    section.payload.assign(header.payload.begin(), header.payload.end());
    section.vertexCount = header.vertexCount;
    section.gpuStride = ari::VertexDeclaration::computeStreamDataSize(section.format->m_gpuFormat, 0);
    model.sources.push_back(std::move(section));
  }

  for (const vertexmill_bench::GpuMesh::VertexBuffer& buffer : model.converted.vertexBuffers)
  {
    const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByGPUFormatName(buffer.gpuFormatName);
    if (!format)
    {
      error = "unknown GPU format " + buffer.gpuFormatName;
      return false;
    }
    model.stored.vertexBuffers.push_back(buffer.bytes);
    model.stored.gpuFormats.push_back(&format->m_gpuFormat);
  }
  for (const vertexmill_bench::GpuMesh::IndexBuffer& buffer : model.converted.indexBuffers)
  {
    std::vector<std::byte> bytes(buffer.indices.size() * buffer.storedIndexSize);
    for (size_t i = 0; i < buffer.indices.size(); ++i)
    {
      if (buffer.storedIndexSize == 2)
      {
        const uint16_t narrow = static_cast<uint16_t>(buffer.indices[i]);
        std::memcpy(bytes.data() + i * 2, &narrow, 2);
      }
      else
        std::memcpy(bytes.data() + i * 4, &buffer.indices[i], 4);
    }
    model.stored.indexBuffers.push_back(std::move(bytes));
    model.stored.indexFormats.push_back(buffer.storedIndexSize == 2 ? IndexFormat::LIST : IndexFormat::LIST32);
  }
  return true;
}

// The byte ranges of one render set inside the stored buffers.
struct SetRanges
{
  std::span<std::byte> vertices;
  std::span<std::byte> indices;
};

SetRanges rangesOf(StoredMesh& stored, const vertexmill_bench::GpuMesh::RenderSet& set, uint32_t stride,
                   uint32_t indexSize)
{
  return {std::span<std::byte>(stored.vertexBuffers[set.vertexBuffer])
            .subspan(size_t(set.firstVertex) * stride, size_t(set.vertexCount) * stride),
          std::span<std::byte>(stored.indexBuffers[set.indexBuffer])
            .subspan(size_t(set.firstIndex) * indexSize, size_t(set.indexCount) * indexSize)};
}

struct StageTimes
{
  double read = 0, pack = 0, save = 0, convert = 0, verify = 0, texel = 0, mdo = 0;
};

// Runs the compiler's stages one by one, each timed alone (thread CPU time), on the model's data.
void runStages(const Model& model, StageTimes& times)
{
  // compile() without companions is exactly these three steps with the default settings.
  {
    GeometryCompiler compiler;
    GeometryCompiler::BinFile file;
    ThreadCpuClock::time_point start = ThreadCpuClock::now();
    bool done = compiler.readFile(model.primitivesPath, file);
    ThreadCpuClock::time_point end = ThreadCpuClock::now();
    times.read += seconds(end - start);
    done = done && compiler.packLOD(file);
    file.children.clear();
    start = ThreadCpuClock::now();
    times.pack += seconds(start - end);
    done = done && compiler.save(model.outputPath);
    times.save += seconds(ThreadCpuClock::now() - start);
    benchmark::DoNotOptimize(done);
  }

  ThreadCpuClock::time_point start = ThreadCpuClock::now();
  for (const SourceSection& section : model.sources)
  {
    std::vector<std::byte> converted(size_t(section.vertexCount) * section.gpuStride);
    const bool done = Moo::convertVertices(converted.data(), section.format->m_gpuFormat, section.payload.data(),
                                           section.format->m_format, section.vertexCount);
    benchmark::DoNotOptimize(done);
    benchmark::DoNotOptimize(converted.data());
  }
  times.convert += seconds(ThreadCpuClock::now() - start);

  const vertexmill_bench::GpuMesh& mesh = model.converted;
  StoredMesh stored = model.stored; // optimisation works in place
  start = ThreadCpuClock::now();
  for (const vertexmill_bench::GpuMesh::RenderSet& set : mesh.sets)
  {
    const uint32_t stride = mesh.vertexBuffers[set.vertexBuffer].stride;
    const SetRanges ranges = rangesOf(stored, set, stride, mesh.indexBuffers[set.indexBuffer].storedIndexSize);
    Verifier verifier;
    verifier.verify(ranges.vertices.data(), ranges.vertices.size(), *stored.gpuFormats[set.vertexBuffer]);
    benchmark::DoNotOptimize(verifier.invalidPositions());
  }
  times.verify += seconds(ThreadCpuClock::now() - start);

  start = ThreadCpuClock::now();
  for (const vertexmill_bench::GpuMesh::RenderSet& set : mesh.sets)
  {
    const uint32_t stride = mesh.vertexBuffers[set.vertexBuffer].stride;
    const SetRanges ranges = rangesOf(stored, set, stride, mesh.indexBuffers[set.indexBuffer].storedIndexSize);
    const float density = Moo::Utils::calculateTexelDensity(*stored.gpuFormats[set.vertexBuffer], ranges.vertices,
                                                            ranges.indices, stored.indexFormats[set.indexBuffer]);
    benchmark::DoNotOptimize(density);
  }
  times.texel += seconds(ThreadCpuClock::now() - start);

  start = ThreadCpuClock::now();
  for (const vertexmill_bench::GpuMesh::RenderSet& set : mesh.sets)
  {
    const uint32_t stride = mesh.vertexBuffers[set.vertexBuffer].stride;
    const SetRanges ranges = rangesOf(stored, set, stride, mesh.indexBuffers[set.indexBuffer].storedIndexSize);
    if (stored.indexFormats[set.indexBuffer] == IndexFormat::LIST)
      MeshDataOptimizer::optimizeMeshData<uint16_t>(
        ranges.vertices, stride,
        std::span<uint16_t>(reinterpret_cast<uint16_t*>(ranges.indices.data()), ranges.indices.size() / 2));
    else
      MeshDataOptimizer::optimizeMeshData<uint32_t>(
        ranges.vertices, stride,
        std::span<uint32_t>(reinterpret_cast<uint32_t*>(ranges.indices.data()), ranges.indices.size() / 4));
  }
  for (size_t b = 0; b < stored.vertexBuffers.size(); ++b)
  {
    const auto encoded = MeshDataOptimizer::encodeVertexData(stored.vertexBuffers[b], mesh.vertexBuffers[b].stride);
    benchmark::DoNotOptimize(encoded.data());
  }
  for (size_t b = 0; b < stored.indexBuffers.size(); ++b)
  {
    size_t vertexCount = 0;
    for (const vertexmill_bench::GpuMesh::RenderSet& set : mesh.sets)
      if (set.indexBuffer == b)
        vertexCount = std::max<size_t>(vertexCount, set.vertexCount);
    const std::vector<std::byte>& bytes = stored.indexBuffers[b];
    const auto encoded =
      stored.indexFormats[b] == IndexFormat::LIST
        ? MeshDataOptimizer::encodeIndexData<uint16_t>(
            std::span<const uint16_t>(reinterpret_cast<const uint16_t*>(bytes.data()), bytes.size() / 2), vertexCount)
        : MeshDataOptimizer::encodeIndexData<uint32_t>(
            std::span<const uint32_t>(reinterpret_cast<const uint32_t*>(bytes.data()), bytes.size() / 4), vertexCount);
    benchmark::DoNotOptimize(encoded.data());
  }
  times.mdo += seconds(ThreadCpuClock::now() - start);
}

bool compileModel(const Model& model, CompileStatistics* statistics)
{
  GeometryCompiler compiler;
  compiler.setStatistics(statistics);
  GeometryCompiler::Request request;
  request.primitivesPath = model.primitivesPath;
  request.modelName = model.name;
  return compiler.compile(request, model.outputPath, true, true, true);
}

// One untimed compile with statistics: do the bare calls give the compiler's encoded sizes?
bool sameEncodedSizes(const Model& model)
{
  CompileStatistics statistics;
  if (!compileModel(model, &statistics))
    return false;
  uint64_t vertexBytes = 0, indexBytes = 0;
  for (const CompileStatistics::Buffer& buffer : statistics.buffers)
    (buffer.kind == "vertices" ? vertexBytes : indexBytes) += buffer.storedBytes - 8; // less the header
  vertexmill_bench::GpuMesh mesh = model.converted;
  const vertexmill_bench::EncodedSizes bare = vertexmill_bench::runMeshoptimizer(mesh);
  std::printf("%-22s %2zu sets %9llu triangles  raw %10llu B  encoded by compiler %9llu + %8llu B, bare %9llu + "
              "%8llu B, output file %10llu B\n",
              model.name.c_str(), model.converted.sets.size(), static_cast<unsigned long long>(model.triangles),
              static_cast<unsigned long long>(model.converted.rawBytes()),
              static_cast<unsigned long long>(vertexBytes), static_cast<unsigned long long>(indexBytes),
              static_cast<unsigned long long>(bare.vertexBytes), static_cast<unsigned long long>(bare.indexBytes),
              static_cast<unsigned long long>(statistics.outputBytes));
  return bare.vertexBytes == vertexBytes && bare.indexBytes == indexBytes;
}

void compileBenchmark(benchmark::State& state, const Model* model)
{
  double compileTotal = 0.0, compileCpuTotal = 0.0;
  double bareTotal = 0.0, bareCpuTotal = 0.0;
  StageTimes stages;
  for (auto _ : state)
  {
    const Clock::time_point start = Clock::now();
    const ThreadCpuClock::time_point cpuStart = ThreadCpuClock::now();
    const bool compiled = compileModel(*model, nullptr);
    const ThreadCpuClock::duration compileCpuTime = ThreadCpuClock::now() - cpuStart;
    const Clock::duration compileTime = Clock::now() - start;
    if (!compiled)
    {
      state.SkipWithError("compile failed");
      break;
    }

    vertexmill_bench::GpuMesh mesh = model->converted;
    const Clock::time_point bareStart = Clock::now();
    const ThreadCpuClock::time_point bareCpuStart = ThreadCpuClock::now();
    const vertexmill_bench::EncodedSizes sizes = vertexmill_bench::runMeshoptimizer(mesh);
    const ThreadCpuClock::duration bareCpuTime = ThreadCpuClock::now() - bareCpuStart;
    const Clock::duration bareTime = Clock::now() - bareStart;
    benchmark::DoNotOptimize(sizes);

    runStages(*model, stages);

    state.SetIterationTime(seconds(compileTime));
    compileTotal += seconds(compileTime);
    compileCpuTotal += seconds(compileCpuTime);
    bareTotal += seconds(bareTime);
    bareCpuTotal += seconds(bareCpuTime);
  }
  if (bareTotal > 0.0 && bareCpuTotal > 0.0 && state.iterations() > 0)
  {
    const double perIteration = 1e3 / double(state.iterations());
    state.counters["triangles"] = double(model->triangles);
    state.counters["Mtri/s"] = double(model->triangles) * double(state.iterations()) / compileTotal / 1e6;
    state.counters["bare_ms"] = bareTotal * perIteration;
    state.counters["ratio"] = compileTotal / bareTotal;
    state.counters["cpu_compile_ms"] = compileCpuTotal * perIteration;
    state.counters["cpu_bare_ms"] = bareCpuTotal * perIteration;
    state.counters["cpu_ratio"] = compileCpuTotal / bareCpuTotal;
    state.counters["read_ms"] = stages.read * perIteration;
    state.counters["pack_ms"] = stages.pack * perIteration;
    state.counters["save_ms"] = stages.save * perIteration;
    state.counters["convert_ms"] = stages.convert * perIteration;
    state.counters["verify_ms"] = stages.verify * perIteration;
    state.counters["texel_ms"] = stages.texel * perIteration;
    state.counters["mdo_ms"] = stages.mdo * perIteration;
  }
}

void bareBenchmark(benchmark::State& state, const Model* model)
{
  for (auto _ : state)
  {
    vertexmill_bench::GpuMesh mesh = model->converted;
    const Clock::time_point start = Clock::now();
    const vertexmill_bench::EncodedSizes sizes = vertexmill_bench::runMeshoptimizer(mesh);
    state.SetIterationTime(seconds(Clock::now() - start));
    benchmark::DoNotOptimize(sizes);
  }
  state.counters["triangles"] = double(model->triangles);
}

// The temporary folder and everything in it go at exit.
struct TemporaryFolder
{
  fs::path path;
  ~TemporaryFolder()
  {
    std::error_code ignored;
    if (!path.empty())
      fs::remove_all(path, ignored);
  }
};

} // namespace

int main(int argc, char** argv)
{
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;

  const fs::path corpus = corpusDirectory();
  std::error_code error;
  if (corpus.empty() || !fs::is_directory(corpus, error))
  {
    std::printf("bench_compile: no mesh corpus at '%s' (set VERTEXMILL_CORPUS); nothing to measure.\n",
                corpus.string().c_str());
    return 0;
  }

  cstdmf::setupConsoleLogging(1); // as the tool: warnings and errors on standard error
  Moo::PrimitiveVertexFormat::init(0);

  TemporaryFolder folder;
  std::string pattern = (fs::temp_directory_path() / "vertexmill_bench_compile_XXXXXX").string();
  if (!mkdtemp(pattern.data()))
  {
    std::fprintf(stderr, "bench_compile: cannot create a temporary folder\n");
    return 1;
  }
  folder.path = pattern;

  std::vector<fs::path> objFiles;
  for (const fs::directory_entry& entry : fs::directory_iterator(corpus, error))
    if (entry.is_regular_file() && !modelNameOf(entry.path()).empty())
      objFiles.push_back(entry.path());

  std::vector<std::unique_ptr<Model>> models;
  bool allSame = true;
  for (const fs::path& objFile : objFiles)
  {
    auto model = std::make_unique<Model>();
    model->name = modelNameOf(objFile);
    model->primitivesPath = (folder.path / (model->name + ".primitives")).string();
    model->outputPath = (folder.path / (model->name + ".geometry")).string();
    std::string message;
    if (!importModel(objFile, model->primitivesPath, message) ||
        !vertexmill_bench::loadGpuMesh(model->primitivesPath, model->converted, message) ||
        !prepareStages(*model, message))
    {
      std::fprintf(stderr, "bench_compile: skipping %s: %s\n", objFile.string().c_str(), message.c_str());
      continue;
    }
    model->triangles = model->converted.triangleCount();
    models.push_back(std::move(model));
  }
  std::sort(models.begin(), models.end(), [](const auto& a, const auto& b) { return a->triangles < b->triangles; });

  std::printf("Same calls, same data: encoded sizes of the compiler and of the bare calls\n");
  for (const auto& model : models)
    if (!sameEncodedSizes(*model))
    {
      std::printf("  MISMATCH for %s: the bare calls are not what the compiler does\n", model->name.c_str());
      allSame = false;
    }
  std::printf("\n");
  std::fflush(stdout);

  for (const auto& model : models)
  {
    benchmark::RegisterBenchmark(("compile/" + model->name).c_str(), compileBenchmark, model.get())
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("meshopt/" + model->name).c_str(), bareBenchmark, model.get())
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  models.clear();
  Moo::PrimitiveVertexFormat::fini();
  return allSame ? 0 : 2;
}
