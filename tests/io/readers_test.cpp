// The readers' success paths; their failure messages are checked through
// the binary (tests/cli/cli_test.cpp).
#include "io/readers.h"

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

// Decoded pictures are taken as their bytes lie; in PNG luma every sample but
// 0 is raised by 16, saturating.
TEST(extract_frame_from_yuv420_file, DecodesPicturesAsTheirBytesLie) {
  TempDir dir;
  const cv::Mat picture = (cv::Mat_<unsigned char>(2, 3) << 0, 1, 239, 240, 255, 20);
  const std::vector<int> png = {0, 17, 255, 255, 255, 36};
  for (const std::string name : {"p.TIFF", "p.Png"}) {
    ASSERT_TRUE(cv::imwrite(dir.file(name), picture));
    std::vector<unsigned char> luma(6);
    extract_frame_from_yuv420_file(dir.file(name), luma.data(), 2, 3, 0);  // 2 x 3, not 3 x 2
    for (int i = 0; i < 6; ++i) EXPECT_EQ(luma[i], name == "p.Png" ? png[i] : picture.data[i]) << i;
    EXPECT_THROW(extract_frame_from_yuv420_file(dir.file(name), luma.data(), 4, 4, 0), std::runtime_error);
  }
}

TEST(is_input_file_compressed, ExtensionsByCaseInsensitiveMatch) {
  for (const char* yes : {"a.png", "a.JPG", "d.x/a.jpeg", "a.TIFF", "a.tif", "a.webp", "a.Bmp"}) EXPECT_TRUE(is_input_file_compressed(yes)) << yes;
  for (const char* no : {"a.jpe", "a.gif", "a.yuv", "a", ".png", "a.png/", ""}) EXPECT_FALSE(is_input_file_compressed(no)) << no;
}

}  // namespace
