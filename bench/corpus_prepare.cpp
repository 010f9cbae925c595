// bench_corpus_prepare MODEL.primitives OUT.gpumesh
//
// Untimed step of the whole-corpus run: loads a model with the geometry compiler (conversion to
// the GPU formats, merging) and stores the data its optimiser and encoders would work on, for
// bench_corpus_bare. Prints one line of figures the corpus script reads:
//   sets=N vertices=N triangles=N raw_bytes=N
// where raw_bytes is the merged vertex bytes plus index bytes at the widths the compiler stores.
// Exit status: 0 success, 1 bad command line, 2 the model or the output failed.

#include "gpu_mesh_from_compiler.hpp"

#include "cstdmf/log_sinks.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <cstdio>
#include <string>

int main(int argc, char** argv)
{
  if (argc != 3)
  {
    std::fputs("usage: bench_corpus_prepare MODEL.primitives OUT.gpumesh\n", stderr);
    return 1;
  }
  cstdmf::setupConsoleLogging(1);
  Moo::PrimitiveVertexFormat::init(0);
  vertexmill_bench::GpuMesh mesh;
  std::string error;
  const bool done = vertexmill_bench::loadGpuMesh(argv[1], mesh, error) &&
                    vertexmill_bench::writeGpuMesh(argv[2], mesh, error);
  Moo::PrimitiveVertexFormat::fini();
  if (!done)
  {
    std::fprintf(stderr, "bench_corpus_prepare: %s\n", error.c_str());
    return 2;
  }
  unsigned long long vertices = 0;
  for (const auto& set : mesh.sets)
    vertices += set.vertexCount;
  std::printf("sets=%zu vertices=%llu triangles=%llu raw_bytes=%llu\n", mesh.sets.size(), vertices,
              static_cast<unsigned long long>(mesh.triangleCount()),
              static_cast<unsigned long long>(mesh.rawBytes()));
  return 0;
}
