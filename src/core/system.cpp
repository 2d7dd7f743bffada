// What the machine gives a process that aligns: its CPUs, and how its heap
// keeps freed memory.
#include <malloc.h>
#include <sched.h>

#include <algorithm>
#include <thread>

#include "framealign/framealign.h"

namespace framealign {

int usable_cpu_count() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) == 0) return std::max(CPU_COUNT(&set), 1);
  return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

// A search allocates and frees SIFT pyramids of hundreds of megabytes per
// layer. By default glibc maps each one freshly and unmaps it on free, so
// every attempt pays for faulting gigabytes of zeroed pages again (on a
// 4032 x 3024 capture more than half of the CPU time when three attempts
// fault at once, two fifths with the pipelined search). Keeping freed memory
// in one heap for reuse removes that; the peak stays that of the largest
// live set.
void keep_freed_memory_for_reuse() {
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, -1);
}

}  // namespace framealign
