// framealign-batch --hints as a user runs it after a batch left captures
// unfound: rough corners (3% off, as clicked) refined to the truth, a hint on
// a screen that shows another frame said unverified with its reason, a
// capture without a hint searched as before, and a rerun that keeps it all.
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "cli/batch_fixture.h"

namespace {

// `corners` each moved by 3% of the top side's length, in turning directions.
std::string hint_row(const std::string& id, const double* corners) {
  const double size = std::hypot(corners[2] - corners[0], corners[3] - corners[1]);
  const double dx[4] = {0.7, -0.7, 0.7, -0.7}, dy[4] = {0.7, 0.7, -0.7, -0.7};
  std::string row = id;
  for (int i = 0; i < 4; ++i) {
    row += "," + std::to_string(corners[2 * i] + 0.03 * size * dx[i]) + "," +
           std::to_string(corners[2 * i + 1] + 0.03 * size * dy[i]);
  }
  return row + "\n";
}

TEST_F(Batch, HintsAreRefinedOrSaidUnverified) {
  const cv::Mat reference = make_reference_frame(640, 360, 301);
  CaptureSettings plain;
  plain.capture_width = 960;
  plain.capture_height = 720;
  const Capture other = render_capture(make_reference_frame(640, 360, 301, 302), plain);
  cv::imwrite(dir_.file("hint_other.jpg"), other.picture);
  std::ofstream(dir_.file("hinted.csv"))
      << "input,id\n./c1.jpg,one\n./c4.jpg,four\n./hint_other.jpg,other\n./c2.jpg,plain\n";
  std::ofstream(dir_.file("hints.csv"))
      << "id,x1,y1,x2,y2,x3,y3,x4,y4\n"
      << hint_row("one", corners_[1]) << hint_row("four", corners_[4])
      << hint_row("other", other.corners);
  const std::vector<std::string> command = {
      "--list",   "hinted.csv", "--reference-file", "./ref.yuv", "--width",       "640",
      "--height", "360",        "--jobs",           "1",         "--result-root", "hinted",
      "--hints",  "hints.csv"};
  const ToolRun first = run_tool(command, dir_, kBatch);
  EXPECT_EQ(first.exit_code, 0) << first.err;
  EXPECT_NE(first.err.find("1 hint_unverified; 4 run now"), std::string::npos) << first.err;
  EXPECT_NE(first.err.find("paths: 3 hint, 0 fast, 0 full"), std::string::npos) << first.err;
  const std::vector<std::string> rows = split(summary(dir_.file("hinted/summary.csv")), '\n');
  EXPECT_EQ(rows.at(0).substr(rows.at(0).find("est_error_px")),
            "est_error_px,path,reason,seconds,message");
  const std::vector<std::pair<std::string, const double*>> expected = {
      {"one aligned hint", corners_[1]},
      {"four aligned hint", corners_[4]},
      {"other hint_unverified hint", nullptr},
      {"plain aligned ", corners_[2]}};
  for (size_t i = 0; i < expected.size(); ++i) {
    const std::vector<std::string> row = split(rows.at(i + 1), ',');
    EXPECT_EQ(row.at(0) + " " + row.at(2) + " " + row.at(15), expected[i].first);
    EXPECT_EQ(row.at(16).empty(), expected[i].second != nullptr) << row.at(0) << ": " << row.at(16);
    if (expected[i].second == nullptr) continue;
    double corners[8];
    for (int c = 0; c < 8; ++c) corners[c] = std::stod(row.at(6 + c));
    EXPECT_LT(corner_error(expected[i].second, corners, 640, 360).max, 1.0) << row.at(0);
  }
  // What a hint made is done, the unverified one too while its hint stands.
  const ToolRun again = run_tool(command, dir_, kBatch);
  EXPECT_NE(again.err.find("0 run now"), std::string::npos) << again.err;

  std::ofstream(dir_.file("bad_hints.csv")) << "id,x1,y1,x2,y2,x3,y3,x4,y4\nnope,1,2,3,4,5,6,7,8\n";
  std::ofstream(dir_.file("nan_hints.csv"))
      << "id,x1,y1,x2,y2,x3,y3,x4,y4\none,1,2,3,nan,5,6,7,8\n";
  for (const auto& [file, message] :
       {std::pair{"bad_hints.csv", "bad_hints.csv:2: id 'nope' is no picture capture"},
        {"nan_hints.csv", "nan_hints.csv:2: y2 'nan' is not a finite number"}}) {
    std::vector<std::string> bad = command;
    bad.back() = file;
    const ToolRun refused = run_tool(bad, dir_, kBatch);
    EXPECT_EQ(refused.exit_code, 2);
    EXPECT_NE(refused.err.find(message), std::string::npos) << refused.err;
  }
}

}  // namespace
