// The preview rasteriser and its PNG files, on meshes built here.

#include "preview/png_image.hpp"
#include "preview/preview_render.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

namespace
{

// A flat n × n grid in the x-z plane, all normals up.
preview::Mesh grid(uint32_t n)
{
  preview::Mesh mesh;
  for (uint32_t z = 0; z <= n; ++z)
    for (uint32_t x = 0; x <= n; ++x)
    {
      mesh.positions.insert(mesh.positions.end(), {float(x) / n, 0.0f, float(z) / n});
      mesh.normals.insert(mesh.normals.end(), {0.0f, 1.0f, 0.0f});
    }
  for (uint32_t z = 0; z < n; ++z)
    for (uint32_t x = 0; x < n; ++x)
    {
      const uint32_t a = z * (n + 1) + x, b = a + 1, c = a + n + 1, d = c + 1;
      mesh.indices.insert(mesh.indices.end(), {a, c, b, b, c, d});
    }
  return mesh;
}

std::array<uint8_t, 3> pixel(const preview::Image& image, uint32_t x, uint32_t y)
{
  const size_t at = (size_t(y) * image.width + x) * 3;
  return {image.rgb[at], image.rgb[at + 1], image.rgb[at + 2]};
}

preview::Image renderOne(const preview::Mesh& mesh, preview::Mode mode = preview::Mode::Shaded, uint32_t size = 64)
{
  preview::Bounds bounds;
  bounds.add(std::span(&mesh, 1));
  return preview::render(std::span(&mesh, 1), bounds, mode, size);
}

TEST(PreviewRender, VertexCacheCostsFollowASixteenEntryFifo)
{
  EXPECT_EQ(preview::vertexCacheCosts(std::vector<uint32_t>{0, 1, 2, 0, 2, 3, 4, 5, 6, 3, 4, 0}),
            (std::vector<uint8_t>{3, 1, 3, 0}));
  // Vertices 0 to 15 fill the cache; vertex 16 pushes out the oldest, vertex 0.
  std::vector<uint32_t> indices{0, 1, 2};
  for (uint32_t v = 3; v < 16; ++v)
    indices.insert(indices.end(), {v, v, v});
  indices.insert(indices.end(), {0, 0, 0, 16, 16, 16, 0, 0, 0});
  const std::vector<uint8_t> costs = preview::vertexCacheCosts(indices);
  ASSERT_EQ(costs.size(), 17u);
  EXPECT_EQ(costs[14], 0) << "vertex 0 is still cached after 15 more";
  EXPECT_EQ(costs[15], 1);
  EXPECT_EQ(costs[16], 1) << "vertex 0 was pushed out";
  EXPECT_TRUE(preview::vertexCacheCosts(std::vector<uint32_t>{1, 2}).empty());
}

TEST(PreviewRender, SharedEdgesLeaveNoCracks)
{
  // A fine grid seen at an angle: every triangle edge inside it is shared. A pixel inside the grid's
  // silhouette left at the background colour is a crack between two triangles.
  const preview::Image image = renderOne(grid(24), preview::Mode::Shaded, 96);
  const auto background = pixel(image, 0, 0);
  size_t covered = 0, cracks = 0;
  for (uint32_t y = 1; y + 1 < image.height; ++y)
    for (uint32_t x = 1; x + 1 < image.width; ++x)
    {
      if (pixel(image, x, y) != background)
      {
        ++covered;
        continue;
      }
      const bool enclosed = pixel(image, x - 1, y) != background && pixel(image, x + 1, y) != background &&
                            pixel(image, x, y - 1) != background && pixel(image, x, y + 1) != background;
      cracks += enclosed;
    }
  EXPECT_GT(covered, image.width * image.height / 8);
  EXPECT_EQ(cracks, 0u);
}

TEST(PreviewRender, ModesColourTheSameCoverage)
{
  preview::Mesh a = grid(4);
  preview::Mesh b = grid(4);
  for (size_t i = 0; i < b.positions.size(); i += 3)
    b.positions[i + 1] += 0.5f; // above a
  b.renderSet = 1;
  const preview::Mesh meshes[] = {a, b};
  preview::Bounds bounds;
  bounds.add(meshes);
  const preview::Image shaded = preview::render(meshes, bounds, preview::Mode::Shaded, 64);
  const preview::Image sets = preview::render(meshes, bounds, preview::Mode::RenderSets, 64);
  const preview::Image cache = preview::render(meshes, bounds, preview::Mode::VertexCache, 64);
  const preview::Image wire = preview::render(meshes, bounds, preview::Mode::Wireframe, 64);
  const auto background = pixel(shaded, 0, 0);
  std::set<std::array<uint8_t, 3>> setColours;
  for (uint32_t y = 0; y < 64; ++y)
    for (uint32_t x = 0; x < 64; ++x)
    {
      const bool drawn = pixel(shaded, x, y) != background;
      EXPECT_EQ(drawn, pixel(sets, x, y) != background) << x << "," << y;
      EXPECT_EQ(drawn, pixel(cache, x, y) != background) << x << "," << y;
      EXPECT_EQ(drawn, pixel(wire, x, y) != background) << x << "," << y;
      if (drawn)
        setColours.insert(pixel(sets, x, y));
    }
  // Two render sets (and their blended edges) in different colours, where shaded is one grey.
  EXPECT_GE(setColours.size(), 2u);
  EXPECT_NE(preview::renderSetColour(0), preview::renderSetColour(1));
}

TEST(PreviewRender, WireframeDrawsTheEdgesOverTheShadedSurface)
{
  // Pixels where the wireframe differs from the shaded picture are edges: more triangles, more of them.
  const auto edgePixels = [](uint32_t n) {
    const preview::Image shaded = renderOne(grid(n), preview::Mode::Shaded, 128);
    const preview::Image wire = renderOne(grid(n), preview::Mode::Wireframe, 128);
    size_t differing = 0;
    for (uint32_t y = 0; y < 128; ++y)
      for (uint32_t x = 0; x < 128; ++x)
        differing += pixel(shaded, x, y) != pixel(wire, x, y);
    return differing;
  };
  const size_t coarse = edgePixels(2), fine = edgePixels(8);
  EXPECT_GT(coarse, 0u);
  EXPECT_GT(fine, coarse * 2);
  EXPECT_LT(fine, size_t(128) * 128 / 2); // the surface still shows between the edges
}

// UV density: a grid whose left half has its texture squeezed into half the room (half the
// density) shows two colours, the dense half warmer than the sparse one; without UVs it is grey.
TEST(PreviewRender, UvDensityColoursTrianglesAgainstTheModelsMedian)
{
  EXPECT_EQ(preview::uvDensityColour(0.5), preview::uvDensityColour(0.1)); // clamped at half
  EXPECT_EQ(preview::uvDensityColour(2.0), preview::uvDensityColour(50.0)); // and at double
  EXPECT_EQ(preview::uvDensityColour(std::nan("")), preview::uvDensityColour(1.0));
  EXPECT_GT(preview::uvDensityColour(0.5)[2], preview::uvDensityColour(0.5)[0]); // blue
  EXPECT_GT(preview::uvDensityColour(2.0)[0], preview::uvDensityColour(2.0)[2]); // red

  preview::Mesh mesh = grid(8);
  const preview::Image grey = renderOne(mesh, preview::Mode::UvDensity, 64);
  EXPECT_EQ(grey.rgb, renderOne(mesh, preview::Mode::Shaded, 64).rgb);
  for (size_t i = 0; i < mesh.positions.size(); i += 3)
  {
    const float x = mesh.positions[i], z = mesh.positions[i + 2];
    // x < 0.5 keeps its UVs at half scale: a quarter of the UV area, half the density.
    const float scale = x <= 0.5f ? 0.5f : 1.0f;
    const float u = x <= 0.5f ? x * scale : 0.25f + (x - 0.5f);
    mesh.uvs.insert(mesh.uvs.end(), {u, z * scale});
  }
  const preview::Image density = renderOne(mesh, preview::Mode::UvDensity, 64);
  std::set<std::array<uint8_t, 3>> colours;
  int redder = 0;
  const auto background = pixel(grey, 0, 0);
  for (uint32_t y = 0; y < 64; ++y)
    for (uint32_t x = 0; x < 64; ++x)
      if (pixel(grey, x, y) != background)
      {
        EXPECT_NE(pixel(density, x, y), pixel(grey, x, y)) << x << "," << y;
        colours.insert(pixel(density, x, y));
        const auto c = pixel(density, x, y);
        redder += c[0] > c[2] ? 1 : -1;
      }
  EXPECT_GE(colours.size(), 2u);
  EXPECT_NE(redder, 0); // one half warm, the other cool: not all one colour
}

TEST(PreviewRender, BrokenMeshesDrawWhatTheyCanAndNeverFail)
{
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  preview::Mesh mesh = grid(2);
  mesh.indices.insert(mesh.indices.end(), {0, 1, 99, 7}); // past the vertices, and a partial triangle
  mesh.positions[0] = nan;
  mesh.positions[4] = inf;
  mesh.normals.clear();
  const preview::Image image = renderOne(mesh);
  EXPECT_EQ(image.rgb.size(), 64u * 64u * 3u);

  // A stray vertex far away: the bounds fit it, the image stays well formed.
  preview::Mesh stray = grid(2);
  stray.positions[0] = 3.0e38f;
  (void)renderOne(stray);

  // Nothing finite: an empty picture.
  preview::Mesh empty;
  empty.positions = {nan, nan, nan, nan, nan, nan, nan, nan, nan};
  empty.indices = {0, 1, 2};
  const preview::Image blank = renderOne(empty);
  const auto first = pixel(blank, 0, 0);
  for (uint32_t y = 0; y < blank.height; ++y)
    for (uint32_t x = 0; x < blank.width; ++x)
      ASSERT_EQ(pixel(blank, x, y), first);
}

TEST(PreviewPng, RoundTripSideBySideAndEveryTruncation)
{
  const preview::Image panels[] = {renderOne(grid(3), preview::Mode::Shaded, 32),
                                   renderOne(grid(3), preview::Mode::VertexCache, 32)};
  const preview::Image pair = preview::sideBySide(panels);
  ASSERT_EQ(pair.width, 66u); // two panels and a 2-pixel separator
  EXPECT_EQ(pixel(pair, 40, 16), pixel(panels[1], 6, 16));

  std::vector<uint8_t> png;
  std::string error;
  ASSERT_TRUE(preview::encodePng(pair, png, error)) << error;
  preview::Image back;
  ASSERT_TRUE(preview::decodePng(png, back, error)) << error;
  EXPECT_EQ(back.width, pair.width);
  EXPECT_EQ(back.height, pair.height);
  EXPECT_EQ(back.rgb, pair.rgb);

  for (size_t size = 0; size < png.size(); ++size)
    ASSERT_FALSE(preview::decodePng(std::span(png.data(), size), back, error)) << size;
  EXPECT_FALSE(preview::encodePng(preview::Image{}, png, error));
}

} // namespace
