#pragma once
// A small software rasteriser for model previews: a fixed three-quarter view fitted to the model's
// bounds, lit by its normals, with no GPU and the same pixels on every machine.
//
// Why our own: the previews must be byte-identical across machines and builds (golden images in
// the tests, diffable reports), and a GPU or a software OpenGL stack gives no such promise across
// driver versions. Everything after the view transform is integer: vertices are snapped to a
// 1/16-pixel grid once, coverage uses exact 64-bit edge functions with a top-left fill rule, depth
// and shade are interpolated with the same integer weights. The few float steps (the view
// transform, the light) are plain IEEE operations in a fixed order, compiled without contraction.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace preview
{

// One drawable range: positions (and optionally normals) as x, y, z floats per vertex, and a
// triangle list indexing them.
struct Mesh
{
  std::vector<float> positions;
  std::vector<float> normals; // empty, or as many as positions; face normals are used without them
  std::vector<float> uvs;     // empty, or u, v per vertex (Mode::UvDensity)
  std::vector<uint32_t> indices;
  uint32_t renderSet = 0; // which render set it is (the colour in Mode::RenderSets)
};

enum class Mode
{
  Shaded,      // light grey, lit by the normals
  RenderSets,  // each render set in its own colour, lit
  VertexCache, // each triangle coloured by the vertices it adds to a 16-entry FIFO cache (0..3), lit
  Wireframe,   // as Shaded, with every visible triangle's edges drawn dark
  UvDensity,   // each triangle by its texel density against the model's median: blue at half or less,
               // green at the median, red at double or more; grey without UVs; lit
};

// The colour of a triangle whose texel density is `ratio` times the model's median (Mode::UvDensity).
std::array<uint8_t, 3> uvDensityColour(double ratio);

// Tightly packed 8-bit RGB, rows top to bottom.
struct Image
{
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> rgb;
};

// The box the view is fitted to; empty when no position is finite.
struct Bounds
{
  bool empty = true;
  double min[3] = {0, 0, 0};
  double max[3] = {0, 0, 0};

  void add(std::span<const Mesh> meshes);
};

// Compact previews (report pages with thousands of models) trade smoothness for size: no
// anti-aliasing and a few shades, so the PNG holds few colours and compresses well.
enum class Quality
{
  Smooth,
  Compact,
};

// Renders the meshes into a size × size image, fitted to `bounds`. Triangles with an index past
// their mesh's vertices or a non-finite corner are skipped, so any mesh can be passed. `size`
// must be at least 16 and at most 4096 (asserted).
[[nodiscard]] Image render(std::span<const Mesh> meshes, const Bounds& bounds, Mode mode, uint32_t size,
                           Quality quality = Quality::Smooth);

// Places the images side by side, left to right, with a thin separator; all must have the same
// height (asserted).
[[nodiscard]] Image sideBySide(std::span<const Image> images);

// The colour of render set `index` in Mode::RenderSets, as 8-bit RGB: ten chosen colours, then
// hues a golden angle apart, so that any number of sets can be told apart.
[[nodiscard]] std::array<uint8_t, 3> renderSetColour(size_t index);

// The number of vertices each triangle of `indices` adds to a 16-entry FIFO vertex cache that starts
// empty: 0 to 3 per triangle.
[[nodiscard]] std::vector<uint8_t> vertexCacheCosts(std::span<const uint32_t> indices);

} // namespace preview
