// bench_corpus_bare MESH.gpumesh
//
// The bare-library baseline of the whole-corpus run, as a whole process: reads the converted data
// of one model (written by bench_corpus_prepare) and makes only the five meshoptimizer calls the
// compiler makes on it (vertex cache, overdraw, vertex fetch per render set; vertex and index
// encoding per merged buffer). It links nothing of the product, so its process start and file
// reading are as cheap as they get. Prints the encoded sizes and the wall time of the five calls
// alone, measured in-process (the floor a whole conversion is compared with):
//   encoded_vertex_bytes=N encoded_index_bytes=N floor_us=N
// Exit status: 0 success, 1 bad command line, 2 unreadable input.

#include "gpu_mesh.hpp"

#include <chrono>
#include <cstdio>
#include <string>

int main(int argc, char** argv)
{
  if (argc != 2)
  {
    std::fputs("usage: bench_corpus_bare MESH.gpumesh\n", stderr);
    return 1;
  }
  vertexmill_bench::GpuMesh mesh;
  std::string error;
  if (!vertexmill_bench::readGpuMesh(argv[1], mesh, error))
  {
    std::fprintf(stderr, "bench_corpus_bare: %s\n", error.c_str());
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  const vertexmill_bench::EncodedSizes sizes = vertexmill_bench::runMeshoptimizer(mesh);
  const auto floor = std::chrono::steady_clock::now() - start;
  std::printf("encoded_vertex_bytes=%llu encoded_index_bytes=%llu floor_us=%lld\n",
              static_cast<unsigned long long>(sizes.vertexBytes), static_cast<unsigned long long>(sizes.indexBytes),
              static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(floor).count()));
  return 0;
}
