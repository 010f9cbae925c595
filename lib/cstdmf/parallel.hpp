#pragma once
// A minimal parallel loop for independent work items.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

namespace cstdmf
{

// Calls fn(i) for every i in [0, count), on up to `jobs` threads (the calling thread included).
// Items are independent; fn must not throw. With jobs <= 1 everything runs in order on the
// calling thread.
template <typename Fn>
void parallelFor(size_t count, unsigned jobs, Fn&& fn)
{
  if (jobs <= 1 || count <= 1)
  {
    for (size_t i = 0; i < count; ++i)
      fn(i);
    return;
  }
  std::atomic<size_t> next{0};
  auto worker = [&]() {
    for (size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1))
      fn(i);
  };
  const size_t extra = std::min<size_t>(jobs, count) - 1;
  std::vector<std::thread> threads;
  threads.reserve(extra);
  for (size_t t = 0; t < extra; ++t)
    threads.emplace_back(worker);
  worker();
  for (auto& thread : threads)
    thread.join();
}

} // namespace cstdmf
