#pragma once
// Builds .primitives files for tests: vertex sections in the plain "xyznuv" layout (or raw
// bytes), index sections in "list"/"list32", written with the project's container writer.

#include "cstdmf/log_sinks.hpp"
#include "log_capture.hpp"
#include "cstdmf/platform.hpp"
#include "resmgr/bin_section.hpp"
#include "resmgr/binary_block.hpp"

#include <gtest/gtest.h>
#include <spdlog/logger.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace testutil
{

struct XyzNuv
{
  float px, py, pz;
  float nx, ny, nz;
  float u, v;
};

inline std::vector<std::byte> sectionHeader(const std::string& name, uint32_t count, size_t headerSize)
{
  std::vector<std::byte> bytes(headerSize);
  std::memcpy(bytes.data(), name.data(), name.size());
  std::memcpy(bytes.data() + 64, &count, 4);
  return bytes;
}

inline std::vector<std::byte> vertexSection(const std::vector<XyzNuv>& vertices, bool processed = false)
{
  std::vector<std::byte> bytes;
  if (processed)
  {
    bytes = sectionHeader("BPVT", 0, 68);
  }
  const auto header = sectionHeader("xyznuv", static_cast<uint32_t>(vertices.size()), 68);
  bytes.insert(bytes.end(), header.begin(), header.end());
  const size_t at = bytes.size();
  bytes.resize(at + vertices.size() * 32);
  if (!vertices.empty())
    std::memcpy(bytes.data() + at, vertices.data(), vertices.size() * 32);
  return bytes;
}

// A raw vertex section: format name, count and already laid-out source bytes.
inline std::vector<std::byte> rawVertexSection(const std::string& format, uint32_t count,
                                               const std::vector<std::byte>& payload)
{
  auto bytes = sectionHeader(format, count, 68);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

template <typename Index>
std::vector<std::byte> indexSection(const std::vector<Index>& indices)
{
  auto bytes = sectionHeader(sizeof(Index) == 2 ? "list" : "list32", static_cast<uint32_t>(indices.size()), 72);
  const size_t at = bytes.size();
  bytes.resize(at + indices.size() * sizeof(Index));
  if (!indices.empty())
    std::memcpy(bytes.data() + at, indices.data(), indices.size() * sizeof(Index));
  return bytes;
}

using Sections = std::vector<std::pair<std::string, std::vector<std::byte>>>;

inline std::vector<std::byte> container(const Sections& sections)
{
  std::vector<std::pair<std::string, BinaryPtr>> entries;
  for (const auto& [name, bytes] : sections)
    entries.emplace_back(name, BinaryPtr(new BinaryBlock(bytes.data(), bytes.size(), "test")));
  BinaryPtr block = writeBinSectionContainer(entries);
  const auto* data = reinterpret_cast<const std::byte*>(block->data());
  return std::vector<std::byte>(data, data + block->len());
}

inline void writeFile(const std::filesystem::path& path, const std::vector<std::byte>& bytes)
{
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<std::byte> readFile(const std::filesystem::path& path)
{
  std::ifstream in(path, std::ios::binary);
  std::vector<char> chars((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::byte> bytes(chars.size());
  if (!chars.empty())
    std::memcpy(bytes.data(), chars.data(), chars.size());
  return bytes;
}

// A grid of (n+1)×(n+1) vertices in the z = 0 plane, uv = position / n, normal +z.
inline std::vector<XyzNuv> gridVertices(int n, float scale = 1.0f)
{
  std::vector<XyzNuv> vertices;
  for (int y = 0; y <= n; ++y)
    for (int x = 0; x <= n; ++x)
      vertices.push_back({x * scale, y * scale, 0.0f, 0.0f, 0.0f, 1.0f, float(x) / n, float(y) / n});
  return vertices;
}

// The triangles of a grid of n columns (n+1 vertices a row) and `rows` rows (n when not given).
template <typename Index>
std::vector<Index> gridIndices(int n, int rows = -1)
{
  std::vector<Index> indices;
  for (int y = 0; y < (rows < 0 ? n : rows); ++y)
    for (int x = 0; x < n; ++x)
    {
      const Index a = static_cast<Index>(y * (n + 1) + x), b = static_cast<Index>(a + 1),
                  c = static_cast<Index>(a + n + 1), d = static_cast<Index>(c + 1);
      indices.insert(indices.end(), {a, b, d, a, d, c});
    }
  return indices;
}

// A fresh directory under the system's temporary directory, removed at the end.
struct TempDir
{
  std::filesystem::path path;
  explicit TempDir(const std::string& tag)
  {
    static int s_counter = 0;
    path = std::filesystem::temp_directory_path() /
           ("vertexmill-" + tag + "-" + std::to_string(platform::processId()) + "-" + std::to_string(s_counter++));
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
  }
  ~TempDir()
  {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

} // namespace testutil
