#include "main/readers.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "test_support.h"

namespace {

template <typename Exception>
void expect_error(const std::function<void()>& call, const std::string& message) {
  try {
    call();
    ADD_FAILURE() << "no exception, expected: " << message;
  } catch (const Exception& e) {
    EXPECT_EQ(std::string(e.what()), message);
  } catch (const std::exception& e) {
    ADD_FAILURE() << "wrong exception type: " << e.what();
  }
}

// Three 5x3 frames whose bytes count up, so every offset is recognisable.
std::vector<unsigned char> three_small_frames() {
  std::vector<unsigned char> bytes(3 * 27);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i);
  return bytes;
}

TEST(extract_frame_from_yuv420_file, Nominal) {
  TempDir dir;
  const std::string path = dir.file("clip.YUV");
  write_bytes(path, three_small_frames());
  for (int frame : {-1, 0, 1, 2}) {
    std::vector<unsigned char> luma(15, 0xEE);
    extract_frame_from_yuv420_file(path, luma.data(), 5, 3, frame);
    const int first = frame < 0 ? 0 : frame * 27;
    for (int i = 0; i < 15; ++i) ASSERT_EQ(luma[i], first + i) << "frame " << frame;
  }
}

TEST(extract_frame_from_yuv420_file, FailuresCarryExactMessages) {
  TempDir dir;
  const std::string raw = dir.file("clip.yuv");
  write_bytes(raw, three_small_frames());
  std::vector<unsigned char> luma(100);
  unsigned char* out = luma.data();

  expect_error<std::runtime_error>(
      [&] { extract_frame_from_yuv420_file(raw, out, 5, 3, 3); },
      "Failed to read complete YUV420 data from file: " + raw + " with resolution 5x3");
  expect_error<std::runtime_error>(
      [&] { extract_frame_from_yuv420_file(raw, out, 10, 10, 0); },
      "Failed to read complete YUV420 data from file: " + raw + " with resolution 10x10");
  // Frame offsets are 64-bit: this one lies far past 4 GiB and only fails the read.
  expect_error<std::runtime_error>(
      [&] { extract_frame_from_yuv420_file(raw, out, 5, 3, 2000000000); },
      "Failed to read complete YUV420 data from file: " + raw + " with resolution 5x3");
  expect_error<std::runtime_error>(
      [&] { extract_frame_from_yuv420_file(dir.file("missing.yuv"), out, 5, 3, 0); },
      "Failed to open file: " + dir.file("missing.yuv"));
  expect_error<std::invalid_argument>(
      [&] { extract_frame_from_yuv420_file(dir.file("a.jpe"), out, 5, 3, 0); },
      "Unsupported input file format (.jpe)");
  expect_error<std::invalid_argument>(
      [&] { extract_frame_from_yuv420_file(dir.file(".png"), out, 5, 3, 0); },
      "Unsupported input file format ()");
  expect_error<std::invalid_argument>(
      [&] { extract_frame_from_yuv420_file("", out, 5, 3, 0); },
      "Unsupported input file format ()");
  write_bytes(dir.file("broken.jpg"), {0xFF, 0xD8, 0xFF, 0x00, 0x12});
  expect_error<std::runtime_error>(
      [&] { extract_frame_from_yuv420_file(dir.file("broken.jpg"), out, 5, 3, 0); },
      "Failed to read image file: " + dir.file("broken.jpg"));
}

TEST(extract_frame_from_yuv420_file, ImpossibleSizesFailInsteadOfOverrunning) {
  TempDir dir;
  const std::string raw = dir.file("clip.yuv");
  write_bytes(raw, three_small_frames());
  std::vector<unsigned char> luma(64);
  // A negative frame size makes the seek offset negative: the seek fails.
  expect_error<std::runtime_error>(
      [&] { extract_frame_from_yuv420_file(raw, luma.data(), -5, 3, 1); },
      "Failed to seek to frame 1 in file: " + raw);
  expect_error<std::invalid_argument>(
      [&] { extract_frame_from_yuv420_file(raw, luma.data(), -5, 3, 0); },
      "Invalid frame size: -5x3");

  const std::string png = dir.file("small.png");
  ASSERT_TRUE(cv::imwrite(png, cv::Mat(2, 2, CV_8UC1, cv::Scalar(7))));
  EXPECT_THROW(extract_frame_from_yuv420_file(png, luma.data(), 5, 3, 0), std::runtime_error);
}

