// VideoAligner on a capture video made here, losslessly, from known
// homographies: a screen in a bezel drifting as a hand holds it, showing one
// reference frame per captured frame. Each frame is told and placed right,
// tracked after the first; a video of frames the reference does not hold is
// aligned to none of them.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "framealign/video.h"
#include "test_support.h"

namespace {

constexpr int kW = 640, kH = 360, kFrames = 6;
const cv::Size kCapture(960, 720);

// Where the screen lies in captured frame j: drifting by 0.7 px a frame.
std::array<double, 8> corners_of(int j) {
  const double base[8] = {110.4, 80.2, 830.7, 100.9, 90.3, 610.6, 860.2, 640.5};
  std::array<double, 8> c;
  for (int i = 0; i < 8; ++i) c[i] = base[i] + 0.7 * j * (i % 2 ? -1.0 : 1.0);
  return c;
}

// The reference video: kFrames frames of 4:2:0, distinct pictures.
void write_reference(const std::string& path, uint64_t seed) {
  std::vector<unsigned char> bytes;
  for (int k = 0; k < kFrames; ++k) {
    const cv::Mat frame = make_reference_frame(kW, kH, seed + k);
    bytes.insert(bytes.end(), frame.datastart, frame.dataend);
    bytes.insert(bytes.end(), kW * kH / 2, 128);
  }
  write_bytes(path, bytes);
}

// `frame` on a screen whose bezel (flat grey) is warped with it, so that the
// content's outline lies where its outer pixels' edges do, over a room.
cv::Mat screen_capture(const cv::Mat& frame, const std::array<double, 8>& corners, uint64_t seed) {
  constexpr int kBezel = 12;
  cv::Mat screen, capture = make_reference_frame(kCapture.width, kCapture.height, seed) / 2;
  cv::copyMakeBorder(frame, screen, kBezel, kBezel, kBezel, kBezel, cv::BORDER_CONSTANT,
                     cv::Scalar(40));
  const cv::Matx33d into_screen(1, 0, -kBezel, 0, 1, -kBezel, 0, 0, 1);
  cv::warpPerspective(screen, capture,
                      frame_to_capture(kW, kH, corners.data()) * cv::Mat(into_screen),
                      capture.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
  return capture;
}

// A lossless capture video whose frame j shows frame j of the pictures of
// `seed` at corners_of(j). Empty when no lossless writer is there.
std::string write_capture(const TempDir& dir, uint64_t seed, int frames) {
  const std::string path = dir.file("capture_" + std::to_string(seed) + ".mkv");
  cv::VideoWriter writer(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('F', 'F', 'V', '1'), 30,
                         kCapture, true);
  if (!writer.isOpened()) return "";
  for (int j = 0; j < frames; ++j) {
    cv::Mat colour;
    cv::cvtColor(screen_capture(make_reference_frame(kW, kH, seed + j), corners_of(j), 90 + j),
                 colour, cv::COLOR_GRAY2BGR);
    writer.write(colour);
  }
  return path;
}

TEST(VideoAligner, TellsTracksAndPlacesEveryFrame) {
  TempDir dir;
  write_reference(dir.file("reference.yuv"), 70);
  struct Case {
    const char* what;
    uint64_t shown;  // the pictures the capture shows
    int frames;
    bool held;  // they are the reference's
  };
  // Frames not held each take the full search: two are enough.
  const Case cases[] = {{"the reference's frames", 70, kFrames, true},
                        {"frames it does not hold", 170, 2, false}};
  for (const Case& c : cases) {
    const std::string video = write_capture(dir, c.shown, c.frames);
    if (video.empty()) GTEST_SKIP() << "no lossless video writer (FFV1) in this OpenCV";
    VideoOptions options;
    options.align.fast = true;
    VideoAligner aligner(video, dir.file("reference.yuv"), kW, kH, options);
    VideoFrame frame;
    int seen = 0, tracked = 0;
    while (aligner.next(frame)) {
      const int j = frame.capture_frame;
      ++seen;
      if (!c.held) {
        EXPECT_EQ(frame.ref_frame, -1) << c.what << " frame " << j;
        EXPECT_NE(frame.result.status, "aligned") << c.what << " frame " << j;
        continue;
      }
      EXPECT_EQ(frame.ref_frame, j) << c.what;
      EXPECT_FALSE(frame.mixed) << c.what << " frame " << j;
      ASSERT_TRUE(frame.result.corners) << c.what << " frame " << j;
      const std::array<double, 8> truth = corners_of(j);
      for (int i = 0; i < 8; i += 2) {
        EXPECT_LT(std::hypot((*frame.result.corners)[i] - truth[i],
                             (*frame.result.corners)[i + 1] - truth[i + 1]),
                  1.0)
            << c.what << " frame " << j << " corner " << i / 2;
      }
      tracked += frame.result.path == "tracked";
    }
    EXPECT_EQ(seen, c.frames) << c.what;
    if (c.held) {
      EXPECT_GE(tracked, kFrames - 1) << "every frame after the first is tracked";
    }
  }
}

}  // namespace
