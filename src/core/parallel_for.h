// The library's thread primitives: parallel_for, and a two-stage pipeline
// for work that overlaps best one item behind another.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "framealign/framealign.h"  // usable_cpu_count

namespace framealign {

// Calls func(i) for every i in [start, end) on freshly started threads: the
// range is cut into at most `num_threads` contiguous blocks, one thread per
// block, each running its block in increasing order. Returns when all are
// joined; the calling thread runs no index itself. Bodies write only their
// own index's slot of shared data.
//
// An exception that escapes func(i) ends that thread's block; once every
// thread is joined, the first one caught travels on to the caller (a
// program that does not catch it ends as if the worker had thrown it).
template <typename F>
void parallel_for(int start, int end, F func, int num_threads) {
  if (end <= start) return;
  num_threads = std::max(num_threads, 1);
  const int chunk = (end - start + num_threads - 1) / num_threads;
  std::mutex failure_lock;
  std::exception_ptr failure;
  std::vector<std::thread> threads;
  threads.reserve(num_threads);
  for (int t = 0; t < num_threads; ++t) {
    const int block_start = start + t * chunk;
    if (block_start >= end) break;
    const int block_end = std::min(block_start + chunk, end);
    threads.emplace_back([block_start, block_end, &func, &failure_lock, &failure] {
      try {
        for (int i = block_start; i < block_end; ++i) func(i);
      } catch (...) {
        std::lock_guard<std::mutex> guard(failure_lock);
        if (!failure) failure = std::current_exception();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  if (failure) std::rethrow_exception(failure);
}

// A two-stage pipeline over items 0..n-1:
//  - produce(i) runs on one extra thread, for i = 0, 1, ... in order;
//  - meanwhile() runs once on the calling thread while produce(0) runs;
//  - consume(i) runs on the calling thread, in order, once meanwhile() and
//    produce(i) have returned, so that producing i + 1 overlaps consuming i.
// produce(i) happens-before consume(i): what it writes for item i, consume(i)
// may read without a lock. Returns when both stages are done and the thread
// is joined.
//
// An exception from meanwhile() or consume() stops the producer after the
// item in hand, and one from produce(i) stops the consumer before item i;
// either travels on to the caller once the thread is joined.
template <typename Produce, typename Consume, typename Meanwhile>
void run_pipelined(int n, Produce produce, Consume consume, Meanwhile meanwhile) {
  std::mutex lock;
  std::condition_variable produced_cv;
  int produced = 0;
  bool stop = false;
  std::exception_ptr failure;
  std::thread producer([&] {
    try {
      for (int i = 0; i < n; ++i) {
        {
          std::lock_guard<std::mutex> guard(lock);
          if (stop) return;
        }
        produce(i);
        std::lock_guard<std::mutex> guard(lock);
        produced = i + 1;
        produced_cv.notify_one();
      }
    } catch (...) {
      std::lock_guard<std::mutex> guard(lock);
      failure = std::current_exception();
      produced_cv.notify_one();
    }
  });
  try {
    meanwhile();
    for (int i = 0; i < n; ++i) {
      {
        std::unique_lock<std::mutex> guard(lock);
        produced_cv.wait(guard, [&] { return produced > i || failure; });
        if (produced <= i) std::rethrow_exception(failure);
      }
      consume(i);
    }
  } catch (...) {
    {
      std::lock_guard<std::mutex> guard(lock);
      stop = true;
    }
    producer.join();
    throw;
  }
  producer.join();
}

}  // namespace framealign
