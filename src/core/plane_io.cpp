// Frames, planes and files: the helpers every stage shares.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "core/plane_io.h"

namespace framealign {

namespace {

std::string size_text(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

}  // namespace

void frame_corners(double width, double height, double (&corners)[8]) {
  const double values[8] = {0, 0, width, 0, 0, height, width, height};
  std::copy(values, values + 8, corners);
}

std::vector<cv::Point2f> corner_points(const double* corners) {
  std::vector<cv::Point2f> points(4);
  for (int i = 0; i < 4; ++i) {
    points[i] =
        cv::Point2f(static_cast<float>(corners[2 * i]), static_cast<float>(corners[2 * i + 1]));
  }
  return points;
}

std::size_t luma_plane_size(int width, int height) {
  const long long bytes = static_cast<long long>(width) * height;
  if (width <= 0 || height <= 0 || bytes > std::numeric_limits<int>::max()) {
    throw std::invalid_argument("Invalid frame size: " + size_text(width, height));
  }
  return static_cast<std::size_t>(bytes);
}

void copy_plane(const cv::Mat& picture, unsigned char* plane, int width, int height) {
  const std::size_t bytes = luma_plane_size(width, height);
  if (!picture.isContinuous() || picture.total() * picture.elemSize() < bytes) {
    throw std::runtime_error("Picture of " + size_text(picture.cols, picture.rows) +
                             " cannot fill a " + size_text(width, height) + " frame");
  }
  std::memcpy(plane, picture.data, bytes);
}

bool replace_file(const std::string& path, const void* data, std::size_t size) {
  // Unique per process and call: threads may replace the same file at once.
  static std::atomic<unsigned> counter{0};
  const std::string temporary =
      path + "." + std::to_string(::getpid()) + "_" + std::to_string(counter++) + ".part";
  std::FILE* file = std::fopen(temporary.c_str(), "wb");
  if (file == nullptr) return false;
  const bool written = std::fwrite(data, 1, size, file) == size;
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed || std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace framealign
