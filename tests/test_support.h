// Test helpers: a private temporary folder per test, whole-file I/O, and
// synthetic pictures (the simulator's textured frame, placed in a capture
// through a known perspective).
#pragma once

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "sim/render.h"

// The tests reach into the library's internals by their own names.
using namespace framealign;  // NOLINT(google-build-using-namespace)

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/framealign_test_XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline void write_bytes(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

inline std::vector<unsigned char> read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::string read_text(const std::string& path) {
  const std::vector<unsigned char> bytes = read_bytes(path);
  return std::string(bytes.begin(), bytes.end());
}

using Folder = std::vector<std::pair<std::string, std::vector<unsigned char>>>;

// Every regular file of a folder with its bytes, by name.
inline Folder read_folder(const std::string& folder) {
  Folder files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_regular_file()) files.emplace_back(entry.path().filename(), read_bytes(entry.path()));
  }
  std::sort(files.begin(), files.end());
  return files;
}

// The perspective that puts a width x height frame's corners at `corners`.
inline cv::Mat frame_to_capture(int width, int height, const double* corners) {
  double frame[8];
  frame_corners(width, height, frame);
  return cv::getPerspectiveTransform(corner_points(frame), corner_points(corners));
}

// `frame` seen at `corners` in a capture of the given size, over a dimmed
// texture of its own.
inline cv::Mat make_capture(const cv::Mat& frame, const double* corners, int width, int height, uint64_t seed) {
  cv::Mat capture = make_reference_frame(width, height, seed) / 2;
  cv::warpPerspective(frame, capture, frame_to_capture(frame.cols, frame.rows, corners), capture.size(),
                      cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
  return capture;
}
