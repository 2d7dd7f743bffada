#include <algorithm>
#include <set>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "cli/run_tool.h"
#include "sim/video.h"

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

// Filmed at 30 fps off a 24 fps screen through a rolling shutter: each
// captured frame, warped back by its true corners, is nearest the reference
// frame its truth names, and a mixed one shows every frame it names on
// some patch.
TEST(film, TruthNamesTheFramesShown) {
  const std::vector<cv::Mat> reference = make_reference_video(320, 180, 2, 12, 6.0);
  CaptureSettings camera = clean_camera();
  camera.capture_width = 480;
  camera.capture_height = 360;
  VideoSettings video;
  video.seconds = 0.3;
  video.readout = 0.9;
  video.exposure = 0.01;
  int mixed = 0;
  film(reference, camera, video, [&](const cv::Mat& picture, const FrameTruth& t) {
    SCOPED_TRACE(t.capture_frame);
    cv::Mat back, diff;
    cv::warpPerspective(picture, back, frame_to_capture(320, 180, t.corners).inv(), cv::Size(320, 180));
    const auto distance = [&](int k, const cv::Rect& band) {
      cv::absdiff(back(band), reference[std::clamp(k, 0, 11)](band), diff);
      return cv::mean(diff)[0];
    };
    if (!t.mixed()) {
      const cv::Rect inner(8, 8, 304, 164);
      for (int k : {t.ref_frame - 1, t.ref_frame + 1}) {
        if (k >= 0 && k < 12) {
          EXPECT_LT(distance(t.ref_frame, inner), distance(k, inner));
        }
      }
      return;
    }
    ++mixed;
    // Patches small enough for the corner of a tilted screen that the
    // shutter reached before or after the rest.
    std::set<int> nearest;
    for (int y = 1; y + 4 <= 179; y += 4) {
      for (int x = 4; x + 39 <= 316; x += 39) {
        const cv::Rect patch(x, y, 39, 4);
        const bool front = distance(t.ref_frames.front(), patch) < distance(t.ref_frames.back(), patch);
        nearest.insert(front ? t.ref_frames.front() : t.ref_frames.back());
      }
    }
    EXPECT_EQ(nearest.size(), 2u);
  });
  EXPECT_GT(mixed, 0);
}

// --video writes every reference frame, the capture video (H.264 through
// OpenCV's writer, read back here) or its frames, and a truth row per frame.
TEST(framealign_sim, VideoFilesHoldEveryFrame) {
  TempDir dir;
  for (const char* codec : {"h264", "png"}) {
    const ToolRun r = run_tool({"--video", "--codec", codec, "--out", codec, "--width", "320", "--height", "180",
                                "--capture-width", "480", "--capture-height", "360", "--seconds", "0.2",
                                "--reference-frames", "10"}, dir);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(read_bytes(dir.file(std::string(codec) + "/reference.yuv")).size(), 10u * 320 * 180 * 3 / 2);
    const std::string truth = read_text(dir.file(std::string(codec) + "/truth.csv"));
    EXPECT_EQ(std::count(truth.begin(), truth.end(), '\n'), 7);
  }
  cv::VideoCapture video(dir.file("h264/capture.mp4"), cv::CAP_FFMPEG);
  int frames = 0;
  for (cv::Mat frame; video.read(frame);) ++frames;
  EXPECT_EQ(frames, 6);
  EXPECT_EQ(cv::imread(dir.file("png/frames/000005.png"), cv::IMREAD_UNCHANGED).size(), cv::Size(480, 360));
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
