// Where a mixed frame changes from one reference frame to the next: frames
// of a panning video blended along the capture rows of a known geometry
// (the rows exposed while the screen changed get a share of each), then a
// camera's gain, offset and noise; the tear is found on the aligned frame.
#include <opencv2/imgproc.hpp>

#include <gtest/gtest.h>

#include "sim/video.h"
#include "test_support.h"
#include "video/tears.h"

namespace {

constexpr int kWidth = 640, kHeight = 360;

struct Filming {
  const char* name;
  std::array<double, 8> corners;  // where the screen lies in the capture
  double tear_row;                // aligned row, at the middle column, of the change
  double ramp;                    // capture rows over which the later frame's share rises
  bool later_below;               // the later frame lower down the capture
};

cv::Matx33d to_capture(const std::array<double, 8>& c) {
  const std::vector<cv::Point2f> frame = {{0, 0}, {kWidth, 0}, {0, kHeight}, {kWidth, kHeight}};
  std::vector<cv::Point2f> seen;
  for (int k = 0; k < 4; ++k)
    seen.emplace_back(static_cast<float>(c[2 * k]), static_cast<float>(c[2 * k + 1]));
  return cv::Matx33d(cv::getPerspectiveTransform(frame, seen));
}

double row_in_capture(const cv::Matx33d& h, double x, double y) {
  const cv::Vec3d p = h * cv::Vec3d(x, y, 1.0);
  return p[1] / p[2];
}

// The later frame's share at aligned pixel (x, y).
double later_share(const Filming& f, const cv::Matx33d& h, double x, double y) {
  const double centre = row_in_capture(h, kWidth / 2.0, f.tear_row);
  const double rise = (row_in_capture(h, x, y) - centre) / f.ramp;
  return std::clamp((f.later_below ? rise : -rise) + 0.5, 0.0, 1.0);
}

TEST(tears, FoundWithinARowAndTheShownPictureFollowsThem) {
  const std::vector<cv::Mat> v = make_reference_video(kWidth, kHeight, 8, 6, 4.0);
  const std::vector<Filming> cases = {
      {"square on, a sharp change", {100, 80, 740, 80, 100, 440, 740, 440}, 150.0, 3.0, true},
      {"tilted, a broad ramp", {120, 60, 760, 100, 90, 420, 730, 470}, 210.0, 160.0, true},
      {"in perspective, near the top", {100, 90, 700, 70, 130, 400, 690, 460}, 40.0, 60.0, true},
      {"camera upside down", {740, 440, 100, 440, 740, 80, 100, 80}, 260.0, 40.0, false},
  };
  FrameIndex index([&](int n) { return v[n]; }, 0, 5);
  cv::RNG rng(3);
  for (const Filming& f : cases) {
    const cv::Matx33d h = to_capture(f.corners);
    cv::Mat blend(kHeight, kWidth, CV_32F);
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const double w = later_share(f, h, x, y);
        blend.at<float>(y, x) =
            static_cast<float>((1 - w) * v[2].at<uchar>(y, x) + w * v[3].at<uchar>(y, x));
      }
    }
    cv::Mat noise(blend.size(), CV_32F), seen;
    rng.fill(noise, cv::RNG::NORMAL, 0, 2);
    cv::Mat lit = blend * 0.8 + 25 + noise;
    lit.convertTo(seen, CV_8U);
    const Identity identity = index.identify(seen);
    ASSERT_EQ(identity.ref_frames.size(), 2u) << f.name;
    const ShownModel model = fit_tears(seen, identity, f.corners, [&](int n) { return v[n]; });
    const std::vector<double> rows = tear_rows(model);
    ASSERT_EQ(rows.size(), 1u) << f.name;
    EXPECT_NEAR(rows[0], f.tear_row, 1.0) << f.name;
    cv::Mat shown, want;
    shown_picture(model, [&](int n) { return v[n]; }).convertTo(shown, CV_32F);
    EXPECT_LT(cv::mean(cv::abs(shown - blend))[0], 1.0) << f.name;
    // The bands of rows cover the frame once, top to bottom, their shares whole.
    const std::vector<ShownRows> bands = shown_rows(model);
    int next = 0;
    for (const ShownRows& band : bands) {
      EXPECT_EQ(band.first_row, next) << f.name;
      next = band.last_row + 1;
      double sum = 0.0;
      for (double share : band.weights) sum += share;
      EXPECT_NEAR(sum, 1.0, 0.051) << f.name << " rows " << band.first_row;
    }
    EXPECT_EQ(next, kHeight) << f.name;
  }
}

}  // namespace
