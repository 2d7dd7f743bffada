// The raw frame reader: the first three bytes choose the frame width (1..64),
// height (1..64) and frame number (-2..29); the rest is the .yuv file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "io/readers.h"

using namespace framealign;  // NOLINT(google-build-using-namespace)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const int width = 1 + data[0] % 64;
  const int height = 1 + data[1] % 64;
  const int frame = static_cast<int>(data[2] % 32) - 2;
  const std::string file = "/tmp/framealign_fuzz_" + std::to_string(::getpid()) + ".yuv";
  if (std::FILE* f = std::fopen(file.c_str(), "wb")) {
    std::fwrite(data + 3, 1, size - 3, f);
    std::fclose(f);
  }
  // Exactly the plane: any write past it is caught by AddressSanitizer.
  std::vector<unsigned char> luma(static_cast<size_t>(width) * height);
  bool read = true;
  try {
    extract_frame_from_yuv420_file(file, luma.data(), width, height, frame);
  } catch (const std::exception&) {
    read = false;
  }
  // The frame that was read is the bytes at its offset in the file.
  const size_t offset = frame < 0 ? 0 : static_cast<size_t>(frame) * yuv420_frame_size(width, height);
  const bool fits = offset + luma.size() <= size - 3;
  if (read != fits) __builtin_trap();
  if (read && !std::equal(luma.begin(), luma.end(), data + 3 + offset)) __builtin_trap();
  return 0;
}
