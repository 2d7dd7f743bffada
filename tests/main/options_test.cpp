#include "main/options.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Parsed {
  int status;
  Arguments args;
  std::string out, err;
};

Parsed parse(std::vector<std::string> words) {
  words.insert(words.begin(), "framealign");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  Parsed p;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  p.status = parse_arguments(static_cast<int>(words.size()), argv.data(), p.args);
  p.out = testing::internal::GetCapturedStdout();
  p.err = testing::internal::GetCapturedStderr();
  return p;
}

TEST(parse_arguments, ErrorsAreReportedExactly) {
  const std::string must_be =
      "Error: --output value must be 0, 1, 2, 3, 4, fast, medium, slow, or slowest\n";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--width", "px"}, "Error: Invalid width value: stoi\n"},
      {{"--width", "99999999999"}, "Error: Invalid width value: stoi\n"},
      {{"--input-height", "x"}, "Error: Invalid input height value: stoi\n"},
      {{"--frame-number", ""}, "Error: Invalid frame number value: stoi\n"},
      {{"--crop-width", "x"}, "Error: Invalid crop width value: stoi\n"},
      {{"--pts", "1", "2", "3", "x", "5", "6", "7", "8"}, "Error: Invalid point value: x, stod\n"},
      {{"--pts", "1", "2", "3", "4", "5", "6", "7"}, "Error: --pts option requires 8 arguments\n"},
      {{"--output", "1,"}, "Error: Invalid --output value: empty token\n"},
      {{"--output", "1,,2"}, "Error: Invalid --output value: empty token\n"},
      {{"--output", " 3x "}, "Error: Invalid --output value: 3x\n"},
      {{"--output", "99999999999"}, "Error: Invalid --output value: 99999999999\n"},
      {{"--output", "5"}, must_be},
      {{"--output", "-1"}, must_be},
      {{"--overlay-size", "512"}, "Error: Unknown option --overlay-size\n"},
      {{"--width=640"}, "Error: Unknown option --width=640\n"},
      {{"--bogus", "--version"}, "Error: Unknown option --bogus\n"},
  };
  for (const auto& [words, message] : cases) {
    const Parsed p = parse(words);
    EXPECT_EQ(p.status, PARSE_ERROR) << message;
    EXPECT_EQ(p.err, message);
  }
  for (const char* option : {"--input-file", "--reference-file", "--width", "--height",
                             "--input-width", "--input-height", "--frame-number", "--crop-width",
                             "--crop-height", "--result-folder", "--output"}) {
    EXPECT_EQ(parse({option}).err, std::string("Error: ") + option + " option requires an argument\n");
  }
}

TEST(parse_arguments, Nominal) {
  const Parsed p = parse({"--input-file", "a.png", "--width", "640px", "--height", " +360",
                          "--crop-width", "-3", "--result-folder", "--out", "--pts", "1", "2.5x",
                          "-3", "4e2", "nan", "6", "7", "8", "--advanced", "--undo-barrel",
                          "--input-file", "b.jpg"});
  ASSERT_EQ(p.status, PARSE_RUN) << p.err;
  EXPECT_EQ(p.args.input_file, "b.jpg");        // a later occurrence wins
  EXPECT_EQ(p.args.result_folder, "--out");     // a value may look like an option
  EXPECT_EQ(p.args.width, 640);                 // std::stoi ignores what follows the digits
  EXPECT_EQ(p.args.height, 360);
  EXPECT_EQ(p.args.crop_width, -3);
  EXPECT_EQ(p.args.pts[1], 2.5);
  EXPECT_EQ(p.args.pts[3], 400.0);
  EXPECT_TRUE(std::isnan(p.args.pts[4]));
  EXPECT_TRUE(p.args.advanced && p.args.undo_barrel && !p.args.no_rectify);

  // A failing point keeps the values converted before it.
  const Parsed bad = parse({"--pts", "1", "2", "3", "x", "5", "6", "7", "8"});
  EXPECT_EQ(bad.args.pts[2], 3.0);
  EXPECT_EQ(bad.args.pts[3], 0.0);
}

TEST(parse_arguments, OutputLists) {
  const std::vector<std::pair<std::vector<std::string>, std::vector<int>>> cases = {
      {{"--output", "4,SLOW"}, {4, 3, 0}},
      {{"--output", " 1 , 2 "}, {1, 2}},
      {{"--output", "+3,Medium"}, {3, 0}},
      {{"--output", "3", "--output", "slowest"}, {3, 0, 4, 2, 1}},
      {{"--output", "1,2,9"}, {1, 2}},  // values before a bad token stay, though it fails
  };
  for (const auto& [words, outputs] : cases) EXPECT_EQ(parse(words).args.outputs, outputs) << words[1];
}

TEST(parse_arguments, HelpAndVersionStopTheScan) {
  Parsed p = parse({"--version", "--bogus"});
  EXPECT_EQ(p.status, PARSE_SHOWED_VERSION);
  EXPECT_EQ(p.out, "1.3.0\n");
  p = parse({"-h", "--bogus"});
  EXPECT_EQ(p.status, PARSE_SHOWED_USAGE);
  EXPECT_EQ(p.out.rfind("Usage: framealign <options>\nOptions:\n  --help ", 0), 0u);
  EXPECT_NE(p.out.find("  --overlay-size <value>    Square overlay size (enables automatic padding)\n"),
            std::string::npos);
  EXPECT_EQ(p.err, "");
  EXPECT_EQ(parse({}).status, PARSE_RUN);
}

}  // namespace
