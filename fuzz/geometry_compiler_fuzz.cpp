// Arbitrary bytes as a .primitives file through the whole conversion, in memory. Either the
// compiler refuses the model or the .geometry bytes it made load back with the reader, with a
// vertex and an index mapping for every section it converted; so does every level of detail it
// made, which two inputs in three ask for.
//
// Normals that cannot be packed are refused as data errors here, so that they end one input
// rather than the fuzzer.

#include "geometry_compiler/geometry_compiler.hpp"
#include "cstdmf/debug.hpp"
#include "moo/geometry_data.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <spdlog/logger.h>

#include <cstdint>
#include <cstdlib>

namespace
{

void check(bool condition)
{
  if (!condition)
    std::abort();
}

bool setUp()
{
  Moo::PrimitiveVertexFormat::init(0);
  cstdmf::appLogger().set_level(spdlog::level::off);
  return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static const bool s_ready = setUp();
  (void)s_ready;

  GeometryCompiler compiler;
  CompileStatistics statistics;
  compiler.setStatistics(&statistics);
  GeometryCompiler::ModelBytes model;
  model.primitivesPath = "model.primitives";
  model.primitives = BinaryPtr(new BinaryBlock(data, size, "Fuzz"));
  model.modelName = "model";
  CompileOptions options;
  options.refuseUnpackableNormals = true;
  options.lods.levels = static_cast<unsigned>(size % 3);
  const BinaryPtr packed = compiler.compileBytes(model, "model.geometry", options);
  if (!packed)
    return 0;
  check(packed->len() == statistics.outputBytes);

  Moo::GeometryData geometry;
  check(geometry.load(packed, "fuzz.geometry"));
  check(geometry.verticesMapping().size() == compiler.vertexMappings().size());
  check(geometry.indicesMapping().size() == compiler.indexMappings().size());
  for (size_t i = 0; i < geometry.verticesMapping().size(); ++i)
  {
    Moo::GeometryData::VertexRange range;
    check(geometry.fetchVerticesById(geometry.verticesMapping()[i].mappingId, range, i));
  }
  check(compiler.levels().size() <= options.lods.levels);
  for (const GeometryCompiler::Level& level : compiler.levels())
  {
    Moo::GeometryData levelGeometry;
    check(levelGeometry.load(level.bytes, "fuzz_lod.geometry"));
    check(levelGeometry.verticesMapping().size() == geometry.verticesMapping().size());
    check(levelGeometry.indicesMapping().size() == geometry.indicesMapping().size());
  }
  return 0;
}
