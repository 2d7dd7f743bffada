// The library's one thread primitive.
#pragma once

#include <sched.h>

#include <algorithm>
#include <thread>
#include <vector>

// CPUs this process may run on: its affinity mask, which taskset, cgroup
// cpusets and cluster schedulers narrow, unlike hardware_concurrency().
// At least 1.
inline int usable_cpu_count() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) == 0) return std::max(CPU_COUNT(&set), 1);
  return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

// Calls func(i) for every i in [start, end) on freshly started threads: the
// range is cut into at most `num_threads` contiguous blocks, one thread per
// block, each running its block in increasing order. Returns when all are
// joined; the calling thread runs no index itself.
//
// `func` must not let an exception escape: one that leaves a worker thread
// ends the process. Bodies write only their own index's slot of shared data.
template <typename F>
void parallel_for(int start, int end, F func, int num_threads) {
  if (end <= start) return;
  num_threads = std::max(num_threads, 1);
  const int chunk = (end - start + num_threads - 1) / num_threads;
  std::vector<std::thread> threads;
  threads.reserve(num_threads);
  for (int t = 0; t < num_threads; ++t) {
    const int block_start = start + t * chunk;
    if (block_start >= end) break;
    const int block_end = std::min(block_start + chunk, end);
    threads.emplace_back([block_start, block_end, &func] {
      for (int i = block_start; i < block_end; ++i) func(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}
