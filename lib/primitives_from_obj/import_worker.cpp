#include "primitives_from_obj/import_worker.hpp"

#include "primitives_from_obj/mesh_builder.hpp"
#include "primitives_from_obj/obj_reader.hpp"
#include "primitives_from_obj/primitives_writer.hpp"
#include "primitives_from_obj/scene_reader.hpp"

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <fmt/format.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <vector>

namespace objimport
{

namespace
{

constexpr int kWorkerFailed = 3;

std::string trimmed(std::string text)
{
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
    text.pop_back();
  return text;
}

// The three files of one child, in a folder of its own in the system's temporary directory,
// removed with everything in it on destruction: a worker killed while writing its result leaves
// that write's temporary file there too.
class WorkerFiles
{
public:
  WorkerFiles()
  {
    static std::atomic<unsigned> counter{0};
    std::error_code ec;
    m_directory = std::filesystem::temp_directory_path(ec) /
                  fmt::format("primitives_import_{}_{}", platform::processId(),
                              counter.fetch_add(1, std::memory_order_relaxed));
    std::filesystem::create_directories(m_directory, ec);
    m_result = cstdmf::toUtf8(m_directory / "result.primitives");
    m_out = cstdmf::toUtf8(m_directory / "worker.out");
    m_err = cstdmf::toUtf8(m_directory / "worker.err");
  }
  ~WorkerFiles()
  {
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
  }
  WorkerFiles(const WorkerFiles&) = delete;
  WorkerFiles& operator=(const WorkerFiles&) = delete;

  const std::string& result() const { return m_result; }
  const std::string& out() const { return m_out; }
  const std::string& err() const { return m_err; }

private:
  std::filesystem::path m_directory;
  std::string m_result, m_out, m_err;
};

std::string readText(const std::string& path)
{
  std::vector<char> bytes;
  std::string ignored;
  if (!readFileBytes(path, bytes, ignored))
    return {};
  return std::string(bytes.begin(), bytes.end());
}

struct FormatRegistry
{
  FormatRegistry() { Moo::PrimitiveVertexFormat::init(0); }
  ~FormatRegistry() { Moo::PrimitiveVertexFormat::fini(); }
  FormatRegistry(const FormatRegistry&) = delete;
  FormatRegistry& operator=(const FormatRegistry&) = delete;
};

} // namespace

int runImportWorker(int argc, char** argv)
{
  if (argc < 5)
  {
    std::fputs("ERROR: the import worker needs INPUT RESULT FORMAT\n", stderr);
    return 1;
  }
  const std::string input = argv[2], result = argv[3], forced = argv[4];
  const bool flipV = argc > 5 && std::string_view(argv[5]) == "--flip-v";

  SceneImport scene;
  std::string error;
  if (!readScene(input, flipV, scene, error))
  {
    std::fprintf(stderr, "ERROR: %s\n", error.c_str());
    return kWorkerFailed;
  }
  FormatRegistry registry;
  const std::string formatName = forced == "auto" ? chooseFormatName(scene.skinned, scene.twoTexcoordSets) : forced;
  const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName(formatName);
  if (format == nullptr)
  {
    std::fprintf(stderr, "ERROR: unknown vertex format '%s'\n", formatName.c_str());
    return kWorkerFailed;
  }
  WorkerSummary summary;
  summary.formatName = formatName;
  summary.formatRead = scene.formatRead;
  summary.skinned = scene.skinned;
  summary.sets = scene.sets.size();
  for (RenderSet& set : scene.sets)
  {
    if (needsTangentFrames(*format))
      computeTangentFrames(set);
    summary.vertices += set.vertexCount();
    summary.triangles += set.indices.size() / 3;
  }
  const BinaryPtr container = encodePrimitives(scene.sets, *format, error);
  if (!container)
  {
    std::fprintf(stderr, "ERROR: %s: %s\n", input.c_str(), error.c_str());
    return kWorkerFailed;
  }
  if (!writeFileReplacing(result, container->data(), container->len(), error))
  {
    std::fprintf(stderr, "ERROR: %s\n", error.c_str());
    return kWorkerFailed;
  }
  // One line for the parent: counts, skinned, format written, then the format read (may have blanks).
  std::printf("%zu %zu %zu %d %s %s\n", summary.sets, summary.vertices, summary.triangles, summary.skinned ? 1 : 0,
              summary.formatName.c_str(), summary.formatRead.c_str());
  return 0;
}

BinaryPtr importInChild(const std::string& program, const WorkerRequest& request, WorkerSummary& summary,
                        std::string& error)
{
  const WorkerFiles files;
  std::vector<std::string> arguments = {std::string(kWorkerOption), request.input, files.result(),
                                        request.format.empty() ? std::string("auto") : request.format};
  if (request.flipV)
    arguments.emplace_back("--flip-v");
  const platform::ChildIo io{files.out(), files.err(), {}, 0};
  platform::ChildLimits limits;
  limits.timeoutMilliseconds = request.timeLimitSeconds * 1000u;
  limits.memoryBytes = request.memoryLimitBytes;
  const platform::ChildRun run = platform::runLimitedProcess(program, arguments, io, limits);
  const std::optional<int> status = run.started && !run.timedOut ? std::optional<int>(run.status) : std::nullopt;
  if (run.timedOut)
  {
    error = fmt::format("ERROR: {}: the import did not finish within {} seconds and was stopped (--time-limit)",
                        request.input, request.timeLimitSeconds);
    return nullptr;
  }
  if (!status)
  {
    error = fmt::format("ERROR: {}: cannot start the import process '{}'", request.input, program);
    return nullptr;
  }
  const std::string messages = trimmed(readText(files.err()));
  if (*status != 0)
  {
    // The worker's own messages name the input; what ended it otherwise is said here.
    error = messages;
    const std::optional<std::string> crash = platform::abnormalEnd(*status);
    if (crash || messages.find(request.input) == std::string::npos)
    {
      if (!error.empty())
        error += '\n';
      error += crash ? fmt::format("ERROR: {}: the import library crashed on this file ({})", request.input, *crash)
                     : fmt::format("ERROR: {}: the import stopped with status {}", request.input, *status);
    }
    // An allocation the bound refused ends the worker with "out of memory" (or the library's own
    // word for it): say which bound, and how to raise it.
    if (request.memoryLimitBytes != 0 &&
        (messages.find("out of memory") != std::string::npos || messages.find("bad_alloc") != std::string::npos))
      error += fmt::format("\nERROR: {}: the import needed more than the {} MiB it may use (--memory-limit)",
                           request.input, request.memoryLimitBytes >> 20);
    return nullptr;
  }

  std::istringstream line(readText(files.out()));
  int skinned = 0;
  line >> summary.sets >> summary.vertices >> summary.triangles >> skinned >> summary.formatName;
  std::getline(line >> std::ws, summary.formatRead);
  summary.formatRead = trimmed(summary.formatRead);
  summary.skinned = skinned != 0;
  std::vector<char> bytes;
  if (!line || !readFileBytes(files.result(), bytes, error))
  {
    error = fmt::format("ERROR: {}: the import process gave no result", request.input);
    return nullptr;
  }
  BinaryPtr block(new BinaryBlock(bytes.data(), bytes.size(), "BinaryBlock/PrimitivesImport"));
  if (block->len() != bytes.size())
  {
    error = fmt::format("ERROR: {}: out of memory", request.input);
    return nullptr;
  }
  return block;
}

} // namespace objimport
