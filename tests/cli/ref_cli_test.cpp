// framealign-ref as a user runs it: reference files from a picture and a
// video, never stretched, and frames back as pictures.
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "cli/run_tool.h"

namespace {

// A colour picture whose grey values vary everywhere (no black in it).
cv::Mat colour_picture(int width, int height) {
  cv::Mat bgr(height, width, CV_8UC3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) bgr.at<cv::Vec3b>(y, x) = cv::Vec3b(40 + x % 200, 60 + y % 150, 90 + (x + y) % 120);
  }
  return bgr;
}

cv::Mat viewed(const TempDir& dir, const std::vector<std::string>& args) {
  std::vector<std::string> all = {"view"};
  all.insert(all.end(), args.begin(), args.end());
  all.insert(all.end(), {"--out", "view.png", "--force"});
  const ToolRun r = run_tool(all, dir);
  EXPECT_EQ(r.exit_code, 0) << r.err;
  return cv::imread(dir.file("view.png"), cv::IMREAD_UNCHANGED);
}

TEST(framealign_ref, PicturesFitWithoutStretching) {
  TempDir dir;
  const cv::Mat picture = colour_picture(400, 300);
  cv::imwrite(dir.file("p.png"), picture);
  cv::Mat grey;
  cv::cvtColor(picture, grey, cv::COLOR_BGR2GRAY);
  // 400 x 300 into 640 x 360: scaled by 1.2 to 480 x 360, bars of 80 px each side;
  // cropped: scaled by 1.6 to 640 x 480, 60 rows cut above and below.
  const struct {
    const char* fit;
    cv::Rect picture_in_frame, shown;
  } cases[] = {{"letterbox", {80, 0, 480, 360}, {0, 0, 400, 300}}, {"crop", {0, 0, 640, 360}, {0, 37, 400, 225}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fit);
    const ToolRun r = run_tool({"picture", "p.png", "--out", std::string(c.fit) + ".yuv", "--width", "640",
                                "--height", "360", "--fit", c.fit}, dir);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(read_bytes(dir.file(std::string(c.fit) + ".yuv")).size(), 3u * 640 * 360);
    const cv::Mat luma = viewed(dir, {std::string(c.fit) + ".yuv", "--width", "640", "--height", "360", "--format", "444"});
    cv::Mat expected, diff;
    cv::resize(grey(c.shown), expected, c.picture_in_frame.size(), 0, 0, cv::INTER_AREA);
    cv::absdiff(luma(c.picture_in_frame), expected, diff);
    EXPECT_LT(cv::mean(diff)[0], 4.0);
    EXPECT_EQ(cv::countNonZero(luma) == 640 * 360, std::string(c.fit) == "crop");
  }
  const ToolRun again = run_tool({"picture", "p.png", "--out", "crop.yuv"}, dir);
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_EQ(again.err, "framealign-ref: crop.yuv exists; give --force to replace it\n");
}

TEST(framealign_ref, VideoFramesAndResultsBecomePictures) {
  TempDir dir;
  cv::VideoWriter writer(dir.file("v.avi"), cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 25,
                         cv::Size(320, 240));
  ASSERT_TRUE(writer.isOpened());
  for (int i = 0; i < 6; ++i) writer.write(cv::Mat(240, 320, CV_8UC3, cv::Scalar::all(30 + 35 * i)));
  writer.release();
  const ToolRun r = run_tool({"video", "v.avi", "--out", "ref.yuv", "--frames", "2:4"}, dir);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(read_bytes(dir.file("ref.yuv")).size(), 3u * 320 * 240 * 3 / 2);
  // The second frame written is the video's frame 3.
  EXPECT_NEAR(cv::mean(viewed(dir, {"ref.yuv", "--width", "320", "--height", "240", "--frame", "1"}))[0], 135, 3);
  // A result frame's name gives its size and says it holds luma only.
  write_bytes(dir.file("aligned_0__8xx2.yuv"), std::vector<unsigned char>(16, 77));
  EXPECT_EQ(viewed(dir, {"aligned_0__8xx2.yuv"}).size(), cv::Size(8, 2));
  for (const auto& [args, message] : {std::pair{std::vector<std::string>{"video", "v.avi", "--out", "x.yuv", "--frames", "9:9"},
                                                "framealign-ref: v.avi has no frame 9\n"},
                                      {{"view", "ref.yuv", "--width", "320", "--height", "240", "--frame", "3", "--out", "x.png"},
                                       "framealign-ref: ref.yuv holds no frame 3 of 320x240\n"}}) {
    const ToolRun bad = run_tool(args, dir);
    EXPECT_EQ(bad.exit_code, 1);
    EXPECT_EQ(bad.err, message);
    EXPECT_FALSE(std::filesystem::exists(dir.file(args[3])));
  }
}

}  // namespace
