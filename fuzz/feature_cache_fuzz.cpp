// The feature cache loader on the fuzz bytes as a .ftrs file. A load either
// misses or returns a feature set that the file really held, with one
// descriptor row per keypoint: saved again, it gives back the file's bytes
// (all of them but any trailing surplus).
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "io/feature_cache.h"

using namespace framealign;  // NOLINT(google-build-using-namespace)

namespace {

std::string path(const char* what) {
  return "/tmp/framealign_fuzz_" + std::to_string(::getpid()) + what;
}

std::vector<uint8_t> read_all(const std::string& p) {
  std::vector<uint8_t> bytes;
  if (std::FILE* f = std::fopen(p.c_str(), "rb")) {
    uint8_t buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), f)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    std::fclose(f);
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string file = path(".ftrs");
  if (std::FILE* f = std::fopen(file.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;
  if (load_features(file, keypoints, descriptors).loaded) {
    if (static_cast<size_t>(descriptors.rows) != keypoints.size()) __builtin_trap();
    const std::string again = path("_again.ftrs");
    save_features(again, keypoints, descriptors);
    const std::vector<uint8_t> written = read_all(again);
    if (written.size() > size || !std::equal(written.begin(), written.end(), data)) {
      __builtin_trap();
    }
  }
  return 0;
}
