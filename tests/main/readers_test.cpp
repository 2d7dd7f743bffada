#include "main/readers.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "test_support.h"

namespace {

// Three 5 x 3 frames of 27 bytes whose bytes count up, so every offset shows.
std::vector<unsigned char> three_small_frames() {
  std::vector<unsigned char> bytes(3 * 27);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i);
  return bytes;
}

TEST(extract_frame_from_yuv420_file, ReadsTheLumaOfTheFrame) {
  TempDir dir;
  write_bytes(dir.file("clip.YUV"), three_small_frames());
  for (int frame : {-1, 0, 1, 2}) {
    std::vector<unsigned char> luma(15);
    extract_frame_from_yuv420_file(dir.file("clip.YUV"), luma.data(), 5, 3, frame);
    const int first = frame < 0 ? 0 : frame * 27;  // frame 2 starts at byte 54
    for (int i = 0; i < 15; ++i) ASSERT_EQ(luma[i], first + i) << "frame " << frame;
  }
}

TEST(extract_frame_from_yuv420_file, FailuresCarryExactMessages) {
  TempDir dir;
  const std::string raw = dir.file("clip.yuv");
  write_bytes(raw, three_small_frames());
  write_bytes(dir.file("broken.jpg"), {0xFF, 0xD8, 0xFF, 0x00});
  std::vector<unsigned char> luma(100);
  struct Case {
    std::string path;
    int width, height, frame;
    std::string message;
    bool invalid_argument;
  };
  const std::vector<Case> cases = {
      {raw, 5, 3, 3, "Failed to read complete YUV420 data from file: " + raw + " with resolution 5x3", false},
      // The offset of this frame lies past 4 GiB: only the read fails.
      {raw, 5, 3, 2000000000, "Failed to read complete YUV420 data from file: " + raw + " with resolution 5x3", false},
      {raw, -5, 3, 1, "Failed to seek to frame 1 in file: " + raw, false},
      {raw, -5, 3, 0, "Invalid frame size: -5x3", true},
      {dir.file("none.yuv"), 5, 3, 0, "Failed to open file: " + dir.file("none.yuv"), false},
      {dir.file("a.jpe"), 5, 3, 0, "Unsupported input file format (.jpe)", true},
      {dir.file(".png"), 5, 3, 0, "Unsupported input file format ()", true},
      {dir.file("broken.jpg"), 5, 3, 0, "Failed to read image file: " + dir.file("broken.jpg"), false},
  };
  for (const Case& c : cases) {
    try {
      extract_frame_from_yuv420_file(c.path, luma.data(), c.width, c.height, c.frame);
      ADD_FAILURE() << "no exception: " << c.message;
    } catch (const std::invalid_argument& e) {
      EXPECT_TRUE(c.invalid_argument) << e.what();
      EXPECT_EQ(std::string(e.what()), c.message);
    } catch (const std::runtime_error& e) {
      EXPECT_FALSE(c.invalid_argument) << e.what();
      EXPECT_EQ(std::string(e.what()), c.message);
    }
  }
}

TEST(extract_frame_from_yuv420_file, DecodesPicturesAsTheirBytesLie) {
  TempDir dir;
  cv::Mat picture(2, 3, CV_8UC1);
  for (int i = 0; i < 6; ++i) picture.data[i] = static_cast<unsigned char>(10 * i);
  for (const std::string name : {"p.TIFF", "p.Png"}) {
    ASSERT_TRUE(cv::imwrite(dir.file(name), picture));
    // Asked for 2 x 3 instead of 3 x 2, the same bytes come in the same order;
    // PNG samples other than 0 are raised by 16.
    std::vector<unsigned char> luma(6);
    extract_frame_from_yuv420_file(dir.file(name), luma.data(), 2, 3, 0);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(luma[i], 10 * i + (name == "p.Png" && i ? 16 : 0));
    // A picture smaller than asked for is refused, not read past its end.
    EXPECT_THROW(extract_frame_from_yuv420_file(dir.file(name), luma.data(), 4, 4, 0),
                 std::runtime_error);
  }
}

TEST(fix_png_luma_offset, RaisesNonZeroSamplesWithSaturation) {
  cv::Mat luma = (cv::Mat_<unsigned char>(1, 5) << 0, 1, 239, 240, 255);
  const cv::Mat expected = (cv::Mat_<unsigned char>(1, 5) << 0, 17, 255, 255, 255);
  fix_png_luma_offset(luma);
  EXPECT_EQ(cv::norm(luma, expected, cv::NORM_INF), 0.0);
}

TEST(is_input_file_compressed, ExtensionsByCaseInsensitiveMatch) {
  for (const char* yes : {"a.png", "a.JPG", "d.x/a.jpeg", "a.TIFF", "a.tif", "a.webp", "a.Bmp"}) {
    EXPECT_TRUE(is_input_file_compressed(yes)) << yes;
  }
  for (const char* no : {"a.jpe", "a.gif", "a.yuv", "a", ".png", "a.png/", ""}) {
    EXPECT_FALSE(is_input_file_compressed(no)) << no;
  }
}

}  // namespace
