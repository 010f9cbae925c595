// Stands in for the importer's worker process in the containment tests: the input name says how
// it misbehaves.
//   fake_import_worker --import-worker crash RESULT FORMAT   crashes
//   fake_import_worker --import-worker hang RESULT FORMAT    never finishes
//   fake_import_worker --import-worker refuse RESULT FORMAT  a message and status 3
//   fake_import_worker --import-worker other RESULT FORMAT   a stray line and status 23
//   fake_import_worker --import-worker allocate RESULT FORMAT  allocates until refused, then says
//                                                              so as the real worker does
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <thread>
#include <vector>

int main(int argc, char** argv)
{
  const std::string_view input = argc > 2 ? argv[2] : "";
  if (input == "crash")
    __builtin_trap(); // an illegal instruction, a crash on every system (abort() is an exit on Windows)
  if (input == "hang")
    for (;;)
      std::this_thread::sleep_for(std::chrono::seconds(1));
  if (input == "allocate")
  {
    // Address space only: the pages are never touched, so the bound is met without using memory.
    std::vector<std::unique_ptr<char[]>> blocks;
    try
    {
      for (;;)
        blocks.emplace_back(new char[size_t{256} << 20]);
    }
    catch (const std::bad_alloc&)
    {
      blocks.clear();
      std::fputs("ERROR: allocate: out of memory\n", stderr);
      return 3;
    }
  }
  if (input == "other")
  {
    std::fputs("something else went wrong\n", stderr);
    return 23;
  }
  std::fputs("ERROR: refuse: the library says no\n", stderr);
  return 3;
}
