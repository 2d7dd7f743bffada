// Bad inputs, run through the binary: each gets its specified message and
// exit code (or, where none is specified, a clear message and a non-zero
// exit), never a signal other than the abort of an uncaught exception, never
// a hang, and never a result folder a later step would take for a result.
#include <signal.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "cli/run_tool.h"
#include "synthetic.h"
#include "test_support.h"

namespace {

constexpr int kAbort = 128 + SIGABRT;  // an uncaught exception, as the shell sees it

struct Outcome {
  int exit_code;       // exact
  std::string stderr;  // exact when `exact`, else a part that must appear
  bool exact;
  std::string stdout;  // exact
};

struct Case {
  std::string name;
  std::function<void(const TempDir&)> setup;
  std::vector<std::string> args;
  Outcome expected;
};

void write_picture(const std::string& path, const cv::Mat& picture) {
  ASSERT_TRUE(cv::imwrite(path, picture)) << path;
}

std::vector<unsigned char> valid_jpeg() {
  std::vector<unsigned char> bytes;
  cv::imencode(".jpg", make_texture(64, 48, 1), bytes);
  return bytes;
}

void write_yuv(const std::string& path, int width, int height, int frames) {
  const cv::Mat luma = make_texture(width, height, 2);
  std::vector<unsigned char> frame(luma.data, luma.data + luma.total());
  frame.resize(frame.size() + 2 * ((width + 1) / 2) * ((height + 1) / 2), 128);
  std::vector<unsigned char> all;
  for (int i = 0; i < frames; ++i) all.insert(all.end(), frame.begin(), frame.end());
  write_bytes(path, all);
}

std::vector<unsigned char> ftrs_header(uint64_t count) {
  std::vector<unsigned char> bytes(8);
  std::memcpy(bytes.data(), &count, 8);
  return bytes;
}

void append_int32(std::vector<unsigned char>& bytes, int32_t v) {
  const auto* p = reinterpret_cast<const unsigned char*>(&v);
  bytes.insert(bytes.end(), p, p + 4);
}

// A textured capture and a 64 x 48 reference whose features must come from
// a cache that is damaged in the given way.
void damaged_cache_setup(const TempDir& dir, const std::vector<unsigned char>& ftrs) {
  write_picture(dir.file("cap.png"), make_texture(200, 150, 3));
  write_bytes(dir.file("ref_0.ftrs"), ftrs);
}

std::vector<std::string> pts_args(std::vector<std::string> pts) {
  std::vector<std::string> args = {"--input-file", "./cap.png", "--result-folder", "out", "--pts"};
  args.insert(args.end(), pts.begin(), pts.end());
  return args;
}

const std::string kBadCorners = "Corner points do not form a quadrilateral: ";

TEST(framealign, BadInputBattery) {
  std::vector<unsigned char> truncated_jpeg = valid_jpeg();
  truncated_jpeg.resize(100);
  std::vector<unsigned char> corrupt_png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  corrupt_png.resize(300, 0x5a);

  std::vector<unsigned char> huge_count = ftrs_header(uint64_t(1) << 60);
  huge_count.resize(100, 0);
  std::vector<unsigned char> short_descriptors = ftrs_header(0);
  append_int32(short_descriptors, 500);
  append_int32(short_descriptors, 128);
  append_int32(short_descriptors, 5);
  short_descriptors.resize(short_descriptors.size() + 1000, 1);
  std::vector<unsigned char> bad_type = ftrs_header(0);
  append_int32(bad_type, 1);
  append_int32(bad_type, 1);
  append_int32(bad_type, 99999);
  bad_type.resize(bad_type.size() + 64, 0);

  const auto capture = [](const TempDir& dir) {
    write_picture(dir.file("cap.png"), make_texture(320, 240, 4));
  };
  const std::vector<std::string> search = {"--input-file", "./cap.png", "--reference-file",
                                           "./ref.yuv", "--width", "64", "--height", "48",
                                           "--result-folder", "out"};
  auto with = [](std::vector<std::string> a, std::vector<std::string> b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };

  const std::vector<Case> cases = {
      {"empty JPEG", [](const TempDir& d) { write_bytes(d.file("in.jpg"), {}); },
       {"--input-file", "in.jpg", "--result-folder", "out"},
       {255, "Failed to read image file: in.jpg\n", true, ""}},
      {"truncated JPEG", [&](const TempDir& d) { write_bytes(d.file("in.jpg"), truncated_jpeg); },
       {"--input-file", "in.jpg", "--result-folder", "out"},
       {255, "Failed to read image file: in.jpg\n", false, ""}},
      {"corrupt PNG", [&](const TempDir& d) { write_bytes(d.file("in.png"), corrupt_png); },
       {"--input-file", "in.png"},
       {255, "Failed to read image file: in.png\n", false, ""}},
      {".jpe input", [](const TempDir& d) { write_bytes(d.file("in.jpe"), valid_jpeg()); },
       {"--input-file", "in.jpe", "--result-folder", "out"},
       {kAbort, "Unsupported input file format (.jpe)", false, ""}},
      {"input without extension", [](const TempDir& d) { write_bytes(d.file("in"), valid_jpeg()); },
       {"--input-file", "in"},
       {kAbort, "Unsupported input file format ()", false, ""}},
      {"directory as picture input",
       [](const TempDir& d) { std::filesystem::create_directory(d.file("dir.png")); },
       {"--input-file", "dir.png"},
       {255, "Failed to read image file: dir.png\n", true, ""}},
      {"directory as raw input",
       [](const TempDir& d) { std::filesystem::create_directory(d.file("dir.yuv")); },
       {"--input-file", "dir.yuv", "--width", "16", "--height", "16"},
       {kAbort, "Failed to read complete YUV420 data from file: dir.yuv with resolution 16x16", false, ""}},
      {"directory as reference",
       [&](const TempDir& d) {
         capture(d);
         std::filesystem::create_directory(d.file("ref.yuv"));
       },
       search,
       {kAbort, "Failed to read complete YUV420 data from file: ./ref.yuv with resolution 64x48", false, ""}},
      {"raw input shorter than a frame",
       [](const TempDir& d) { write_bytes(d.file("short.yuv"), std::vector<unsigned char>(100, 7)); },
       {"--input-file", "short.yuv", "--width", "16", "--height", "16"},
       {kAbort, "Failed to read complete YUV420 data from file: short.yuv with resolution 16x16", false, ""}},
      {"reference frame past the end",
       [&](const TempDir& d) {
         capture(d);
         write_yuv(d.file("ref.yuv"), 64, 48, 2);
       },
       with(search, {"--frame-number", "2"}),
       {kAbort, "Failed to read complete YUV420 data from file: ./ref.yuv with resolution 64x48", false, ""}},
      {"cache with a huge keypoint count", [&](const TempDir& d) { damaged_cache_setup(d, huge_count); },
       with(search, {"--input-file", "./cap.png"}),
       {0, "Error reading features from cache: ", false, ""}},
      {"cache with truncated descriptors",
       [&](const TempDir& d) { damaged_cache_setup(d, short_descriptors); }, search,
       {0, "Error reading features from cache: ", false, ""}},
      {"cache with an impossible matrix type",
       [&](const TempDir& d) { damaged_cache_setup(d, bad_type); }, search,
       {0, "Error reading features from cache: ", false, ""}},
      {"result folder is a regular file",
       [&](const TempDir& d) {
         capture(d);
         write_bytes(d.file("out"), {1, 2, 3});
       },
       pts_args({"10", "10", "300", "12", "8", "230", "310", "228"}),
       {kAbort, "Cannot write result file: out/aligned_", false, ""}},
      {"zero width", capture, {"--input-file", "./cap.png", "--width", "0"},
       {kAbort, "Invalid frame size: 0x1080", false, ""}},
      {"negative height", capture, {"--input-file", "./cap.png", "--height", "-4"},
       {kAbort, "Invalid frame size: 1920x-4", false, ""}},
      {"width x height beyond 32 bits", capture,
       {"--input-file", "./cap.png", "--width", "70000", "--height", "70000"},
       {kAbort, "Invalid frame size: 70000x70000", false, ""}},
      {"negative input size", [](const TempDir& d) { write_yuv(d.file("in.yuv"), 16, 16, 1); },
       {"--input-file", "in.yuv", "--input-width", "-16", "--input-height", "16"},
       {kAbort, "Invalid frame size: -16x16", false, ""}},
      {"all corners equal", capture, pts_args({"5", "5", "5", "5", "5", "5", "5", "5"}),
       {kAbort, kBadCorners, false, ""}},
      {"three corners on a line", capture,
       pts_args({"0", "0", "100", "0", "200", "0", "100", "100"}),
       {kAbort, kBadCorners, false, ""}},
      {"NaN corner", capture, pts_args({"0", "0", "100", "0", "0", "100", "nan", "100"}),
       {kAbort, kBadCorners, false, ""}},
      {"infinite corner", capture, pts_args({"0", "0", "inf", "0", "0", "100", "100", "100"}),
       {kAbort, kBadCorners, false, ""}},
      {"uniform grey capture",
       [](const TempDir& d) {
         write_picture(d.file("cap.png"), cv::Mat(240, 320, CV_8UC1, cv::Scalar(128)));
         write_yuv(d.file("ref.yuv"), 160, 90, 1);
       },
       {"--input-file", "./cap.png", "--reference-file", "./ref.yuv", "--width", "160", "--height",
        "90", "--result-folder", "out"},
       {kAbort, "No features found to match against", false, ""}},
      {"capture smaller than the reference",
       [](const TempDir& d) {
         write_picture(d.file("cap.png"), make_texture(40, 30, 5));
         write_yuv(d.file("ref.yuv"), 64, 48, 1);
       },
       with(search, {"--no-rectify"}),
       {kAbort, "cannot fill a 64x48 frame", false, ""}},
  };

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    c.setup(dir);
    const ToolRun r = run_tool(c.args, dir);
    EXPECT_EQ(r.exit_code, c.expected.exit_code) << r.err;
    if (c.expected.exact) {
      EXPECT_EQ(r.err, c.expected.stderr);
    } else {
      EXPECT_NE(r.err.find(c.expected.stderr), std::string::npos) << r.err;
    }
    if (c.expected.exit_code != 0) {
      EXPECT_EQ(r.out, c.expected.stdout);
      // No file at all that a later step could take for a result.
      if (std::filesystem::is_directory(dir.file("out"))) {
        EXPECT_TRUE(std::filesystem::is_empty(dir.file("out")));
      }
    } else {
      // A run that ends normally with a damaged cache finds nothing in a blank
      // reference, and says so in the folder's only file.
      EXPECT_EQ(r.out.rfind("best score: 999999\nalignment time: ", 0), 0u) << r.out;
      EXPECT_EQ(read_text(dir.file("out/best_result.txt")), "999999.000000\n");
    }
  }
}

}  // namespace
