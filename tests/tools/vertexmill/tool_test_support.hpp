#pragma once
// Runs the built vertexmill as a child process, and builds the models and trees it is given.

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "resmgr/bin_section.hpp"
#include "resmgr/binary_block.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace vertexmill_test
{
constexpr const char* kToolPath = VERTEXMILL_TOOL_PATH;
// The tool with a worker fault hook (VERTEXMILL_WORKER_FAULT), for the robustness tests.
constexpr const char* kFaultyToolPath = VERTEXMILL_FAULTY_TOOL_PATH;
constexpr const char* kEmptyArguments = "ERROR: empty arguments not allowed ( use . as current directory )\n";

struct RunResult
{
  int status = -1;
  std::string out;
  std::string err;
};

inline std::string readFile(const fs::path& path)
{
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

inline void writeFile(const fs::path& path, const std::string& bytes)
{
  fs::create_directories(path.parent_path());
  std::ofstream stream(path, std::ios::binary);
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// For the tests that need a POSIX shell (a terminal from script(1), another user from setpriv).
inline std::string shellQuote(const std::string& text)
{
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// std::system gives a wait status on POSIX hosts: the exit code in bits 8..15 after a normal exit,
// the signal number in bits 0..6 otherwise.
inline int exitStatusOf(int systemResult)
{
  if ((systemResult & 0x7F) != 0)
    return 1000 + (systemResult & 0x7F);
  return (systemResult >> 8) & 0xFF;
}

inline std::string osMessage(std::errc code)
{
  return std::make_error_code(code).message();
}

inline void appendPod(std::string& bytes, const void* data, size_t size)
{
  bytes.append(static_cast<const char*>(data), size);
}

inline std::string formatName(const char* name)
{
  std::string bytes(64, '\0');
  std::memcpy(bytes.data(), name, std::strlen(name));
  return bytes;
}

inline BinaryPtr blockOf(const std::string& bytes)
{
  return BinaryPtr(new BinaryBlock(bytes.data(), bytes.size(), "test"));
}

// A valid model: one triangle per render set, "xyznuv" vertices (position, unit normal, uv) and
// "list" indices. With zeroNormals the normals are (0, 0, 0): the model is still written, and the
// verifier warns about every set.
inline std::string validPrimitives(const std::vector<std::string>& setNames = {"hull"}, bool zeroNormals = false)
{
  std::vector<std::pair<std::string, BinaryPtr>> entries;
  for (const std::string& set : setNames)
  {
    std::string vertices = formatName("xyznuv");
    const uint32_t vertexCount = 3;
    appendPod(vertices, &vertexCount, 4);
    const float corners[3][2] = {{0.0f, 0.0f}, {1.0f, 0.0f}, {0.0f, 1.0f}};
    for (const auto& corner : corners)
    {
      const float vertex[8] = {corner[0], corner[1], 0.5f, 0.0f, 0.0f, zeroNormals ? 0.0f : 1.0f, corner[0], corner[1]};
      appendPod(vertices, vertex, sizeof(vertex));
    }

    std::string indices = formatName("list");
    const uint32_t indexCount = 3;
    appendPod(indices, &indexCount, 4);
    const uint32_t unused = 0;
    appendPod(indices, &unused, 4);
    const uint16_t triangle[3] = {0, 1, 2};
    appendPod(indices, triangle, sizeof(triangle));

    entries.emplace_back(set + ".vertices", blockOf(vertices));
    entries.emplace_back(set + ".indices", blockOf(indices));
  }
  const BinaryPtr container = writeBinSectionContainer(entries);
  EXPECT_TRUE(container);
  return container ? std::string(container->data(), container->len()) : std::string();
}

// A model worth simplifying: one render set, a gently curved sheet of n x n quads.
inline std::string sheetPrimitives(int n)
{
  std::string vertices = formatName("xyznuv");
  const uint32_t vertexCount = static_cast<uint32_t>((n + 1) * (n + 1));
  appendPod(vertices, &vertexCount, 4);
  for (int y = 0; y <= n; ++y)
    for (int x = 0; x <= n; ++x)
    {
      const float vertex[8] = {float(x), float(y), 0.5f * std::sin(x * 0.2f) * std::cos(y * 0.1f), 0.0f, 0.0f, 1.0f,
                               float(x) / n, float(y) / n};
      appendPod(vertices, vertex, sizeof(vertex));
    }
  std::string indices = formatName("list");
  const uint32_t indexCount = static_cast<uint32_t>(n * n * 6);
  appendPod(indices, &indexCount, 4);
  const uint32_t unused = 0;
  appendPod(indices, &unused, 4);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x)
    {
      const uint16_t a = static_cast<uint16_t>(y * (n + 1) + x), b = a + 1, c = static_cast<uint16_t>(a + n + 1),
                     d = c + 1;
      const uint16_t quad[6] = {a, b, d, a, d, c};
      appendPod(indices, quad, sizeof(quad));
    }
  const BinaryPtr container =
    writeBinSectionContainer({{"sheet.vertices", blockOf(vertices)}, {"sheet.indices", blockOf(indices)}});
  return container ? std::string(container->data(), container->len()) : std::string();
}

// Not a section container at all: the compiler refuses it.
inline const std::string kInvalidPrimitives = "this is not a section container, just some text";

inline std::string u8(const fs::path& path)
{
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

// The used-files list that --verbose prints for one model.
inline std::string usedFiles(const std::string& source, const std::string& output)
{
  return source + "\n\n==> " + output + "\n\n";
}

inline bool endsWith(const std::string& text, const std::string& suffix)
{
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

inline uint32_t readU32(const std::string& bytes, size_t offset)
{
  uint32_t value = 0;
  if (offset + 4 <= bytes.size())
    std::memcpy(&value, bytes.data() + offset, 4);
  return value;
}

class VertexmillTool : public ::testing::Test
{
protected:
  void SetUp() override
  {
    static std::atomic<int> s_counter{0};
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    m_root = fs::temp_directory_path() / ("vertexmill_test_" + std::to_string(platform::processId()) + "_" +
                                          std::to_string(s_counter++) + "_" + info->name());
    fs::remove_all(m_root);
    fs::create_directories(m_root / "io");
    m_work = m_root / "w";
    fs::create_directories(m_work);
    // The tool's temporary files and crash reports go below the test's own folder; anyone may
    // write there, as in the system's (a test runs the tool as another user too).
    fs::create_directories(m_root / "tmp");
    fs::permissions(m_root / "tmp", fs::perms::all | fs::perms::sticky_bit);
    for (const char* name : kTemporaryDirectoryVariables)
    {
      const char* value = std::getenv(name);
      m_savedEnvironment.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
      setEnvironment(name, u8(m_root / "tmp"));
    }
  }

  void TearDown() override
  {
    for (const auto& [name, value] : m_savedEnvironment)
      setEnvironment(name.c_str(), value);
    m_savedEnvironment.clear();
    std::error_code error;
    fs::remove_all(m_root, error);
  }

  // A crash report the tool wrote during the test.
  std::vector<fs::path> crashReports() const
  {
    std::vector<fs::path> reports;
    for (const auto& entry : fs::directory_iterator(m_root / "tmp"))
      if (cstdmf::toUtf8(entry.path().filename()).find("_crash_") != std::string::npos)
        reports.push_back(entry.path());
    return reports;
  }

  RunResult run(const std::vector<std::string>& args, const fs::path& workingDirectory = {},
                const std::string& tool = kToolPath)
  {
    const fs::path outFile = m_root / "io" / "stdout.txt";
    const fs::path errFile = m_root / "io" / "stderr.txt";
    // Absolute before the child changes directory. Under Wine this also turns the build host's
    // "/work/..." into "Z:/work/...", which stays valid from any drive.
    const std::string program = u8(fs::absolute(cstdmf::u8path(tool)));
    // Under Wine a child that has just ended may still hold the output files for a moment, and the
    // next child's cannot be opened: a start that failed is tried again before it counts.
    std::optional<int> status;
    for (int attempt = 0; attempt < 5 && !status; ++attempt)
    {
      if (attempt > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(200 * attempt));
      status = platform::runProcess(program, args, {u8(outFile), u8(errFile), u8(workingDirectory)});
    }
    EXPECT_TRUE(status.has_value()) << "cannot run " << program;
    RunResult result;
    result.status = status.value_or(-1000);
    result.out = readFile(outFile);
    result.err = readFile(errFile);
    return result;
  }

  fs::path path(const std::string& relative) const { return m_work / cstdmf::u8path(relative); }
  // The path as the tool shows it: with the platform's own separators.
  std::string str(const std::string& relative) const { return u8(path(relative).make_preferred()); }

  fs::path m_root;
  fs::path m_work;

private:
#ifdef _WIN32
  static constexpr const char* kTemporaryDirectoryVariables[] = {"TMP", "TEMP"};
#else
  static constexpr const char* kTemporaryDirectoryVariables[] = {"TMPDIR"};
#endif
  static void setEnvironment(const char* name, const std::optional<std::string>& value)
  {
    platform::setEnvironmentVariable(name, value);
  }
  std::vector<std::pair<std::string, std::optional<std::string>>> m_savedEnvironment;
};

} // namespace vertexmill_test