TEST(extract_frame_from_yuv420_file, DecodesPicturesAsGreyRows) {
  TempDir dir;
  cv::Mat picture(2, 3, CV_8UC1);
  for (int i = 0; i < 6; ++i) picture.data[i] = static_cast<unsigned char>(10 * i);
  for (const char* name : {"p.TIFF", "p.bmp", "p.Png"}) {
    ASSERT_TRUE(cv::imwrite(dir.file(name), picture)) << name;
    std::vector<unsigned char> luma(6);
    extract_frame_from_yuv420_file(dir.file(name), luma.data(), 3, 2, 7);
    const bool png = std::string(name) == "p.Png";
    for (int i = 0; i < 6; ++i) {
      EXPECT_EQ(luma[i], 10 * i + (png && i > 0 ? 16 : 0)) << name << " " << i;
    }
    // The size is not compared: a 2x3 request takes the same bytes in order.
    extract_frame_from_yuv420_file(dir.file(name), luma.data(), 2, 3, 0);
    EXPECT_EQ(luma[3], png ? 46 : 30) << name;
  }
}

TEST(fix_png_luma_offset, RaisesNonZeroSamplesWithSaturation) {
  const unsigned char row[] = {0, 1, 239, 240, 255, 16};
  cv::Mat luma = cv::Mat(1, 6, CV_8UC1, const_cast<unsigned char*>(row)).clone();
  fix_png_luma_offset(luma);
  const unsigned char expected[] = {0, 17, 255, 255, 255, 32};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(luma.at<unsigned char>(0, i), expected[i]) << i;
}

TEST(is_input_file_compressed, ExtensionsByCaseInsensitiveMatch) {
  for (const char* yes : {"a.png", "a.JPG", "dir.x/a.jpeg", "a.TIFF", "a.tif", "a.webp", "a.Bmp"}) {
    EXPECT_TRUE(is_input_file_compressed(yes)) << yes;
  }
  for (const char* no : {"a.jpe", "a.gif", "a.tga", "a.yuv", "a", ".png", "png", "a.png/", ""}) {
    EXPECT_FALSE(is_input_file_compressed(no)) << no;
  }
}

TEST(file_exists, AnyEntryType) {
  TempDir dir;
  write_bytes(dir.file("f"), {1});
  EXPECT_TRUE(file_exists(dir.file("f")));
  EXPECT_TRUE(file_exists(dir.path().string()));
  EXPECT_FALSE(file_exists(dir.file("missing")));
  EXPECT_FALSE(file_exists(""));
}

TEST(get_resolution, ReadsPicturesOnly) {
  TempDir dir;
  ASSERT_TRUE(cv::imwrite(dir.file("p.png"), cv::Mat(4, 9, CV_8UC3, cv::Scalar(1, 2, 3))));
  int width = -1, height = -1;
  get_resolution(dir.file("p.png"), width, height);
  EXPECT_EQ(width, 9);
  EXPECT_EQ(height, 4);
  width = height = -1;
  get_resolution(dir.file("clip.yuv"), width, height);
  EXPECT_EQ(width, -1);
  EXPECT_THROW(get_resolution(dir.file("missing.png"), width, height), std::runtime_error);
}

TEST(yuv420_frame_size, RoundsChromaUp) {
  EXPECT_EQ(yuv420_frame_size(5, 3), 27);
  EXPECT_EQ(yuv420_frame_size(1920, 1080), 1920 * 1080 * 3 / 2);
  EXPECT_EQ(yuv420_frame_size(65535, 65535), 65535LL * 65535 + 2LL * 32768 * 32768);
}

TEST(luma_plane_size, RejectsNegativeAndOversizedPlanes) {
  EXPECT_EQ(luma_plane_size(1920, 1080), 1920u * 1080u);
  EXPECT_THROW(luma_plane_size(0, 1080), std::invalid_argument);
  EXPECT_THROW(luma_plane_size(-1, 1080), std::invalid_argument);
  EXPECT_THROW(luma_plane_size(65536, 65536), std::invalid_argument);
}

}  // namespace
