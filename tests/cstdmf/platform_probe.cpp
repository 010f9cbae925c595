// A child process for the platform tests: it answers with what the platform layer tells it.
//   platform_probe args ARG...      every argument as "<byte count>:<bytes>\n"
//   platform_probe cwd              the working directory (UTF-8)
//   platform_probe terminal         "<isTerminal(1)> <isTerminal(2)> <terminalWidth(1)>"
//   platform_probe exit N           exits with N through the C runtime
//   platform_probe fatal            platform::exitProcess(-1)
//   platform_probe streams          "a\n" on standard output and "b\n" on standard error
//   platform_probe hang             never returns (for time limits)
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

namespace
{
int probe(int argc, char** argv)
{
  platform::useBinaryStandardStreams();
  const std::string_view command = argc > 1 ? argv[1] : "";
  if (command == "args")
  {
    for (int i = 2; i < argc; ++i)
      std::printf("%zu:%s\n", std::string_view(argv[i]).size(), argv[i]);
    return argc - 2;
  }
  if (command == "cwd")
  {
    std::fputs(cstdmf::toGenericUtf8(std::filesystem::current_path()).c_str(), stdout);
    return 0;
  }
  if (command == "terminal")
  {
    std::printf("%d %d %d", platform::isTerminal(1) ? 1 : 0, platform::isTerminal(2) ? 1 : 0,
                platform::terminalWidth(1));
    return 0;
  }
  if (command == "processors")
  {
    std::printf("%u", platform::usableProcessorCount());
    return 0;
  }
  if (command == "exit" && argc > 2)
    return std::atoi(argv[2]);
  if (command == "fatal")
  {
    std::fflush(stdout);
    platform::exitProcess(-1);
  }
  if (command == "streams")
  {
    std::fputs("a\n", stdout);
    std::fputs("b\n", stderr);
    return 0;
  }
  if (command == "hang")
  {
    for (;;)
      std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  std::fputs("unknown probe\n", stderr);
  return 100;
}
} // namespace

#ifdef _WIN32
int wmain(int argc, wchar_t** argv)
{
  platform::Utf8Arguments utf8(argc, argv);
  return probe(utf8.argc(), utf8.argv());
}
#else
int main(int argc, char** argv)
{
  return probe(argc, argv);
}
#endif
