// Arbitrary bytes as a .primitives file through the whole conversion. Either the compiler refuses
// the file (and leaves nothing in the output directory) or the .geometry file it wrote loads back
// with the reader, with a vertex and an index mapping for every section it converted.
//
// Normals that cannot be packed are refused as data errors here, so that they end one input
// rather than the fuzzer.

#include "geometry_compiler/geometry_compiler.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/platform.hpp"
#include "moo/geometry_data.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <spdlog/logger.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace
{

void check(bool condition)
{
  if (!condition)
    std::abort();
}

struct Workspace
{
  std::filesystem::path directory;
  std::string sourcePath;
  std::string outputPath;

  Workspace()
  {
    // tmpfs where there is one: every input is written and read back once.
    std::error_code error;
    std::filesystem::path base = "/dev/shm";
    if (!std::filesystem::is_directory(base, error))
      base = std::filesystem::temp_directory_path();
    directory = base / ("vertexmill-fuzz-" + std::to_string(platform::processId()));
    std::filesystem::remove_all(directory, error);
    std::filesystem::create_directories(directory);
    sourcePath = (directory / "model.primitives").string();
    outputPath = (directory / "out" / "model.geometry").string();
    std::filesystem::create_directories(directory / "out");
    Moo::PrimitiveVertexFormat::init(0);
    cstdmf::appLogger().set_level(spdlog::level::off);
  }
  ~Workspace()
  {
    std::error_code error;
    std::filesystem::remove_all(directory, error);
  }
};

Workspace& workspace()
{
  static Workspace s_workspace;
  return s_workspace;
}

bool writeFile(const std::string& path, const uint8_t* data, size_t size)
{
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file)
    return false;
  const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
  return std::fclose(file) == 0 && written;
}

size_t entriesIn(const std::filesystem::path& directory)
{
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory))
    ++count;
  return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  Workspace& space = workspace();
  check(writeFile(space.sourcePath, data, size));

  GeometryCompiler compiler;
  compiler.setRefuseUnpackableNormals(true);
  CompileStatistics statistics;
  compiler.setStatistics(&statistics);
  GeometryCompiler::Request request;
  request.primitivesPath = space.sourcePath;
  request.modelName = "model";
  const bool compiled = compiler.compile(request, space.outputPath, true, true, true);

  std::error_code error;
  if (!compiled)
  {
    check(entriesIn(space.directory / "out") == 0);
    return 0;
  }
  check(entriesIn(space.directory / "out") == 1);
  const uintmax_t outputSize = std::filesystem::file_size(space.outputPath, error);
  check(!error && outputSize == statistics.outputBytes);

  std::vector<uint8_t> bytes(static_cast<size_t>(outputSize));
  std::FILE* file = std::fopen(space.outputPath.c_str(), "rb");
  check(file != nullptr);
  check(std::fread(bytes.data(), 1, bytes.size(), file) == bytes.size());
  std::fclose(file);
  std::filesystem::remove(space.outputPath, error);

  Moo::GeometryData geometry;
  check(geometry.load(BinaryPtr(new BinaryBlock(bytes.data(), bytes.size(), "Fuzz")), "fuzz.geometry"));
  check(geometry.verticesMapping().size() == compiler.vertexMappings().size());
  check(geometry.indicesMapping().size() == compiler.indexMappings().size());
  for (size_t i = 0; i < geometry.verticesMapping().size(); ++i)
  {
    Moo::GeometryData::VertexRange range;
    check(geometry.fetchVerticesById(geometry.verticesMapping()[i].mappingId, range, i));
  }
  return 0;
}
