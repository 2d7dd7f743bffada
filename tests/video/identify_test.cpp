// Telling the reference frames an aligned frame of a filmed screen shows,
// on frames of a panning reference video put together the way a rolling
// shutter puts them: bands of one frame above bands of the next, rows
// exposed across the change blended, exposure and noise of a camera.
#include <opencv2/imgproc.hpp>

#include <gtest/gtest.h>

#include "sim/video.h"
#include "test_support.h"
#include "video/identify.h"

namespace {

constexpr int kWidth = 640, kHeight = 360;

const std::vector<cv::Mat>& video() {
  static const std::vector<cv::Mat> frames = make_reference_video(kWidth, kHeight, 3, 12, 4.0);
  return frames;
}

// Rows [0, split) from frame `top`, the rest from `bottom`; `blend` rows
// around the split a mix of the two; then a camera's gain, offset and noise.
cv::Mat filmed(const cv::Mat& top, const cv::Mat& bottom, int split, int blend) {
  cv::Mat picture = bottom.clone();
  if (split > 0) top.rowRange(0, split).copyTo(picture.rowRange(0, split));
  for (int y = std::max(0, split - blend / 2); y < std::min(kHeight, split + blend / 2); ++y) {
    cv::Mat row = picture.row(y);
    cv::addWeighted(top.row(y), 0.5, bottom.row(y), 0.5, 0.0, row);
  }
  cv::Mat noise(picture.size(), CV_16S);
  cv::randn(noise, 0, 3);
  cv::Mat lit, out;
  picture.convertTo(lit, CV_16S, 0.8, 20);
  lit += noise;
  lit.convertTo(out, CV_8U);
  return out;
}

TEST(identify, TellsTheFramesOnTheScreen) {
  const std::vector<cv::Mat>& v = video();
  const cv::Mat other = make_reference_video(kWidth, kHeight, 99, 1, 0.0)[0];
  struct Case {
    const char* name;
    cv::Mat picture;
    bool found;
    int ref_frame;
    std::vector<int> ref_frames;
  };
  const std::vector<Case> cases = {
      {"one frame", filmed(v[5], v[5], 0, 0), true, 5, {5}},
      {"the next below a third", filmed(v[5], v[6], kHeight / 3, 0), true, 6, {5, 6}},
      {"the next below two thirds", filmed(v[7], v[8], 2 * kHeight / 3, 0), true, 7, {7, 8}},
      {"the earlier frame only blended", filmed(v[2], v[3], kHeight / 6, 120), true, 3, {2, 3}},
      {"the last frame given", filmed(v[11], v[11], 0, 0), true, 11, {11}},
      {"another video", filmed(other, other, 0, 0), false, -1, {}},
  };
  FrameIndex index([&](int n) { return v[n]; }, 0, 11);
  for (const Case& c : cases) {
    const Identity identity = index.identify(c.picture);
    EXPECT_EQ(identity.found, c.found) << c.name << " (sync " << identity.sync_score << ")";
    if (!c.found) continue;
    EXPECT_EQ(identity.ref_frame, c.ref_frame) << c.name;
    EXPECT_EQ(identity.ref_frames, c.ref_frames) << c.name;
  }
}

// Frames a pan of a tenth of a pixel apart are alike; the screen's clock
// decides between them, and only between them.
TEST(identify, TheClockDecidesOnlyBetweenFramesAlike) {
  const std::vector<cv::Mat> slow = make_reference_video(kWidth, kHeight, 5, 12, 0.1);
  FrameIndex index([&](int n) { return slow[n]; }, 0, 11);
  const cv::Mat shown = filmed(slow[4], slow[4], 0, 0);
  for (double expected : {3.0, 4.0, 5.0}) {
    EXPECT_EQ(index.identify(shown, &expected).ref_frame, static_cast<int>(expected)) << expected;
  }
  const std::vector<cv::Mat>& v = video();
  FrameIndex panning([&](int n) { return v[n]; }, 0, 11);
  const double far = 9.0;
  EXPECT_EQ(panning.identify(filmed(v[4], v[4], 0, 0), &far).ref_frame, 4);
}

// A still picture with a small cursor moving: every band matches every
// frame alike, whatever the clock expects; the cursor tells.
TEST(identify, ASmallChangeTellsFramesOtherwiseAlike) {
  const std::vector<cv::Mat> still = make_reference_video(kWidth, kHeight, 6, 12, 0.0, "small");
  FrameIndex index([&](int n) { return still[n]; }, 0, 11);
  for (int shown : {2, 6, 9}) {
    for (double expected : {shown - 2.0, shown + 0.0, shown + 2.0}) {
      const Identity identity = index.identify(filmed(still[shown], still[shown], 0, 0), &expected);
      EXPECT_EQ(identity.ref_frame, shown) << "expected " << expected;
      EXPECT_EQ(identity.ref_frames, std::vector<int>{shown}) << "expected " << expected;
      EXPECT_FALSE(identity.unsure) << shown;
    }
  }
  // Two frames with the same picture cannot be told apart, and say so.
  std::vector<cv::Mat> repeated = still;
  repeated[7] = still[6];
  FrameIndex twice([&](int n) { return repeated[n]; }, 0, 11);
  const double expected = 7.0;
  EXPECT_TRUE(twice.identify(filmed(still[6], still[6], 0, 0), &expected).unsure);
}

}  // namespace
