// The search gives the same bytes whatever its schedule.
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "align/align.h"
#include "synthetic.h"
#include "test_support.h"

namespace {

using Folder = std::map<std::string, std::vector<unsigned char>>;

Folder read_folder(const TempDir& dir) {
  Folder files;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    files[entry.path().filename().string()] = read_bytes(entry.path().string());
  }
  return files;
}

Folder search(const cv::Mat& capture, cv::Mat reference, bool advanced,
              SearchSchedule schedule) {
  set_search_schedule(schedule);
  TempDir dir;
  const std::string folder = dir.path().string();
  const double no_corners[8] = {};
  align_frame(capture.data, reference.data, reference.cols, reference.rows, capture.cols,
              capture.rows, 0, 0, 0, no_corners, folder.c_str(), nullptr, nullptr, advanced, {},
              true);
  set_search_schedule(SearchSchedule::AUTOMATIC);
  return read_folder(dir);
}

TEST(set_search_schedule, SchedulesWriteIdenticalResults) {
  struct Case {
    const char* what;
    int width, height, capture_width, capture_height;
    bool mirror, advanced;
  };
  const Case cases[] = {{"search", 1280, 720, 1600, 1200, false, false},
                        {"advanced, mirrored", 640, 360, 960, 720, true, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const cv::Mat reference = make_texture(c.width, c.height, 61);
    const double corners[8] = {0.12 * c.capture_width, 0.1 * c.capture_height,
                               0.86 * c.capture_width, 0.14 * c.capture_height,
                               0.1 * c.capture_width,  0.85 * c.capture_height,
                               0.9 * c.capture_width,  0.88 * c.capture_height};
    cv::Mat capture = make_capture(reference, corners, c.capture_width, c.capture_height, 62);
    if (c.mirror) cv::flip(capture, capture, 1);

    const Folder one_per_thread =
        search(capture, reference, c.advanced, SearchSchedule::ONE_THREAD_PER_ATTEMPT);
    ASSERT_GE(one_per_thread.size(), 7u);  // at least one attempt succeeded
    const Folder pipelined = search(capture, reference, c.advanced, SearchSchedule::PIPELINED);
    ASSERT_EQ(pipelined.size(), one_per_thread.size());
    for (const auto& [name, bytes] : one_per_thread) {
      EXPECT_TRUE(pipelined.count(name) && pipelined.at(name) == bytes) << name;
    }
  }
}

}  // namespace
