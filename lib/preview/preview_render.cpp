#include "preview/preview_render.hpp"

#include "cstdmf/debug.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace preview
{
namespace
{

// The view: turned 45 degrees about the vertical axis and looking 30 degrees down. The sines and
// cosines are written out rather than computed so no maths library can change a pixel.
constexpr double kCosYaw = 0.70710678118654752440;
constexpr double kSinYaw = 0.70710678118654752440;
constexpr double kCosPitch = 0.86602540378443864676;
constexpr double kSinPitch = 0.5;

// Screen axes and the direction towards the viewer, in model space.
constexpr double kRight[3] = {kCosYaw, 0.0, -kSinYaw};
constexpr double kUp[3] = {-kSinYaw * kSinPitch, kCosPitch, -kCosYaw * kSinPitch};
constexpr double kToViewer[3] = {kSinYaw * kCosPitch, kSinPitch, kCosYaw * kCosPitch};

// The light, in view space (right, up, towards the viewer): from the upper left, in front.
// Normalised: 0.4² + 0.6² + 0.6928203² = 1.
constexpr double kLight[3] = {-0.4, 0.6, 0.69282032302755091741};
constexpr int kAmbient = 64;  // of 256
constexpr int kDiffuse = 192; // of 256

constexpr int kSubpixelBits = 4;
constexpr int64_t kSubpixel = int64_t(1) << kSubpixelBits;
constexpr int kSmoothSamples = 2; // 2×2 samples per output pixel, averaged
constexpr int kCompactShades = 8; // light levels of a compact preview
constexpr int64_t kDepthRange = int64_t(1) << 20;
constexpr double kMargin = 0.06; // of the image on each side

constexpr std::array<uint8_t, 3> kBackground = {38, 42, 50};
constexpr std::array<uint8_t, 3> kSeparator = {90, 96, 108};
constexpr std::array<uint8_t, 3> kGrey = {214, 214, 208};
constexpr std::array<uint8_t, 3> kWire = {40, 70, 120};
constexpr std::array<std::array<uint8_t, 3>, 10> kSetColours = {{
  {{230, 159, 0}},
  {{86, 180, 233}},
  {{0, 158, 115}},
  {{240, 228, 66}},
  {{0, 114, 178}},
  {{213, 94, 0}},
  {{204, 121, 167}},
  {{150, 150, 150}},
  {{160, 220, 120}},
  {{255, 140, 140}},
}};
// 0, 1, 2 and 3 vertices added to the cache.
constexpr std::array<std::array<uint8_t, 3>, 4> kCacheColours = {{
  {{64, 176, 96}},
  {{226, 212, 72}},
  {{236, 140, 52}},
  {{214, 52, 52}},
}};

// sqrt(UV area / surface area) of a triangle: texels per unit of length when the texture is one
// unit wide; 0 when either area is nothing or not finite.
double texelDensity(const Mesh& mesh, uint32_t i0, uint32_t i1, uint32_t i2)
{
  const float* p0 = &mesh.positions[size_t(i0) * 3];
  const float* p1 = &mesh.positions[size_t(i1) * 3];
  const float* p2 = &mesh.positions[size_t(i2) * 3];
  const double e1[3] = {double(p1[0]) - p0[0], double(p1[1]) - p0[1], double(p1[2]) - p0[2]};
  const double e2[3] = {double(p2[0]) - p0[0], double(p2[1]) - p0[1], double(p2[2]) - p0[2]};
  const double cross[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
  const double surface = std::sqrt(cross[0] * cross[0] + cross[1] * cross[1] + cross[2] * cross[2]);
  const float* t0 = &mesh.uvs[size_t(i0) * 2];
  const float* t1 = &mesh.uvs[size_t(i1) * 2];
  const float* t2 = &mesh.uvs[size_t(i2) * 2];
  const double uv = std::fabs((double(t1[0]) - t0[0]) * (double(t2[1]) - t0[1]) - (double(t2[0]) - t0[0]) * (double(t1[1]) - t0[1]));
  const double density = surface > 0.0 ? std::sqrt(uv / surface) : 0.0;
  return std::isfinite(density) ? density : 0.0;
}

constexpr size_t kCacheSize = 16;

double dot(const double a[3], const double b[3])
{
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

bool finite3(const double v[3])
{
  return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

struct ScreenVertex
{
  int64_t x = 0; // 1/16 pixel of the supersampled image
  int64_t y = 0;
  int64_t depth = 0; // larger is nearer
  bool valid = false;
};

// Lambert with two-sided lighting (models do not agree on winding), as 0..256.
int shade(const double normal[3])
{
  const double length = std::sqrt(dot(normal, normal));
  if (!(length > 0.0) || !std::isfinite(length))
    return kAmbient + kDiffuse / 2;
  const double view[3] = {dot(normal, kRight) / length, dot(normal, kUp) / length, dot(normal, kToViewer) / length};
  const double lambert = std::fabs(dot(view, kLight));
  return kAmbient + static_cast<int>(std::floor(std::min(lambert, 1.0) * kDiffuse + 0.5));
}

class Rasteriser
{
public:
  // `shades`: the number of light levels kept, or 0 for all.
  Rasteriser(uint32_t size, int shades)
    : m_size(size), m_shades(shades), m_depth(size_t(size) * size, -1), m_colour(size_t(size) * size * 3)
  {
    for (size_t i = 0; i < m_depth.size(); ++i)
      std::copy(kBackground.begin(), kBackground.end(), m_colour.begin() + i * 3);
  }

  // With `wire`, samples within about one sample of an edge take the edge colour.
  void triangle(ScreenVertex a, ScreenVertex b, ScreenVertex c, std::array<int, 3> shades,
                const std::array<uint8_t, 3>& colour, bool wire = false)
  {
    int64_t area = edge(a, b, c.x, c.y);
    if (area == 0)
      return;
    if (area < 0)
    {
      std::swap(b, c);
      std::swap(shades[1], shades[2]);
      area = -area;
    }
    const int64_t limit = int64_t(m_size) * kSubpixel;
    const int64_t minX = std::max<int64_t>(std::min({a.x, b.x, c.x}), 0);
    const int64_t maxX = std::min<int64_t>(std::max({a.x, b.x, c.x}), limit - 1);
    const int64_t minY = std::max<int64_t>(std::min({a.y, b.y, c.y}), 0);
    const int64_t maxY = std::min<int64_t>(std::max({a.y, b.y, c.y}), limit - 1);
    if (minX > maxX || minY > maxY)
      return;
    // Pixel centres lie at (i + 1/2) pixels; the first and last centres inside the box.
    const int64_t half = kSubpixel / 2;
    const int64_t firstColumn = (minX - half + kSubpixel - 1) / kSubpixel;
    const int64_t lastColumn = (maxX - half) / kSubpixel;
    const int64_t firstRow = (minY - half + kSubpixel - 1) / kSubpixel;
    const int64_t lastRow = (maxY - half) / kSubpixel;
    const int64_t bias0 = isTopLeft(b, c) ? 0 : 1;
    const int64_t bias1 = isTopLeft(c, a) ? 0 : 1;
    const int64_t bias2 = isTopLeft(a, b) ? 0 : 1;
    // An edge's weight over its length is the distance to it, in sixteenths of a sample.
    const auto length = [](const ScreenVertex& from, const ScreenVertex& to) {
      return std::sqrt(double(to.x - from.x) * double(to.x - from.x) + double(to.y - from.y) * double(to.y - from.y));
    };
    const double lengths[3] = {length(b, c), length(c, a), length(a, b)};
    constexpr double kWireWidth = 0.9 * kSubpixel;
    for (int64_t row = std::max<int64_t>(firstRow, 0); row <= lastRow; ++row)
    {
      const int64_t py = row * kSubpixel + half;
      for (int64_t column = std::max<int64_t>(firstColumn, 0); column <= lastColumn; ++column)
      {
        const int64_t px = column * kSubpixel + half;
        const int64_t w0 = edge(b, c, px, py);
        const int64_t w1 = edge(c, a, px, py);
        const int64_t w2 = edge(a, b, px, py);
        if (w0 < bias0 || w1 < bias1 || w2 < bias2)
          continue;
        // Corners lie within twice the image (< 2^18 sixteenths), so the weights are below 2^38 and
        // the depths below 2^20: the sums stay below 2^60.
        const int64_t depth = (w0 * a.depth + w1 * b.depth + w2 * c.depth) / area;
        const size_t pixel = size_t(row) * m_size + size_t(column);
        if (depth <= m_depth[pixel])
          continue;
        m_depth[pixel] = depth;
        int64_t light = (w0 * shades[0] + w1 * shades[1] + w2 * shades[2]) / area;
        if (m_shades > 0)
        {
          const int64_t step = (kAmbient + kDiffuse) / m_shades;
          light = light / step * step + step / 2;
        }
        const bool onEdge = wire && (double(w0) < kWireWidth * lengths[0] || double(w1) < kWireWidth * lengths[1] ||
                                     double(w2) < kWireWidth * lengths[2]);
        for (int channel = 0; channel < 3; ++channel)
          m_colour[pixel * 3 + channel] =
            onEdge ? kWire[channel] : static_cast<uint8_t>(std::min<int64_t>(colour[channel] * light / 256, 255));
      }
    }
  }

  const std::vector<uint8_t>& colour() const { return m_colour; }

private:
  static int64_t edge(const ScreenVertex& from, const ScreenVertex& to, int64_t x, int64_t y)
  {
    return (to.x - from.x) * (y - from.y) - (to.y - from.y) * (x - from.x);
  }
  // The fill rule: a pixel centre exactly on an edge shared by two triangles belongs to one of them.
  static bool isTopLeft(const ScreenVertex& from, const ScreenVertex& to)
  {
    const int64_t dy = to.y - from.y;
    return dy > 0 || (dy == 0 && to.x < from.x);
  }

  uint32_t m_size;
  int m_shades;
  std::vector<int64_t> m_depth;
  std::vector<uint8_t> m_colour;
};

} // namespace

void Bounds::add(std::span<const Mesh> meshes)
{
  for (const Mesh& mesh : meshes)
  {
    for (size_t i = 0; i + 2 < mesh.positions.size(); i += 3)
    {
      const double p[3] = {mesh.positions[i], mesh.positions[i + 1], mesh.positions[i + 2]};
      if (!finite3(p))
        continue;
      for (int axis = 0; axis < 3; ++axis)
      {
        min[axis] = empty ? p[axis] : std::min(min[axis], p[axis]);
        max[axis] = empty ? p[axis] : std::max(max[axis], p[axis]);
      }
      empty = false;
    }
  }
}

std::array<uint8_t, 3> uvDensityColour(double ratio)
{
  // log2 of the ratio, clamped to [-1, 1]: blue (half or less), green (the median), red (double or
  // more), through cyan and yellow.
  const double t = std::clamp(std::isfinite(ratio) && ratio > 0.0 ? std::log2(ratio) : 0.0, -1.0, 1.0);
  const auto mix = [](const std::array<double, 3>& a, const std::array<double, 3>& b, double f) {
    return std::array<uint8_t, 3>{static_cast<uint8_t>(std::lround(a[0] + (b[0] - a[0]) * f)),
                                  static_cast<uint8_t>(std::lround(a[1] + (b[1] - a[1]) * f)),
                                  static_cast<uint8_t>(std::lround(a[2] + (b[2] - a[2]) * f))};
  };
  constexpr std::array<double, 3> kLow = {48, 96, 220}, kMedian = {64, 190, 80}, kHigh = {225, 60, 50};
  return t < 0.0 ? mix(kMedian, kLow, -t) : mix(kMedian, kHigh, t);
}

std::array<uint8_t, 3> renderSetColour(size_t index)
{
  if (index < kSetColours.size())
    return kSetColours[index];
  // Past the palette: hues a golden angle (137.5 degrees) apart, so that no two sets near each
  // other in the list look alike and no colour comes back, in three bands of saturation.
  const uint32_t hue = static_cast<uint32_t>((index * 1375u) % 3600u); // tenths of a degree
  const uint32_t saturation = 140 + 40 * static_cast<uint32_t>((index / kSetColours.size()) % 3); // of 255
  constexpr uint32_t kValue = 235;
  const uint32_t sector = hue / 600, within = hue % 600; // 60-degree sectors
  const uint32_t low = kValue * (255 - saturation) / 255;
  const uint32_t falling = kValue * (255 - saturation * within / 600) / 255;
  const uint32_t rising = kValue * (255 - saturation * (600 - within) / 600) / 255;
  const auto rgb = [](uint32_t r, uint32_t g, uint32_t b) {
    return std::array<uint8_t, 3>{uint8_t(r), uint8_t(g), uint8_t(b)};
  };
  switch (sector)
  {
  case 0: return rgb(kValue, rising, low);
  case 1: return rgb(falling, kValue, low);
  case 2: return rgb(low, kValue, rising);
  case 3: return rgb(low, falling, kValue);
  case 4: return rgb(rising, low, kValue);
  default: return rgb(kValue, low, falling);
  }
}

std::vector<uint8_t> vertexCacheCosts(std::span<const uint32_t> indices)
{
  std::vector<uint8_t> costs;
  costs.reserve(indices.size() / 3);
  std::array<uint32_t, kCacheSize> fifo{};
  size_t filled = 0;
  size_t next = 0; // the slot the next miss overwrites
  for (size_t t = 0; t + 2 < indices.size(); t += 3)
  {
    uint8_t misses = 0;
    for (size_t corner = 0; corner < 3; ++corner)
    {
      const uint32_t index = indices[t + corner];
      if (std::find(fifo.begin(), fifo.begin() + filled, index) != fifo.begin() + filled)
        continue;
      ++misses;
      fifo[next] = index;
      next = (next + 1) % kCacheSize;
      filled = std::min(filled + 1, kCacheSize);
    }
    costs.push_back(misses);
  }
  return costs;
}

Image render(std::span<const Mesh> meshes, const Bounds& bounds, Mode mode, uint32_t size, Quality quality)
{
  ZR_ASSERT(size >= 16 && size <= 4096);
  const int kSupersample = quality == Quality::Smooth ? kSmoothSamples : 1;
  const uint32_t samples = size * kSupersample;
  Rasteriser rasteriser(samples, quality == Quality::Compact ? kCompactShades : 0);

  if (!bounds.empty)
  {
    // Fit the box's projected corners into the image, keeping the aspect ratio.
    double lo[3] = {0, 0, 0};
    double hi[3] = {0, 0, 0};
    for (int corner = 0; corner < 8; ++corner)
    {
      const double p[3] = {(corner & 1) ? bounds.max[0] : bounds.min[0], (corner & 2) ? bounds.max[1] : bounds.min[1],
                           (corner & 4) ? bounds.max[2] : bounds.min[2]};
      const double v[3] = {dot(p, kRight), dot(p, kUp), dot(p, kToViewer)};
      for (int axis = 0; axis < 3; ++axis)
      {
        lo[axis] = corner == 0 ? v[axis] : std::min(lo[axis], v[axis]);
        hi[axis] = corner == 0 ? v[axis] : std::max(hi[axis], v[axis]);
      }
    }
    const double extent = std::max(hi[0] - lo[0], hi[1] - lo[1]);
    const double usable = samples * (1.0 - 2.0 * kMargin);
    const double scale = extent > 0.0 && std::isfinite(extent) ? usable / extent : 1.0;
    const double depthExtent = hi[2] - lo[2];
    const double depthScale = depthExtent > 0.0 && std::isfinite(depthExtent) ? (kDepthRange - 1) / depthExtent : 0.0;
    const double centreX = (lo[0] + hi[0]) / 2.0;
    const double centreY = (lo[1] + hi[1]) / 2.0;
    const double half = samples / 2.0;

    // The model's median texel density, the green of Mode::UvDensity.
    double medianDensity = 0.0;
    if (mode == Mode::UvDensity)
    {
      std::vector<double> densities;
      for (const Mesh& mesh : meshes)
      {
        const size_t vertexCount = mesh.positions.size() / 3;
        if (mesh.uvs.size() != vertexCount * 2)
          continue;
        for (size_t t = 0; t + 2 < mesh.indices.size(); t += 3)
          if (mesh.indices[t] < vertexCount && mesh.indices[t + 1] < vertexCount && mesh.indices[t + 2] < vertexCount)
            if (const double density = texelDensity(mesh, mesh.indices[t], mesh.indices[t + 1], mesh.indices[t + 2]);
                density > 0.0)
              densities.push_back(density);
      }
      if (!densities.empty())
      {
        std::nth_element(densities.begin(), densities.begin() + densities.size() / 2, densities.end());
        medianDensity = densities[densities.size() / 2];
      }
    }

    std::vector<ScreenVertex> screen;
    std::vector<int> shades;
    for (const Mesh& mesh : meshes)
    {
      const size_t vertexCount = mesh.positions.size() / 3;
      const bool hasNormals = mesh.normals.size() == mesh.positions.size();
      screen.assign(vertexCount, {});
      shades.assign(vertexCount, 0);
      for (size_t i = 0; i < vertexCount; ++i)
      {
        const double p[3] = {mesh.positions[i * 3], mesh.positions[i * 3 + 1], mesh.positions[i * 3 + 2]};
        if (!finite3(p))
          continue;
        const double sx = half + (dot(p, kRight) - centreX) * scale;
        const double sy = half - (dot(p, kUp) - centreY) * scale;
        const double sz = (dot(p, kToViewer) - lo[2]) * depthScale;
        // Far outside the image (a stray vertex) would overflow the edge functions; such
        // triangles are dropped.
        const double limit = samples * 2.0;
        if (!(std::fabs(sx) < limit && std::fabs(sy) < limit))
          continue;
        screen[i].x = static_cast<int64_t>(std::floor(sx * kSubpixel + 0.5));
        screen[i].y = static_cast<int64_t>(std::floor(sy * kSubpixel + 0.5));
        screen[i].depth = std::clamp<int64_t>(static_cast<int64_t>(std::floor(sz)), 0, kDepthRange - 1);
        screen[i].valid = true;
        if (hasNormals)
        {
          const double n[3] = {mesh.normals[i * 3], mesh.normals[i * 3 + 1], mesh.normals[i * 3 + 2]};
          shades[i] = shade(n);
        }
      }

      const std::vector<uint8_t> costs =
        mode == Mode::VertexCache ? vertexCacheCosts(mesh.indices) : std::vector<uint8_t>();
      const bool hasUvs = mesh.uvs.size() == vertexCount * 2;
      const std::array<uint8_t, 3> setColour = renderSetColour(mesh.renderSet);
      for (size_t t = 0; t + 2 < mesh.indices.size(); t += 3)
      {
        const uint32_t i0 = mesh.indices[t], i1 = mesh.indices[t + 1], i2 = mesh.indices[t + 2];
        if (i0 >= vertexCount || i1 >= vertexCount || i2 >= vertexCount)
          continue;
        if (!screen[i0].valid || !screen[i1].valid || !screen[i2].valid)
          continue;
        std::array<int, 3> triangleShades = {shades[i0], shades[i1], shades[i2]};
        if (!hasNormals)
        {
          const float* p0 = &mesh.positions[size_t(i0) * 3];
          const float* p1 = &mesh.positions[size_t(i1) * 3];
          const float* p2 = &mesh.positions[size_t(i2) * 3];
          const double e1[3] = {double(p1[0]) - p0[0], double(p1[1]) - p0[1], double(p1[2]) - p0[2]};
          const double e2[3] = {double(p2[0]) - p0[0], double(p2[1]) - p0[1], double(p2[2]) - p0[2]};
          const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                               e1[0] * e2[1] - e1[1] * e2[0]};
          const int flat = shade(n);
          triangleShades = {flat, flat, flat};
        }
        std::array<uint8_t, 3> colour = mode == Mode::VertexCache ? kCacheColours[costs[t / 3]]
                                        : mode == Mode::RenderSets ? setColour
                                                                   : kGrey;
        if (mode == Mode::UvDensity && hasUvs && medianDensity > 0.0)
        {
          const double density = texelDensity(mesh, i0, i1, i2);
          if (density > 0.0)
            colour = uvDensityColour(density / medianDensity);
        }
        rasteriser.triangle(screen[i0], screen[i1], screen[i2], triangleShades, colour, mode == Mode::Wireframe);
      }
    }
  }

  // Average each 2×2 block of samples.
  Image image;
  image.width = size;
  image.height = size;
  image.rgb.resize(size_t(size) * size * 3);
  const std::vector<uint8_t>& colour = rasteriser.colour();
  for (uint32_t y = 0; y < size; ++y)
    for (uint32_t x = 0; x < size; ++x)
      for (int channel = 0; channel < 3; ++channel)
      {
        unsigned sum = 0;
        for (int sy = 0; sy < kSupersample; ++sy)
          for (int sx = 0; sx < kSupersample; ++sx)
            sum += colour[((size_t(y) * kSupersample + sy) * samples + size_t(x) * kSupersample + sx) * 3 + channel];
        image.rgb[(size_t(y) * size + x) * 3 + channel] =
          static_cast<uint8_t>((sum + kSupersample * kSupersample / 2) / (kSupersample * kSupersample));
      }
  return image;
}

Image sideBySide(std::span<const Image> images)
{
  constexpr uint32_t kGap = 2;
  Image result;
  if (images.empty())
    return result;
  result.height = images[0].height;
  for (const Image& image : images)
  {
    ZR_ASSERT(image.height == result.height);
    result.width += image.width;
  }
  result.width += kGap * uint32_t(images.size() - 1);
  result.rgb.resize(size_t(result.width) * result.height * 3);
  for (size_t i = 0; i < result.rgb.size(); i += 3)
    std::copy(kSeparator.begin(), kSeparator.end(), result.rgb.begin() + i);
  uint32_t left = 0;
  for (const Image& image : images)
  {
    for (uint32_t y = 0; y < image.height; ++y)
      std::copy_n(image.rgb.begin() + size_t(y) * image.width * 3, size_t(image.width) * 3,
                  result.rgb.begin() + (size_t(y) * result.width + left) * 3);
    left += image.width + kGap;
  }
  return result;
}

} // namespace preview
