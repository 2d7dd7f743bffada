// Whole alignments through the binary on generated captures: what it prints,
// and the result folder a later extraction step reads.
#include <iterator>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "cli/run_tool.h"

namespace {

std::vector<double> numbers(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<double>(in), std::istream_iterator<double>()};
}

cv::Mat read_plane(const std::string& path, int width, int height) {
  std::vector<unsigned char> bytes = read_bytes(path);
  bytes.resize(size_t(width) * height);
  return cv::Mat(height, width, CV_8UC1, bytes.data()).clone();
}

// "best score: S\nalignment time: Nms\n" gives S; any other form gives "".
std::string printed_score(const std::string& out) {
  std::smatch m;
  return std::regex_match(out, m, std::regex("best score: (\\S+)\nalignment time: [0-9]+ms\n")) ? m.str(1) : "";
}

const double kCorners[8] = {310, 240, 2080, 330, 250, 1330, 2140, 1390};

// One search on a 1920 x 1080 reference and a 2400 x 1600 JPEG capture.
class SearchMode : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    reference_ = make_texture(1920, 1080, 101);
    write_yuv420(dir_.file("ref.yuv"), reference_);
    cv::imwrite(dir_.file("cap.jpg"), make_capture(reference_, kCorners, 2400, 1600, 102));
    run_ = run_tool({"--input-file", dir_.file("cap.jpg"), "--reference-file", dir_.file("ref.yuv"),
                     "--result-folder", dir_.file("out")}, dir_);
  }
  static inline TempDir dir_;
  static inline cv::Mat reference_;
  static inline ToolRun run_;
};

// The corners lie within 2 px of the truth; slots k..2k-1 are the
// CLAHE(20, 32 x 32) copies of slots 0..k-1 and share their corners.
TEST_F(SearchMode, FindsTheFrameAndWritesEverySlot) {
  ASSERT_EQ(run_.exit_code, 0) << run_.err;
  const std::string score = printed_score(run_.out), out = dir_.file("out/");
  ASSERT_NE(score, "") << run_.out;
  EXPECT_LT(std::stod(score), 1.0);
  char best[64];
  std::snprintf(best, sizeof(best), "%f\n", std::stod(score));
  EXPECT_EQ(read_text(out + "best_result.txt"), best);
  const std::vector<double> pts = numbers(read_text(out + "pts_0.txt"));
  ASSERT_EQ(pts.size(), 8u);
  for (int i = 0; i < 8; ++i) EXPECT_NEAR(pts[i], kCorners[i], 2.0) << i;

  const size_t slots = (read_folder(out).size() - 1) / 3;
  ASSERT_TRUE(slots == 2 || slots == 4 || slots == 6) << slots;
  for (size_t i = slots / 2; i < slots; ++i) {
    const std::string s = std::to_string(i), o = std::to_string(i % (slots / 2));
    EXPECT_EQ(read_text(out + "pts_" + s + ".txt"), read_text(out + "pts_" + o + ".txt"));
    EXPECT_EQ(numbers(read_text(out + "content_pts_" + s + ".txt")).size(), 20u);
    cv::Mat enhanced = read_plane(out + "aligned_" + o + "__1920xx1080.yuv", 1920, 1080);
    adaptive_histogram_equalization(enhanced.data, 1920, 1080, 20.0f, 32, 32);
    EXPECT_EQ(cv::norm(read_plane(out + "aligned_" + s + "__1920xx1080.yuv", 1920, 1080), enhanced, cv::NORM_INF), 0)
        << s;
  }
  cv::Mat diff;
  cv::absdiff(read_plane(out + "aligned_0__1920xx1080.yuv", 1920, 1080), reference_, diff);
  EXPECT_LT(cv::mean(diff(cv::Rect(20, 20, 1880, 1040)))[0], 12.0);  // the reference, resampled
}

// Feature caches are written beside the pictures; with them, a missing
// reference aligns exactly as the reference did, from cache hits only.
TEST_F(SearchMode, CachesLetTheReferenceGoMissing) {
  ASSERT_EQ(run_.exit_code, 0);
  for (const char* name : {"ref.yuv", "ref_0.ftrs", "cap_GAUSSIAN_BLUR.ftrs", "cap_ORIGINAL.ftrs",
                           "cap_MORPHOLOGICAL_OPENING.ftrs"}) {
    EXPECT_TRUE(std::filesystem::exists(dir_.file(name))) << name;
  }
  std::filesystem::copy_file(dir_.file("ref_0.ftrs"), dir_.file("gone_0.ftrs"));
  const ToolRun cached = run_tool({"--input-file", dir_.file("cap.jpg"), "--reference-file", dir_.file("gone.yuv"),
                                   "--result-folder", dir_.file("cached")}, dir_);
  EXPECT_EQ(printed_score(cached.out), printed_score(run_.out));
  EXPECT_TRUE(read_folder(dir_.file("cached")) == read_folder(dir_.file("out")));
}

// A capture of another picture finds nothing; with --no-rectify the input
// itself is the result and the score is 0.
TEST(framealign, UnrelatedCaptureFailsAndNoRectifyScoresZero) {
  TempDir dir;
  write_yuv420(dir.file("ref.yuv"), make_texture(1280, 720, 201));
  for (const bool no_rectify : {false, true}) {
    cv::imwrite(dir.file("cap.png"), no_rectify ? make_texture(1280, 720, 203) : make_texture(1600, 1200, 999));
    std::vector<std::string> args = {"--input-file", dir.file("cap.png"), "--reference-file", dir.file("ref.yuv"),
                                     "--width", "1280", "--height", "720", "--result-folder", dir.file("out")};
    if (no_rectify) args.push_back("--no-rectify");
    std::filesystem::remove_all(dir.file("out"));
    const ToolRun r = run_tool(args, dir);
    EXPECT_EQ(printed_score(r.out), no_rectify ? "0" : "999999") << r.err;
    EXPECT_EQ(read_text(dir.file("out/best_result.txt")), no_rectify ? "0.000000\n" : "999999.000000\n");
    EXPECT_EQ(read_folder(dir.file("out")).size(), no_rectify ? 7u : 1u);
  }
}

}  // namespace
