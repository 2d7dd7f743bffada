#include "main/options.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Parsed {
  int status;
  Arguments args;
  std::string out;
  std::string err;
};

Parsed parse(std::vector<std::string> words) {
  words.insert(words.begin(), "framealign");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  Parsed p;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  p.status = parse_arguments(static_cast<int>(words.size()), argv.data(), p.args);
  p.out = testing::internal::GetCapturedStdout();
  p.err = testing::internal::GetCapturedStderr();
  return p;
}

struct ErrorCase {
  std::vector<std::string> words;
  std::string message;
};

TEST(parse_arguments, ErrorsAreReportedExactly) {
  const std::vector<ErrorCase> cases = {
      {{"--width", "px"}, "Error: Invalid width value: stoi\n"},
      {{"--width", "99999999999"}, "Error: Invalid width value: stoi\n"},
      {{"--height", ""}, "Error: Invalid height value: stoi\n"},
      {{"--input-width", "x"}, "Error: Invalid input width value: stoi\n"},
      {{"--input-height", "x"}, "Error: Invalid input height value: stoi\n"},
      {{"--frame-number", "x"}, "Error: Invalid frame number value: stoi\n"},
      {{"--crop-width", "x"}, "Error: Invalid crop width value: stoi\n"},
      {{"--crop-height", "x"}, "Error: Invalid crop height value: stoi\n"},
      {{"--pts", "1", "2", "3", "x", "5", "6", "7", "8"}, "Error: Invalid point value: x, stod\n"},
      {{"--pts", "1e999", "2", "3", "4", "5", "6", "7", "8"},
       "Error: Invalid point value: 1e999, stod\n"},
      {{"--pts", "1", "2", "3", "4", "5", "6", "7"}, "Error: --pts option requires 8 arguments\n"},
      {{"--output", ""}, "Error: Invalid --output value: empty token\n"},
      {{"--output", "1,"}, "Error: Invalid --output value: empty token\n"},
      {{"--output", ",1"}, "Error: Invalid --output value: empty token\n"},
      {{"--output", "1,,2"}, "Error: Invalid --output value: empty token\n"},
      {{"--output", " 3x "}, "Error: Invalid --output value: 3x\n"},
      {{"--output", "3.0"}, "Error: Invalid --output value: 3.0\n"},
      {{"--output", "turbo"}, "Error: Invalid --output value: turbo\n"},
      {{"--output", "99999999999"}, "Error: Invalid --output value: 99999999999\n"},
      {{"--output", "5"},
       "Error: --output value must be 0, 1, 2, 3, 4, fast, medium, slow, or slowest\n"},
      {{"--output", "-1"},
       "Error: --output value must be 0, 1, 2, 3, 4, fast, medium, slow, or slowest\n"},
      {{"--overlay-size", "512"}, "Error: Unknown option --overlay-size\n"},
      {{"--input-file=a.png"}, "Error: Unknown option --input-file=a.png\n"},
      {{"-v"}, "Error: Unknown option -v\n"},
      {{"--bogus", "--version"}, "Error: Unknown option --bogus\n"},
  };
  for (const char* option :
       {"--input-file", "--reference-file", "--width", "--height", "--input-width",
        "--input-height", "--frame-number", "--crop-width", "--crop-height", "--result-folder",
        "--output"}) {
    const Parsed p = parse({option});
    EXPECT_EQ(p.status, PARSE_ERROR) << option;
    EXPECT_EQ(p.err, std::string("Error: ") + option + " option requires an argument\n");
  }
  for (const ErrorCase& c : cases) {
    const Parsed p = parse(c.words);
    EXPECT_EQ(p.status, PARSE_ERROR) << c.words[0] << " " << c.message;
    EXPECT_EQ(p.err, c.message);
    EXPECT_EQ(p.out, "");
  }
}

TEST(parse_arguments, Nominal) {
  const Parsed p = parse({"--input-file", "a.png", "--reference-file", "r.yuv", "--width", "640",
                          "--height", "360", "--input-width", "800", "--input-height", "600",
                          "--crop-width", "-3", "--crop-height", "0", "--frame-number", "12",
                          "--result-folder", "--out", "--pts", "1", "2.5", "-3", "4e2", "5",
                          "6", "7", "8", "--advanced", "--no-rectify", "--jpeg-output",
                          "--undo-barrel", "--input-file", "b.jpg"});
  ASSERT_EQ(p.status, PARSE_RUN) << p.err;
  EXPECT_EQ(p.err, "");
  const Arguments& a = p.args;
  EXPECT_EQ(a.input_file, "b.jpg");  // a later occurrence wins
  EXPECT_EQ(a.reference_file, "r.yuv");
  EXPECT_EQ(a.result_folder, "--out");  // a value may look like an option
  EXPECT_EQ(a.width, 640);
  EXPECT_EQ(a.height, 360);
  EXPECT_EQ(a.input_width, 800);
  EXPECT_EQ(a.input_height, 600);
  EXPECT_EQ(a.crop_width, -3);
  EXPECT_EQ(a.crop_height, 0);
  EXPECT_EQ(a.frame_number, 12);
  const double pts[8] = {1, 2.5, -3, 400, 5, 6, 7, 8};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(a.pts[i], pts[i]) << i;
  EXPECT_TRUE(a.advanced && a.no_rectify && a.jpeg_output && a.undo_barrel);
  EXPECT_TRUE(a.outputs.empty());
}

