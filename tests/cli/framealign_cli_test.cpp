// Whole alignments through framealign on the shared simulated captures:
// what it prints and writes, the feature caches, --no-rectify.
#include <gtest/gtest.h>

#include "cli/captures.h"

namespace {

class Framealign : public testing::Test {
 protected:
  static void SetUpTestSuite() { write_captures(dir_, corners_); }
  static ToolRun align(const std::string& capture, const std::string& folder) {
    return run_tool({"--input-file", "./" + capture, "--reference-file", "./ref.yuv", "--width", "640",
                     "--height", "360", "--result-folder", folder}, dir_);
  }
  static inline TempDir dir_;
  static inline double corners_[6][8];
};

// framealign locates the frames within 2 px of the truth and prints its
// score; slots k..2k-1, the enhanced copies of slots 0..k-1, share their
// corners; a frame not found leaves only best_result.txt.
TEST_F(Framealign, FindsTheFrames) {
  const ToolRun r = align("c2.jpg", "fa");
  ASSERT_NE(printed_score(r.out), "") << r.out << r.err;
  EXPECT_NEAR(std::stod(read_text(dir_.file("fa/best_result.txt"))), std::stod(printed_score(r.out)), 1e-5);
  for (int i : {1, 2, 4, 3}) {
    const std::string c = "c" + std::to_string(i);
    ASSERT_EQ(align(c + ".jpg", c).exit_code, 0);
    if (i == 3) break;
    const std::vector<std::string> pts = split(read_text(dir_.file(c + "/pts_0.txt")), ' ');
    for (int k = 0; k < 8; ++k) EXPECT_NEAR(std::stod(pts.at(k)), corners_[i][k], 2.0) << i;
  }
  const size_t slots = (read_folder(dir_.file("fa")).size() - 1) / 3;
  ASSERT_TRUE(slots == 2 || slots == 4 || slots == 6) << slots;
  for (size_t i = slots / 2; i < slots; ++i) {  // the enhanced copies share their originals' corners
    const std::string s = std::to_string(i), o = std::to_string(i % (slots / 2));
    EXPECT_EQ(read_text(dir_.file("fa/pts_" + s + ".txt")), read_text(dir_.file("fa/pts_" + o + ".txt")));
  }
  EXPECT_EQ(read_folder(dir_.file("c3")).size(), 1u);
  EXPECT_EQ(read_text(dir_.file("c3/best_result.txt")), "999999.000000\n");
}

// The feature caches let a missing reference align exactly as the reference
// did; --no-rectify takes the input as it is and scores 0.
TEST_F(Framealign, CachesAndNoRectify) {
  std::vector<std::string> args = {"--input-file", "./c4.jpg", "--reference-file", "./ref.yuv", "--width", "640",
                                   "--height", "360", "--result-folder", "first"};
  ToolRun r = run_tool(args, dir_);
  for (const char* name : {"ref_0.ftrs", "c4_GAUSSIAN_BLUR.ftrs", "c4_ORIGINAL.ftrs", "c4_MORPHOLOGICAL_OPENING.ftrs"}) {
    EXPECT_TRUE(std::filesystem::exists(dir_.file(name))) << name;
  }
  std::filesystem::copy_file(dir_.file("ref_0.ftrs"), dir_.file("away_0.ftrs"));
  args[3] = "./away.yuv";
  args[9] = "cached";
  const ToolRun cached = run_tool(args, dir_);
  EXPECT_EQ(printed_score(cached.out), printed_score(r.out));
  EXPECT_TRUE(read_folder(dir_.file("cached")) == read_folder(dir_.file("first")));
  cv::imwrite(dir_.file("other.png"), make_reference_frame(640, 360, 5));
  r = run_tool({"--input-file", "other.png", "--reference-file", "./ref.yuv", "--width", "640", "--height", "360",
                "--result-folder", "plain", "--no-rectify"}, dir_);
  EXPECT_EQ(printed_score(r.out), "0");
  EXPECT_EQ(read_text(dir_.file("plain/best_result.txt")), "0.000000\n");
  EXPECT_EQ(read_folder(dir_.file("plain")).size(), 7u);
}

}  // namespace
