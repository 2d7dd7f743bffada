// The command line as a user meets it, good and bad: what the built binary
// prints on standard output and standard error, and its exit code. A run
// that fails prints nothing on standard output and leaves no file in its
// result folder that a later step could take for a result; none hangs
// (run_tool's timeout) or dies of a signal other than the abort of an
// uncaught exception.
#include <signal.h>

#include <cstdint>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "cli/run_tool.h"

namespace {

constexpr int kAbort = 128 + SIGABRT;
using Args = std::vector<std::string>;
using Setup = std::function<void(const TempDir&)>;

enum Match { EXACT, ENDS_WITH, CONTAINS };

struct Case {
  std::string name;
  Setup setup;
  Args args;
  int exit_code;
  std::string out;  // a prefix of standard output; empty: nothing at all
  Match match;
  std::string err;
  Setup check = nullptr;
};

void capture(const TempDir& d) { cv::imwrite(d.file("cap.png"), make_reference_frame(320, 240, 4)); }
void reference(const TempDir& d) { write_yuv420(d.file("ref.yuv"), make_reference_frame(160, 90, 2)); }
Setup file(const std::string& name, const std::vector<unsigned char>& bytes) {
  return [=](const TempDir& d) { write_bytes(d.file(name), bytes); };
}

Args operator+(Args a, const Args& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<Case> cases() {
  const Setup none = [](const TempDir&) {};
  // Paths with a folder part keep the feature caches inside the test folder.
  const Args search = {"--input-file", "./cap.png", "--reference-file", "./ref.yuv", "--width", "160",
                       "--height", "90", "--result-folder", "out"};
  const Args pts = {"--input-file", "./cap.png", "--result-folder", "out", "--pts"};
  const Args raw = {"--input-file", "in.yuv", "--width", "5", "--height", "3"};
  const std::string must_be = "Error: --output value must be 0, 1, 2, 3, 4, fast, medium, slow, or slowest\n";
  const std::string short_read = "Failed to read complete YUV420 data from file: ";
  std::vector<unsigned char> frames(3 * 27), jpeg, huge_count(100, 1);  // three 5 x 3 raw frames; a damaged .ftrs
  const uint64_t count = uint64_t(1) << 60;  // announced keypoints, none held
  std::memcpy(huge_count.data(), &count, 8);
  cv::imencode(".jpg", make_reference_frame(64, 48, 1), jpeg);

  std::vector<Case> all = {
      {"version", none, {"--version", "--bogus"}, 0, "1.3.0\n", EXACT, ""},
      {"help reads and creates nothing", none, {"--result-folder", "out", "-h", "--width", "px"}, 0,
       "Usage: " + std::string(FRAMEALIGN_BINARY) + " <options>\nOptions:\n  --help ", EXACT, "",
       [](const TempDir& d) { EXPECT_FALSE(std::filesystem::exists(d.file("out"))); }},
      {"unknown after version", none, {"--bogus", "--version"}, 255, "", EXACT, "Error: Unknown option --bogus\n"},
      {"listed but unknown", none, {"--overlay-size", "512"}, 255, "", EXACT, "Error: Unknown option --overlay-size\n"},
      {"point", none, {"--pts", "1", "2", "3", "x", "5", "6", "7", "8"}, 255, "", EXACT,
       "Error: Invalid point value: x, stod\n"},
      {"seven points", none, {"--pts", "1", "2", "3", "4", "5", "6", "7"}, 255, "", EXACT,
       "Error: --pts option requires 8 arguments\n"},
      {"trailing comma", none, {"--output", "1,"}, 255, "", EXACT, "Error: Invalid --output value: empty token\n"},
      {"not a whole number", none, {"--output", " 3x "}, 255, "", EXACT, "Error: Invalid --output value: 3x\n"},
      {"variant 5", none, {"--output", "5"}, 255, "", EXACT, must_be},
      {"no value", none, {"--advanced", "--crop-height"}, 255, "", EXACT, "Error: --crop-height option requires an argument\n"},
      {"size beyond int", none, {"--input-width", "99999999999"}, 255, "", EXACT,
       "Error: Invalid input width value: stoi\n"},
      // OpenCV and its decoders speak for themselves while the picture is read;
      // the alignment silences them later.
      {"missing picture, nested folder", none, {"--result-folder", "a/b/c", "--input-file", "missing.png"}, 255,
       "", ENDS_WITH, "Failed to read image file: missing.png\n",
       [](const TempDir& d) { EXPECT_TRUE(std::filesystem::is_directory(d.file("a/b/c"))); }},
      {"folder below a file", file("plain", {1}), {"--result-folder", "plain/sub", "--input-file", "x.jpg"}, 255,
       "", CONTAINS, "Filesystem error: "},
      {"truncated JPEG", file("in.jpg", {jpeg.begin(), jpeg.begin() + 100}), {"--input-file", "in.jpg"}, 255, "",
       ENDS_WITH, "Failed to read image file: in.jpg\n"},
      {".jpe input", file("in.jpe", jpeg), {"--input-file", "in.jpe", "--result-folder", "out"}, kAbort, "",
       CONTAINS, "Unsupported input file format (.jpe)"},
      {"missing raw input", none, raw, kAbort, "", CONTAINS, "Failed to open file: in.yuv"},
      {"raw input shorter than a frame", file("in.yuv", {1, 2, 3}), raw, kAbort, "", CONTAINS,
       short_read + "in.yuv with resolution 5x3"},
      // The frame's offset lies past 4 GiB: the seek succeeds, the read fails.
      {"reference frame far past the end", [=](const TempDir& d) { capture(d); write_bytes(d.file("ref.yuv"), frames); },
       search + Args{"--width", "5", "--height", "3", "--frame-number", "2000000000"}, kAbort, "", CONTAINS,
       short_read + "./ref.yuv with resolution 5x3"},
      {"size beyond 32 bits", capture, {"--input-file", "./cap.png", "--width", "70000", "--height", "70000"},
       kAbort, "", CONTAINS, "Invalid frame size: 70000x70000"},
      // Beside a reference that does not exist.
      {"damaged reference cache", [=](const TempDir& d) { capture(d); write_bytes(d.file("ref_0.ftrs"), huge_count); }, search, 0, "best score: 999999\n", CONTAINS,
       "Error reading features from cache: ",
       // The damaged cache is a miss, the blank reference matches nothing, and the folder says so.
       [](const TempDir& d) { EXPECT_EQ(read_text(d.file("out/best_result.txt")), "999999.000000\n"); }},
      {"result folder is a regular file", [](const TempDir& d) { capture(d); write_bytes(d.file("out"), {1}); },
       pts + Args{"10", "10", "300", "12", "8", "230", "310", "228"}, kAbort, "", CONTAINS,
       "Cannot write result file: out/aligned_"},
      {"NaN corner", capture, pts + Args{"0", "0", "100", "0", "0", "100", "nan", "100"}, kAbort, "", CONTAINS,
       "Corner points do not form a quadrilateral: "},
      {"uniform grey capture",
       [](const TempDir& d) { cv::imwrite(d.file("cap.png"), cv::Mat(240, 320, CV_8UC1, cv::Scalar(128))); reference(d); },
       search, kAbort, "", CONTAINS, "No features found to match against"},
      {"capture smaller than the reference",
       [](const TempDir& d) { cv::imwrite(d.file("cap.png"), make_reference_frame(40, 30, 5)); reference(d); },
       search + Args{"--no-rectify"}, kAbort, "", CONTAINS, "Picture of 40x30 cannot fill a 160x90 frame"},
  };
  return all;
}

TEST(framealign, OutcomesOfEveryKindOfCall) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    c.setup(dir);
    const ToolRun r = run_tool(c.args, dir);
    EXPECT_EQ(r.exit_code, c.exit_code) << r.err;
    EXPECT_EQ(r.out.substr(0, c.out.empty() ? std::string::npos : c.out.size()), c.out);
    if (c.match == EXACT) {
      EXPECT_EQ(r.err, c.err);
    } else if (c.match == ENDS_WITH) {
      EXPECT_GT(r.err.size(), c.err.size()) << "the decoder's own warning comes first";
      EXPECT_EQ(r.err.substr(r.err.size() - std::min(r.err.size(), c.err.size())), c.err);
    } else {
      EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    }
    if (c.exit_code != 0) {
      EXPECT_FALSE(std::filesystem::is_directory(dir.file("out")) && !std::filesystem::is_empty(dir.file("out")));
    }
    if (c.check) c.check(dir);
  }
}

}  // namespace
