// What the option parser stores; its texts and exit codes are checked
// through the binary (tests/cli/cli_test.cpp).
#include "main/options.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Parsed {
  int status;
  Arguments args;
};

Parsed parse(std::vector<std::string> words) {
  words.insert(words.begin(), "framealign");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  Parsed p;
  testing::internal::CaptureStderr();  // errors are the command-line table's
  p.status = parse_arguments(static_cast<int>(words.size()), argv.data(), p.args);
  testing::internal::GetCapturedStderr();
  return p;
}

TEST(parse_arguments, Nominal) {
  const Parsed p = parse({"--input-file", "a.png", "--width", "640px", "--height", " +360",
                          "--crop-width", "-3", "--result-folder", "--out", "--pts", "1", "2.5x",
                          "-3", "4e2", "nan", "6", "7", "8", "--advanced", "--undo-barrel",
                          "--input-file", "b.jpg"});
  ASSERT_EQ(p.status, PARSE_RUN);
  EXPECT_EQ(p.args.input_file, "b.jpg");        // a later occurrence wins
  EXPECT_EQ(p.args.result_folder, "--out");     // a value may look like an option
  // std::stoi and std::stod ignore what follows the number.
  EXPECT_TRUE(p.args.width == 640 && p.args.height == 360 && p.args.crop_width == -3);
  EXPECT_TRUE(p.args.pts[1] == 2.5 && p.args.pts[3] == 400.0 && std::isnan(p.args.pts[4]));
  EXPECT_TRUE(p.args.advanced && p.args.undo_barrel && !p.args.no_rectify);

  // A failing point keeps the values converted before it.
  const Parsed bad = parse({"--pts", "1", "2", "3", "x", "5", "6", "7", "8"});
  EXPECT_TRUE(bad.args.pts[2] == 3.0 && bad.args.pts[3] == 0.0);
  EXPECT_EQ(parse({}).status, PARSE_RUN);
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

}  // namespace
