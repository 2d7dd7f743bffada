// The mapping from reference to capture: its inverse, its limits, and the
// frame warped through it.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/mapping.h"
#include "align/refinement.h"
#include "sim/render.h"

using namespace framealign;  // NOLINT(google-build-using-namespace)

namespace {

constexpr int kW = 320, kH = 180;
const cv::Size kCapture(480, 360);

// A view of the frame through a lens of coefficients k1, k2 about the
// capture's centre.
Mapping view(double k1, double k2) {
  const double corners[8] = {70.4, 80.2, 405.1, 60.7, 60.3, 290.5, 420.8, 300.9};
  Mapping m = corners_mapping(corners, kW, kH, kCapture);
  m.k1 = k1;
  m.k2 = k2;
  return m;
}

TEST(Mapping, InverseUndoesTheMappingOverTheFrame) {
  const struct {
    const char* what;
    double k1, k2;
  } cases[] = {{"ideal lens", 0.0, 0.0}, {"barrel", -0.08, 0.01}, {"pincushion", 0.05, 0.0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Mapping m = view(c.k1, c.k2);
    const std::vector<cv::Point2d> grid = frame_grid(kW, kH);
    const std::vector<cv::Point2d> back = m.to_reference(m.to_capture(grid));
    for (std::size_t i = 0; i < grid.size(); ++i) {
      EXPECT_NEAR(back[i].x, grid[i].x, 1e-7);
      EXPECT_NEAR(back[i].y, grid[i].y, 1e-7);
    }
  }
}

TEST(Mapping, PointsNoLensCanImageHaveNoReferencePoint) {
  // k1 = -0.9: the distorted radius stops growing at r = 0.61, where it is 0.41.
  const Mapping m = view(-0.9, 0.0);
  EXPECT_TRUE(std::isnan(m.to_reference({0.0, 0.0}).x));
  EXPECT_TRUE(std::isfinite(m.to_reference(m.centre + cv::Point2d(50.0, 20.0)).x));
}

// A capture made by sampling a known frame where the inverse mapping says,
// warped back through the mapping, gives that frame again; the homography
// alone does not.
TEST(Mapping, FrameWarpedThroughTheLensIsTheFrameShown) {
  const cv::Mat frame = make_reference_frame(kW, kH, 5);
  const Mapping m = view(-0.25, 0.0);
  cv::Mat map_x(kCapture, CV_32FC1), map_y(kCapture, CV_32FC1);
  for (int y = 0; y < kCapture.height; ++y) {
    for (int x = 0; x < kCapture.width; ++x) {
      const cv::Point2d q = m.to_reference({double(x), double(y)});
      map_x.at<float>(y, x) = static_cast<float>(q.x);
      map_y.at<float>(y, x) = static_cast<float>(q.y);
    }
  }
  cv::Mat capture;
  cv::remap(frame, capture, map_x, map_y, cv::INTER_CUBIC, cv::BORDER_CONSTANT, cv::Scalar(0));
  const cv::Rect inside(4, 4, kW - 8, kH - 8);
  const auto difference = [&](const Mapping& through) {
    cv::Mat aligned(kH, kW, CV_8UC1);
    warp_through_mapping(capture, through, kW, kH, aligned.data);
    return cv::mean(cv::abs(aligned(inside) - frame(inside)))[0];
  };
  EXPECT_LT(difference(m), 1.0);
  EXPECT_GT(difference(view(0.0, 0.0)), 5.0);
}

}  // namespace
