// Arbitrary bytes as a .primitives file through the whole conversion, in memory. Either the
// compiler refuses the model or the .geometry bytes it made load back with the reader, with a
// vertex and an index mapping for every section it converted.
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
  return 0;
}
