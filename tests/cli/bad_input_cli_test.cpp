// Bad inputs through the binary: each gets the tool's own message and exit
// code, or where the tool has no message of its own, a clear one and a
// non-zero exit; no signal but the abort of an uncaught exception, no hang
// (run_tool's timeout), and no file a later step could take for a result.
#include <signal.h>

#include <cstdint>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "cli/run_tool.h"
#include "synthetic.h"

namespace {

constexpr int kAbort = 128 + SIGABRT;

void picture(const TempDir& d, const std::string& name, const cv::Mat& m) { cv::imwrite(d.file(name), m); }

void raw(const TempDir& d, const std::string& name, int width, int height) {
  const cv::Mat luma = make_texture(width, height, 2);
  std::vector<unsigned char> bytes(luma.datastart, luma.dataend);
  bytes.resize(bytes.size() + 2 * ((width + 1) / 2) * ((height + 1) / 2), 128);
  write_bytes(d.file(name), bytes);
}

// A .ftrs file: count, then rows, cols, type and `data_bytes` bytes.
std::vector<unsigned char> ftrs(uint64_t count, int32_t rows, int32_t cols, int32_t type, size_t data_bytes) {
  std::vector<unsigned char> bytes(20 + data_bytes, 1);
  std::memcpy(bytes.data(), &count, 8);
  const int32_t header[3] = {rows, cols, type};
  std::memcpy(bytes.data() + 8, header, 12);
  return bytes;
}

TEST(framealign, BadInputBattery) {
  std::vector<unsigned char> jpeg;
  cv::imencode(".jpg", make_texture(64, 48, 1), jpeg);
  const std::vector<unsigned char> truncated(jpeg.begin(), jpeg.begin() + 100);
  std::vector<unsigned char> corrupt_png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  corrupt_png.resize(300, 0x5a);

  auto capture = [](const TempDir& d) { picture(d, "cap.png", make_texture(320, 240, 4)); };
  auto with_cache = [&](std::vector<unsigned char> cache) {
    return [=](const TempDir& d) {
      capture(d);
      write_bytes(d.file("ref_0.ftrs"), cache);  // beside a reference that does not exist
    };
  };
  // Paths with a folder part keep the feature caches inside the test folder.
  const std::vector<std::string> search = {"--input-file", "./cap.png", "--reference-file", "./ref.yuv",
                                           "--width", "160", "--height", "90", "--result-folder", "out"};
  auto plus = [](std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  auto pts = [&](const std::vector<std::string>& values) {
    return plus({"--input-file", "./cap.png", "--result-folder", "out", "--pts"}, values);
  };
  const std::string short_read = "Failed to read complete YUV420 data from file: ";
  const std::string bad_corners = "Corner points do not form a quadrilateral: ";

  struct Case {
    const char* name;
    std::function<void(const TempDir&)> setup;
    std::vector<std::string> args;
    int exit_code;
    std::string err;  // for exit code 255 the exact last line, otherwise a part that must appear
  };
  const std::vector<Case> cases = {
      {"empty JPEG", [](const TempDir& d) { write_bytes(d.file("in.jpg"), {}); },
       {"--input-file", "in.jpg", "--result-folder", "out"}, 255, "Failed to read image file: in.jpg\n"},
      {"truncated JPEG", [&](const TempDir& d) { write_bytes(d.file("in.jpg"), truncated); },
       {"--input-file", "in.jpg"}, 255, "Failed to read image file: in.jpg\n"},
      {"corrupt PNG", [&](const TempDir& d) { write_bytes(d.file("in.png"), corrupt_png); },
       {"--input-file", "in.png"}, 255, "Failed to read image file: in.png\n"},
      {"directory as picture", [](const TempDir& d) { std::filesystem::create_directory(d.file("d.png")); },
       {"--input-file", "d.png"}, 255, "Failed to read image file: d.png\n"},
      {".jpe input", [&](const TempDir& d) { write_bytes(d.file("in.jpe"), jpeg); },
       {"--input-file", "in.jpe", "--result-folder", "out"}, kAbort, "Unsupported input file format (.jpe)"},
      {"input without extension", [&](const TempDir& d) { write_bytes(d.file("in"), jpeg); },
       {"--input-file", "in"}, kAbort, "Unsupported input file format ()"},
      {"directory as raw input", [](const TempDir& d) { std::filesystem::create_directory(d.file("d.yuv")); },
       {"--input-file", "d.yuv", "--width", "16", "--height", "16"}, kAbort, short_read + "d.yuv with resolution 16x16"},
      {"raw input shorter than a frame", [](const TempDir& d) { write_bytes(d.file("s.yuv"), std::vector<unsigned char>(100)); },
       {"--input-file", "s.yuv", "--width", "16", "--height", "16"}, kAbort, short_read + "s.yuv with resolution 16x16"},
      {"directory as reference", [&](const TempDir& d) { capture(d); std::filesystem::create_directory(d.file("ref.yuv")); },
       search, kAbort, short_read + "./ref.yuv with resolution 160x90"},
      {"reference frame past the end", [&](const TempDir& d) { capture(d); raw(d, "ref.yuv", 160, 90); },
       plus(search, {"--frame-number", "1"}), kAbort, short_read + "./ref.yuv with resolution 160x90"},
      {"cache with a huge count", with_cache(ftrs(uint64_t(1) << 60, 0, 0, 0, 80)), search, 0,
       "Error reading features from cache: "},
      {"cache with truncated descriptors", with_cache(ftrs(0, 500, 128, 5, 1000)), search, 0,
       "Error reading features from cache: "},
      {"cache with an impossible type", with_cache(ftrs(0, 1, 1, 99999, 64)), search, 0,
       "Error reading features from cache: "},
      {"result folder is a regular file", [&](const TempDir& d) { capture(d); write_bytes(d.file("out"), {1}); },
       pts({"10", "10", "300", "12", "8", "230", "310", "228"}), kAbort, "Cannot write result file: out/aligned_"},
      {"zero width", capture, {"--input-file", "./cap.png", "--width", "0"}, kAbort, "Invalid frame size: 0x1080"},
      {"negative height", capture, {"--input-file", "./cap.png", "--height", "-4"}, kAbort, "Invalid frame size: 1920x-4"},
      {"size beyond 32 bits", capture, {"--input-file", "./cap.png", "--width", "70000", "--height", "70000"},
       kAbort, "Invalid frame size: 70000x70000"},
      {"all corners equal", capture, pts({"5", "5", "5", "5", "5", "5", "5", "5"}), kAbort, bad_corners},
      {"three corners on a line", capture, pts({"0", "0", "100", "0", "200", "0", "100", "100"}), kAbort, bad_corners},
      {"NaN corner", capture, pts({"0", "0", "100", "0", "0", "100", "nan", "100"}), kAbort, bad_corners},
      {"infinite corner", capture, pts({"0", "0", "inf", "0", "0", "100", "100", "100"}), kAbort, bad_corners},
      {"uniform grey capture",
       [](const TempDir& d) { picture(d, "cap.png", cv::Mat(240, 320, CV_8UC1, cv::Scalar(128))); raw(d, "ref.yuv", 160, 90); },
       search, kAbort, "No features found to match against"},
      {"capture smaller than the reference",
       [](const TempDir& d) { picture(d, "cap.png", make_texture(40, 30, 5)); raw(d, "ref.yuv", 160, 90); },
       plus(search, {"--no-rectify"}), kAbort, "cannot fill a 160x90 frame"},
  };

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    c.setup(dir);
    const ToolRun r = run_tool(c.args, dir);
    EXPECT_EQ(r.exit_code, c.exit_code) << r.err;
    if (c.exit_code == 255) {
      // The decoders may warn first, in their own words.
      EXPECT_EQ(r.err.substr(r.err.size() - std::min(r.err.size(), c.err.size())), c.err) << r.err;
    } else {
      EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    }
    if (c.exit_code != 0) {
      EXPECT_EQ(r.out, "");
      const bool any_file = std::filesystem::is_directory(dir.file("out")) &&
                            !std::filesystem::is_empty(dir.file("out"));
      EXPECT_FALSE(any_file);
    } else {
      // The damaged cache is a miss; the blank reference then matches nothing,
      // and the folder's only file says so.
      EXPECT_EQ(r.out.rfind("best score: 999999\n", 0), 0u) << r.out;
      EXPECT_EQ(read_text(dir.file("out/best_result.txt")), "999999.000000\n");
    }
  }
}

}  // namespace
