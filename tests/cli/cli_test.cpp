// Runs the built framealign binary as a process and checks what a user sees:
// standard output, standard error and the exit code.

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "cli/run_tool.h"
#include "test_support.h"

namespace {

TEST(framealign, OptionOutcomes) {
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string out;
    std::string err;
  };
  const std::vector<Case> cases = {
      {{"--version"}, 0, "1.3.0\n", ""},
      {{"--version", "--overlay-size"}, 0, "1.3.0\n", ""},
      {{"--width", "px"}, 255, "", "Error: Invalid width value: stoi\n"},
      {{"--overlay-size", "512"}, 255, "", "Error: Unknown option --overlay-size\n"},
      {{"--bogus", "--version"}, 255, "", "Error: Unknown option --bogus\n"},
      {{"--pts", "1", "2", "3", "x", "5", "6", "7", "8"}, 255, "",
       "Error: Invalid point value: x, stod\n"},
      {{"--output", "1,"}, 255, "", "Error: Invalid --output value: empty token\n"},
      {{"--result-folder"}, 255, "", "Error: --result-folder option requires an argument\n"},
  };
  TempDir dir;
  for (const Case& c : cases) {
    const ToolRun r = run_tool(c.args, dir);
    EXPECT_EQ(r.exit_code, c.exit_code) << c.args[0];
    EXPECT_EQ(r.out, c.out) << c.args[0];
    EXPECT_EQ(r.err, c.err) << c.args[0];
  }
}

TEST(framealign, HelpPrintsUsageAndReadsNothing) {
  TempDir dir;
  const ToolRun r = run_tool({"--result-folder", "out", "-h", "--width", "px"}, dir);
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out.rfind("Usage: " + std::string(FRAMEALIGN_BINARY) + " <options>\nOptions:\n", 0),
            0u);
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(std::filesystem::exists(dir.file("out")));
}

TEST(framealign, ResultFolderIsPreparedBeforeTheInputIsRead) {
  TempDir dir;
  // Nested folders are created even though the input then fails.
  ToolRun r = run_tool({"--result-folder", "a/b/c", "--input-file", "missing.png"}, dir);
  EXPECT_EQ(r.exit_code, 255);
  EXPECT_EQ(r.err, "Failed to read image file: missing.png\n");
  EXPECT_TRUE(std::filesystem::is_directory(dir.file("a/b/c")));

  // An existing regular file is accepted as the folder without complaint.
  write_bytes(dir.file("plain"), {1});
  r = run_tool({"--result-folder", "plain", "--input-file", "missing.jpg"}, dir);
  EXPECT_EQ(r.err, "Failed to read image file: missing.jpg\n");

  // A folder below a regular file cannot be made.
  r = run_tool({"--result-folder", "plain/sub", "--input-file", "missing.jpg"}, dir);
  EXPECT_EQ(r.exit_code, 255);
  EXPECT_EQ(r.err.rfind("Filesystem error: ", 0), 0u) << r.err;
}

TEST(framealign, UnreadableInputsEndTheRun) {
  TempDir dir;
  write_bytes(dir.file("empty.png"), {});
  ToolRun r = run_tool({"--input-file", "empty.png"}, dir);
  EXPECT_EQ(r.exit_code, 255);
  EXPECT_EQ(r.err, "Failed to read image file: empty.png\n");

  // Reader exceptions are not caught: the process ends abnormally with the message.
  r = run_tool({}, dir);
  EXPECT_NE(r.exit_code, 0);
  EXPECT_NE(r.err.find("Unsupported input file format ()"), std::string::npos) << r.err;

  write_bytes(dir.file("short.yuv"), std::vector<unsigned char>(100));
  r = run_tool({"--input-file", "short.yuv", "--width", "16", "--height", "16"}, dir);
  EXPECT_NE(r.exit_code, 0);
  EXPECT_NE(r.err.find("Failed to read complete YUV420 data from file: short.yuv with "
                       "resolution 16x16"),
            std::string::npos)
      << r.err;

  // --input-width/--input-height larger than the picture fail instead of over-reading.
  ASSERT_TRUE(cv::imwrite(dir.file("small.png"), cv::Mat(8, 8, CV_8UC1, cv::Scalar(3))));
  r = run_tool({"--input-file", "small.png", "--input-width", "64", "--input-height", "64"}, dir);
  EXPECT_NE(r.exit_code, 0);
  EXPECT_NE(r.err.find("smaller than the requested 64x64"), std::string::npos) << r.err;

  r = run_tool({"--input-file", "short.yuv", "--width", "70000", "--height", "70000"}, dir);
  EXPECT_NE(r.exit_code, 0);
  EXPECT_NE(r.err.find("Invalid frame size: 70000x70000"), std::string::npos) << r.err;
}

}  // namespace
