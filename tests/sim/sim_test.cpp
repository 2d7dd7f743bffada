#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "cli/run_tool.h"
#include "sim/render.h"
#include "sim/sim_options.h"
#include "test_support.h"

namespace {

CaptureSettings clean(int width, int height, std::uint64_t seed) {
  CaptureSettings s;
  s.capture_width = width;
  s.capture_height = height;
  s.seed = seed;
  s.blur = s.noise = s.vignette = 0;
  return s;
}

// Warping the capture back by the true corners gives the reference again.
TEST(render_capture, CornersAreWhereTheFrameLands) {
  const cv::Mat frame = make_reference_frame(640, 360, 3);
  for (std::uint64_t seed : {1, 2, 3}) {
    CaptureSettings s = clean(1200, 900, seed);
    s.perspective = 0.15;
    const Capture capture = render_capture(frame, s);
    ASSERT_EQ(capture.picture.size(), cv::Size(1200, 900));
    const cv::Point2f src[4] = {
        {static_cast<float>(capture.corners[0]), static_cast<float>(capture.corners[1])},
        {static_cast<float>(capture.corners[2]), static_cast<float>(capture.corners[3])},
        {static_cast<float>(capture.corners[4]), static_cast<float>(capture.corners[5])},
        {static_cast<float>(capture.corners[6]), static_cast<float>(capture.corners[7])}};
    const cv::Point2f dst[4] = {{0, 0}, {640, 0}, {0, 360}, {640, 360}};
    cv::Mat back;
    cv::warpPerspective(capture.picture, back, cv::getPerspectiveTransform(src, dst),
                        frame.size(), cv::INTER_LINEAR);
    cv::Mat diff;
    cv::absdiff(back, frame, diff);
    const cv::Rect inner(8, 8, 624, 344);
    EXPECT_LT(cv::mean(diff(inner))[0], 8.0) << seed;

    // Moved by one pixel either way, the warped-back capture matches worse.
    const double aligned = cv::mean(diff(inner))[0];
    for (const cv::Point2d d : {cv::Point2d(1, 0), cv::Point2d(-1, 0), cv::Point2d(0, 1),
                                cv::Point2d(0, -1)}) {
      const cv::Mat shift = (cv::Mat_<double>(2, 3) << 1, 0, d.x, 0, 1, d.y);
      cv::Mat moved;
      cv::warpAffine(back, moved, shift, back.size());
      cv::absdiff(moved, frame, diff);
      EXPECT_GT(cv::mean(diff(inner))[0], aligned * 1.2) << seed << " " << d;
    }
  }
}

TEST(render_capture, SameSeedSamePicture) {
  const cv::Mat frame = make_reference_frame(320, 180, 4);
  CaptureSettings s;
  s.capture_width = 800;
  s.capture_height = 600;
  s.moire = 0.3;
  s.gamma = 1.4;
  const Capture a = render_capture(frame, s);
  const Capture b = render_capture(frame, s);
  EXPECT_EQ(cv::norm(a.picture, b.picture, cv::NORM_INF), 0.0);
  s.seed = 2;
  const Capture c = render_capture(frame, s);
  EXPECT_NE(a.corners[0], c.corners[0]);

  s.seed = 1;
  s.mirror = true;
  const Capture mirrored = render_capture(frame, s);
  cv::Mat back;
  cv::flip(mirrored.picture, back, 1);
  EXPECT_EQ(cv::norm(back, a.picture, cv::NORM_INF), 0.0);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(mirrored.corners[i], a.corners[i]);
}

TEST(corner_error, MeasuresInReferencePixels) {
  // The frame at twice its size: a 4-pixel offset in the capture is 2 in the frame.
  const double truth[8] = {100, 100, 500, 100, 100, 300, 500, 300};
  const double found[8] = {104, 100, 500, 100, 100, 300, 500, 300};
  const CornerError e = corner_error(truth, found, 200, 100);
  EXPECT_NEAR(e.max, 2.0, 1e-4);
  EXPECT_NEAR(e.mean, 0.5, 1e-4);
  EXPECT_NEAR(corner_error(truth, truth, 200, 100).max, 0.0, 1e-6);
}

SimOptions parse(std::vector<std::string> words, bool& ok, std::string& error) {
  words.insert(words.begin(), "framealign-sim");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  SimOptions options;
  ok = parse_sim_options(static_cast<int>(argv.size()), argv.data(), options, error);
  return options;
}

TEST(parse_sim_options, RejectsBadValuesClearly) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--blur", "x"}, "--blur needs a number from 0 to 20, got 'x'"},
      {{"--blur", "-1"}, "--blur needs a number from 0 to 20, got '-1'"},
      {{"--capture-width", "5000"}, "--capture-width needs a whole number from 64 to 4032, got '5000'"},
      {{"--capture-height", "3025"}, "--capture-height needs a whole number from 64 to 3024, got '3025'"},
      {{"--width", "1920px"}, "--width needs a whole number from 16 to 8192, got '1920px'"},
      {{"--jpeg-quality", "0"}, "--jpeg-quality needs a whole number from 1 to 100, got '0'"},
      {{"--gamma", "0.1"}, "--gamma needs a number from 0.2 to 5, got '0.1'"},
      {{"--seed", "-3"}, "--seed needs a whole number, 0 or more, got '-3'"},
      {{"--moire"}, "--moire needs a value"},
      {{"--corner-error", "a"}, "--corner-error needs a value"},
      {{"--bogus"}, "unknown option --bogus"},
  };
  for (const auto& [words, message] : cases) {
    bool ok = true;
    std::string error;
    parse(words, ok, error);
    EXPECT_FALSE(ok) << words[0];
    EXPECT_EQ(error, message);
  }
  bool ok = false;
  std::string error;
  const SimOptions o = parse({"--capture-width", "4032", "--capture-height", "3024", "--mirror",
                              "--moire", "0.5", "--seed", "9", "--png", "--out", "x"},
                             ok, error);
  EXPECT_TRUE(ok) << error;
  EXPECT_EQ(o.capture.capture_width, 4032);
  EXPECT_TRUE(o.capture.mirror && o.png);
  EXPECT_EQ(o.capture.moire, 0.5);
  EXPECT_EQ(o.capture.seed, 9u);
  EXPECT_EQ(o.out_dir, "x");
}

TEST(framealign_sim, SameSeedWritesIdenticalFiles) {
  TempDir dir;
  for (const char* out : {"a", "b"}) {
    const ToolRun r = run_tool({"--out", out, "--width", "640", "--height", "360",
                                "--capture-width", "1000", "--capture-height", "800", "--seed",
                                "7", "--noise", "3", "--moire", "0.2", "--mirror"},
                               dir);
    ASSERT_EQ(r.exit_code, 0) << r.err;
  }
  for (const char* name : {"reference.yuv", "capture.jpg", "corners.txt"}) {
    const std::vector<unsigned char> a = read_bytes(dir.file(std::string("a/") + name));
    EXPECT_FALSE(a.empty()) << name;
    EXPECT_EQ(a, read_bytes(dir.file(std::string("b/") + name))) << name;
  }
  EXPECT_EQ(read_bytes(dir.file("a/reference.yuv")).size(), 640u * 360u * 3u / 2u);

  const ToolRun bad = run_tool({"--noise", "lots"}, dir);
  EXPECT_EQ(bad.exit_code, 2);
  EXPECT_EQ(bad.err, "framealign-sim: --noise needs a number from 0 to 50, got 'lots' (see --help)\n");
}

}  // namespace
