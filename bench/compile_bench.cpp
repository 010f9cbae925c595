// Whole-model compilation over the mesh corpus, beside the bare library on the same data.
//
// At start-up every corpus OBJ (the folder given by VERTEXMILL_CORPUS, else the one beside the
// repository) is imported once, in format xyznuvtb as primitives_from_obj does by default, to a
// .primitives file in a temporary folder. Then per model:
//   compile/<model>  GeometryCompiler::compile as the tool runs it (encode, optimise, verify; one
//                    job; file read and write included). Each iteration also runs the five bare
//                    meshoptimizer calls on a fresh copy of the same converted data, untimed for
//                    the Time column, and reports them as counters: bare_ms, and ratio = compile
//                    time / bare time summed over the same iterations, so both sides of the ratio
//                    saw the same machine load.
//   meshopt/<model>  the five bare calls alone (Time column), for reference.
// Before timing, one untimed compile per model checks that the bare calls produce the same encoded
// sizes as the compiler, i.e. that they really are the same calls on the same data.

#include "gpu_mesh.hpp"
#include "gpu_mesh_from_compiler.hpp"

#include "cstdmf/log_sinks.hpp"
#include "geometry_compiler/geometry_compiler.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "primitives_from_obj/mesh_builder.hpp"
#include "primitives_from_obj/obj_reader.hpp"
#include "primitives_from_obj/primitives_writer.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#ifndef VERTEXMILL_CORPUS_DIR
#define VERTEXMILL_CORPUS_DIR ""
#endif

namespace
{

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kSourceFormat = "xyznuvtb";

struct Model
{
  std::string name;
  std::string primitivesPath;
  std::string outputPath;
  VertexmillBench::GpuMesh converted; // before optimisation: each run starts from a copy
  uint64_t triangles = 0;
};

double seconds(Clock::duration duration)
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
  VertexmillBench::GpuMesh mesh = model.converted;
  const VertexmillBench::EncodedSizes bare = VertexmillBench::runMeshoptimizer(mesh);
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
  double compileTotal = 0.0;
  double bareTotal = 0.0;
  for (auto _ : state)
  {
    const Clock::time_point start = Clock::now();
    const bool compiled = compileModel(*model, nullptr);
    const Clock::duration compileTime = Clock::now() - start;
    if (!compiled)
    {
      state.SkipWithError("compile failed");
      break;
    }

    VertexmillBench::GpuMesh mesh = model->converted;
    const Clock::time_point bareStart = Clock::now();
    const VertexmillBench::EncodedSizes sizes = VertexmillBench::runMeshoptimizer(mesh);
    const Clock::duration bareTime = Clock::now() - bareStart;
    benchmark::DoNotOptimize(sizes);

    state.SetIterationTime(seconds(compileTime));
    compileTotal += seconds(compileTime);
    bareTotal += seconds(bareTime);
  }
  if (bareTotal > 0.0 && state.iterations() > 0)
  {
    state.counters["triangles"] = double(model->triangles);
    state.counters["Mtri/s"] = double(model->triangles) * double(state.iterations()) / compileTotal / 1e6;
    state.counters["bare_ms"] = bareTotal / double(state.iterations()) * 1e3;
    state.counters["ratio"] = compileTotal / bareTotal;
  }
}

void bareBenchmark(benchmark::State& state, const Model* model)
{
  for (auto _ : state)
  {
    VertexmillBench::GpuMesh mesh = model->converted;
    const Clock::time_point start = Clock::now();
    const VertexmillBench::EncodedSizes sizes = VertexmillBench::runMeshoptimizer(mesh);
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
        !VertexmillBench::loadGpuMesh(model->primitivesPath, model->converted, message))
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
