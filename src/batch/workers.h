// The batch's workers: items run on several threads, each thread taking the
// next item until none is left or the run is halted.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Runs item(i, halted) for i = 0 .. count - 1 on `workers` threads. A thread
// takes no further item once `stopped()` says so or an item has thrown;
// `halted()` tells a long item the same. The first exception is thrown on
// once every thread has finished. Returns how many items were started.
inline std::size_t run_on_workers(std::size_t count, int workers, const std::function<bool()>& stopped,
                                  const std::function<void(std::size_t, const std::function<bool()>&)>& item) {
  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  std::mutex failure_lock;
  std::exception_ptr failure;
  const std::function<bool()> halted = [&] { return failed || stopped(); };
  auto work = [&] {
    try {
      for (std::size_t i; !halted() && (i = next++) < count;) item(i, halted);
    } catch (...) {
      std::lock_guard<std::mutex> guard(failure_lock);
      if (!failure) failure = std::current_exception();
      failed = true;
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < workers; ++t) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
  if (failure) std::rethrow_exception(failure);
  return std::min<std::size_t>(next, count);
}
