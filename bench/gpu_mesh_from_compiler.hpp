#pragma once
// Takes the converted, merged data of a model from the geometry compiler, so the benchmarks run the
// bare library on exactly what the compiler optimises and encodes.

#include "gpu_mesh.hpp"

#include <string>

namespace vertexmill_bench
{

// Loads a .primitives file the way the compiler does (reading, conversion to the GPU formats,
// verification, merging, index range checks) and fills `mesh` with the merged buffers and the
// render sets the compiler would optimise: every "X.indices" section paired with "X.vertices".
// Needs Moo::PrimitiveVertexFormat::init. False with `error` set when the compiler refuses the file
// or its state cannot be expressed as a GpuMesh.
[[nodiscard]] bool loadGpuMesh(const std::string& primitivesPath, GpuMesh& mesh, std::string& error);

} // namespace vertexmill_bench
