// bench_lod_floor MESH.gpumesh LEVELS RATIO ERROR
//
// The floor of the levels-of-detail work, as a whole process: reads the converted data of one model
// (written by bench_corpus_prepare) and makes only the simplifier calls the compiler makes for
// LEVELS levels (every level from the main model, each render set to RATIO^level of its
// triangles, borders locked, no further than ERROR of the model's size). Prints the triangles of
// the last level and the wall time of the calls alone:
//   triangles=N floor_us=N
// Exit status: 0 success, 1 bad command line, 2 unreadable input.

#include "gpu_mesh.hpp"

#include <meshoptimizer.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char** argv)
{
  if (argc != 5)
  {
    std::fputs("usage: bench_lod_floor MESH.gpumesh LEVELS RATIO ERROR\n", stderr);
    return 1;
  }
  vertexmill_bench::GpuMesh mesh;
  std::string error;
  if (!vertexmill_bench::readGpuMesh(argv[1], mesh, error))
  {
    std::fprintf(stderr, "bench_lod_floor: %s\n", error.c_str());
    return 2;
  }
  const int levels = std::atoi(argv[2]);
  const float ratio = static_cast<float>(std::atof(argv[3])), maxError = static_cast<float>(std::atof(argv[4]));

  const auto start = std::chrono::steady_clock::now();
  // The model's size: the largest side of the box around every render set's positions.
  float low[3] = {1e30f, 1e30f, 1e30f}, high[3] = {-1e30f, -1e30f, -1e30f};
  for (const auto& set : mesh.sets)
  {
    const auto& buffer = mesh.vertexBuffers[set.vertexBuffer];
    for (uint32_t v = 0; v < set.vertexCount; ++v)
    {
      float p[3];
      std::memcpy(p, buffer.bytes.data() + (size_t(set.firstVertex) + v) * buffer.stride, 12);
      for (int a = 0; a < 3; ++a)
      {
        low[a] = std::min(low[a], p[a]);
        high[a] = std::max(high[a], p[a]);
      }
    }
  }
  const float modelScale = std::max({high[0] - low[0], high[1] - low[1], high[2] - low[2]});
  size_t triangles = 0;
  for (int level = 1; level <= levels; ++level)
  {
    triangles = 0;
    for (const auto& set : mesh.sets)
    {
      const auto& buffer = mesh.vertexBuffers[set.vertexBuffer];
      const float* positions =
        reinterpret_cast<const float*>(buffer.bytes.data() + size_t(set.firstVertex) * buffer.stride);
      const uint32_t* indices = mesh.indexBuffers[set.indexBuffer].indices.data() + set.firstIndex;
      const float setScale = meshopt_simplifyScale(positions, set.vertexCount, buffer.stride);
      const size_t target = std::max<size_t>(3, size_t(std::llround(set.indexCount / 3 * std::pow(ratio, level))) * 3);
      std::vector<uint32_t> kept(set.indexCount);
      float reached = 0.0f;
      triangles += meshopt_simplify(kept.data(), indices, set.indexCount, positions, set.vertexCount, buffer.stride,
                                    std::min<size_t>(target, set.indexCount),
                                    setScale > 0 ? maxError * modelScale / setScale : 0.0f,
                                    meshopt_SimplifyLockBorder, &reached) /
                   3;
    }
  }
  const auto floor = std::chrono::steady_clock::now() - start;
  std::printf("triangles=%zu floor_us=%lld\n", triangles,
              static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(floor).count()));
  return 0;
}
