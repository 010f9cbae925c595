// Stands in for the importer's worker process in the containment tests: the input name says how
// it misbehaves.
//   fake_import_worker --import-worker crash RESULT FORMAT   dies of a signal (or an abort)
//   fake_import_worker --import-worker hang RESULT FORMAT    never finishes
//   fake_import_worker --import-worker refuse RESULT FORMAT  a message and status 3
//   fake_import_worker --import-worker other RESULT FORMAT   a stray line and status 23
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

int main(int argc, char** argv)
{
  const std::string_view input = argc > 2 ? argv[2] : "";
  if (input == "crash")
    std::abort();
  if (input == "hang")
    for (;;)
      std::this_thread::sleep_for(std::chrono::seconds(1));
  if (input == "other")
  {
    std::fputs("something else went wrong\n", stderr);
    return 23;
  }
  std::fputs("ERROR: refuse: the library says no\n", stderr);
  return 3;
}
