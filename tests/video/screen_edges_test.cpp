// The screen's edges found in a simulated capture (a frame on a screen with
// a bezel, seen in perspective through a blurring, noisy camera): from
// corners a shear of a pan step off at the bottom, as a fit to a frame
// showing two frames of a pan gives them, back to the truth; nothing where
// an edge cannot be seen.
#include <cmath>

#include <opencv2/imgproc.hpp>

#include <gtest/gtest.h>

#include "sim/render.h"
#include "test_support.h"
#include "video/screen_edges.h"

namespace {

constexpr int kWidth = 640, kHeight = 360;

std::array<double, 8> as_array(const double* corners) {
  std::array<double, 8> a;
  std::copy(corners, corners + 8, a.begin());
  return a;
}

TEST(screen_edges, FindTheScreenWhereItsContentCannot) {
  struct Case {
    const char* name;
    int seed;
    double dark_border;  // reference pixels of content as dark as the bezel
    double shift_x;      // the whole screen moved, capture pixels
    bool seen;
  };
  const Case cases[] = {
      {"plain", 3, 0, 0, true},
      {"another stage", 8, 0, 0, true},
      {"content as dark as the bezel", 3, 24, 0, false},
      {"screen partly outside the capture", 3, 0, -300, false},
  };
  for (const Case& c : cases) {
    cv::Mat frame = make_reference_frame(kWidth, kHeight, 40 + c.seed);
    if (c.dark_border > 0) {
      cv::rectangle(frame, {0, 0}, {kWidth - 1, kHeight - 1}, cv::Scalar(18),
                    int(2 * c.dark_border));
    }
    CaptureSettings settings;
    settings.capture_width = 960;
    settings.capture_height = 540;
    settings.seed = c.seed;
    settings.noise = 4.0;
    Capture shot = render_capture(frame, settings);
    if (c.shift_x != 0) {
      const cv::Mat shift = (cv::Mat_<double>(2, 3) << 1, 0, c.shift_x, 0, 1, 0);
      cv::warpAffine(shot.picture, shot.picture, shift, shot.picture.size());
      for (int i = 0; i < 4; ++i) shot.corners[2 * i] += c.shift_x;
    }
    const std::array<double, 8> truth = as_array(shot.corners);
    // A shear: the bottom corners 4 px along the bottom edge, the top ones 1 px the other way.
    std::array<double, 8> sheared = truth;
    sheared[0] += 1.0, sheared[2] += 1.0, sheared[4] -= 4.0, sheared[6] -= 4.0;
    const std::optional<ScreenEdges> found = screen_edges(shot.picture, sheared, kWidth, kHeight);
    ASSERT_EQ(found.has_value(), c.seen) << c.name;
    if (found) {
      EXPECT_LT(corners_apart(found->corners, truth), 0.35) << c.name;
    }
    // Corners that are no screen at all.
    std::array<double, 8> nowhere;
    nowhere.fill(std::nan(""));
    EXPECT_FALSE(screen_edges(shot.picture, nowhere, kWidth, kHeight)) << c.name;
    nowhere.fill(10.0);
    EXPECT_FALSE(screen_edges(shot.picture, nowhere, kWidth, kHeight)) << c.name;
  }
}

}  // namespace
