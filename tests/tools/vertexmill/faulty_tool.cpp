// The vertexmill tool with a fault the tests can ask a --keep-going worker to commit, through the
// environment: VERTEXMILL_WORKER_FAULT="<model stem>=<kind>" makes the worker converting that model
// abort, crash, hang or allocate without bound. Built for the tests only; the tool has no such hook.

#include "cstdmf/path_utils.hpp"
#include "vertexmill/model_worker.hpp"
#include "vertexmill/tool_run.hpp"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

namespace
{
void commitFault(const std::filesystem::path& source)
{
  const char* request = std::getenv("VERTEXMILL_WORKER_FAULT");
  if (!request)
    return;
  const std::string_view text(request);
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos || text.substr(0, equals) != cstdmf::toUtf8(source.stem()))
    return;
  const std::string_view kind = text.substr(equals + 1);
  if (kind == "abort")
    std::abort();
  if (kind == "crash")
    std::raise(SIGSEGV);
  if (kind == "hang")
    std::this_thread::sleep_for(std::chrono::hours(1));
  if (kind == "allocate")
  {
    // Address space only: the pages are never touched, so the bound is met without using memory.
    std::vector<std::unique_ptr<char[]>> blocks;
    for (;;)
      blocks.emplace_back(new char[size_t{256} << 20]);
  }
}
} // namespace

int main(int argc, char** argv)
{
  vertexmill::setWorkerFaultHook(commitFault);
  return vertexmill::runVertexmill(argc, argv);
}
