#include <gtest/gtest.h>

#include "cli/run_tool.h"

namespace {

// A 1200 x 900 camera without blur, noise or vignette.
CaptureSettings clean_camera() {
  CaptureSettings s;
  s.capture_width = 1200;
  s.capture_height = 900;
  s.blur = s.noise = s.vignette = 0;
  return s;
}

// Warping the capture back by the true corners gives the frame again, and
// better than with the frame moved by one pixel in any direction.
TEST(render_capture, CornersAreWhereTheFrameLands) {
  const cv::Mat frame = make_reference_frame(640, 360, 3);
  CaptureSettings s = clean_camera();
  s.perspective = 0.15;
  const Capture capture = render_capture(frame, s);
  cv::Mat back, diff;
  cv::warpPerspective(capture.picture, back, frame_to_capture(640, 360, capture.corners).inv(), frame.size());
  const cv::Rect inner(8, 8, 624, 344);
  cv::absdiff(back, frame, diff);
  const double aligned = cv::mean(diff(inner))[0];
  EXPECT_LT(aligned, 8.0);
  for (const cv::Point2d d : {cv::Point2d(1, 0), cv::Point2d(-1, 0), cv::Point2d(0, 1), cv::Point2d(0, -1)}) {
    cv::Mat moved, shift = (cv::Mat_<double>(2, 3) << 1, 0, d.x, 0, 1, d.y);
    cv::warpAffine(back, moved, shift, back.size());
    cv::absdiff(moved, frame, diff);
    EXPECT_GT(cv::mean(diff(inner))[0], aligned * 1.2) << d;
  }
}

// Through a barrel lens, each reference point is where the truth says the
// capture shows it, which the four corners alone no longer tell.
TEST(render_capture, TruthFollowsTheLens) {
  const cv::Mat frame = make_reference_frame(640, 360, 3);
  CaptureSettings s = clean_camera();
  s.screen_scale = 0.9;
  s.barrel = 0.1;
  const Capture capture = render_capture(frame, s);
  cv::Mat map_x(frame.size(), CV_32FC1), map_y(frame.size(), CV_32FC1);
  for (int y = 0; y < frame.rows; ++y) {
    for (int x = 0; x < frame.cols; ++x) {
      const cv::Point2d p = capture.seen_at({double(x), double(y)});
      map_x.at<float>(y, x) = static_cast<float>(p.x);
      map_y.at<float>(y, x) = static_cast<float>(p.y);
    }
  }
  cv::Mat back, by_corners, diff;
  cv::remap(capture.picture, back, map_x, map_y, cv::INTER_LINEAR);
  cv::warpPerspective(capture.picture, by_corners, frame_to_capture(640, 360, capture.corners).inv(), frame.size());
  const cv::Rect inner(8, 8, 624, 344);
  cv::absdiff(back, frame, diff);
  const double through_lens = cv::mean(diff(inner))[0];
  cv::absdiff(by_corners, frame, diff);
  EXPECT_LT(through_lens, 8.0);
  EXPECT_GT(cv::mean(diff(inner))[0], 2 * through_lens);
}

TEST(framealign_sim, SameSeedWritesIdenticalFiles) {
  TempDir dir;
  for (const char* out : {"a", "b"}) {
    const ToolRun r = run_tool({"--out", out, "--width", "640", "--height", "360", "--capture-width", "1000",
                                "--capture-height", "800", "--seed", "7", "--noise", "3", "--moire", "0.2",
                                "--gamma", "1.3", "--mirror"}, dir);
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }
  EXPECT_EQ(read_folder(dir.file("a")), read_folder(dir.file("b")));
  EXPECT_EQ(read_bytes(dir.file("a/reference.yuv")).size(), 640u * 360u * 3u / 2u);
  const ToolRun bad = run_tool({"--noise", "lots"}, dir);
  EXPECT_EQ(bad.exit_code, 2);
  EXPECT_EQ(bad.err, "framealign-sim: --noise: Value lots not in range 0.000000 to 50.000000 (see --help)\n");
}

}  // namespace