TEST(parse_arguments, ConversionsFollowStoiAndStod) {
  EXPECT_EQ(parse({"--width", "640px"}).args.width, 640);
  EXPECT_EQ(parse({"--width", "  +12abc"}).args.width, 12);
  EXPECT_EQ(parse({"--width", "-2147483648"}).args.width, -2147483647 - 1);
  EXPECT_EQ(parse({"--width", "2147483648"}).status, PARSE_ERROR);
  const Parsed p = parse({"--pts", "1.5x", "nan", "inf", "4", "5", "6", "7", "8"});
  ASSERT_EQ(p.status, PARSE_RUN);
  EXPECT_EQ(p.args.pts[0], 1.5);
  EXPECT_TRUE(std::isnan(p.args.pts[1]));
  EXPECT_TRUE(std::isinf(p.args.pts[2]));
}

TEST(parse_arguments, FailedPointKeepsEarlierValues) {
  const Parsed p = parse({"--pts", "1", "2", "3", "x", "5", "6", "7", "8"});
  EXPECT_EQ(p.status, PARSE_ERROR);
  EXPECT_EQ(p.args.pts[0], 1.0);
  EXPECT_EQ(p.args.pts[2], 3.0);
  EXPECT_EQ(p.args.pts[3], 0.0);
}

TEST(parse_arguments, OutputLists) {
  struct Case {
    std::vector<std::string> words;
    std::vector<int> outputs;
  };
  const std::vector<Case> cases = {
      {{"--output", "4,SLOW"}, {4, 3, 0}},
      {{"--output", " 1 , 2 "}, {1, 2}},
      {{"--output", "+3"}, {3}},
      {{"--output", "Medium"}, {3, 0}},
      {{"--output", "fast,fast,3"}, {3}},
      {{"--output", "3", "--output", "slowest"}, {3, 0, 4, 2, 1}},
      {{"--output", "2,2,0"}, {2, 0}},
  };
  for (const Case& c : cases) {
    const Parsed p = parse(c.words);
    EXPECT_EQ(p.status, PARSE_RUN) << c.words[1] << p.err;
    EXPECT_EQ(p.args.outputs, c.outputs) << c.words[1];
  }
  // Values before a bad token stay, though the parse fails.
  const Parsed bad = parse({"--output", "1,2,9"});
  EXPECT_EQ(bad.status, PARSE_ERROR);
  EXPECT_EQ(bad.args.outputs, (std::vector<int>{1, 2}));
}

TEST(parse_arguments, HelpAndVersionStopTheScan) {
  Parsed p = parse({"--version", "--bogus"});
  EXPECT_EQ(p.status, PARSE_SHOWED_VERSION);
  EXPECT_EQ(p.out, "1.3.0\n");
  EXPECT_EQ(p.err, "");

  p = parse({"--width", "5", "-h", "--bogus"});
  EXPECT_EQ(p.status, PARSE_SHOWED_USAGE);
  EXPECT_EQ(p.out.rfind("Usage: framealign <options>\nOptions:\n  --help ", 0), 0u);
  EXPECT_EQ(p.err, "");
  EXPECT_EQ(p.args.width, 5);

  EXPECT_EQ(parse({}).status, PARSE_RUN);
}

TEST(print_usage, ListsOverlaySizeButNotCrop) {
  testing::internal::CaptureStdout();
  print_usage("tool");
  const std::string usage = testing::internal::GetCapturedStdout();
  EXPECT_NE(usage.find("  --overlay-size <value>    Square overlay size (enables automatic padding)\n"),
            std::string::npos);
  EXPECT_EQ(usage.find("--crop-width"), std::string::npos);
  EXPECT_NE(usage.find("presets: fast=3, medium=3,0, slow=3,0,4, slowest=3,0,4,2,1\n"
                       "  --jpeg-output             Generate JPEG preview files\n"),
            std::string::npos);
  EXPECT_EQ(usage.back(), '\n');
}

}  // namespace
