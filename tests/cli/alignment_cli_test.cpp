// Whole alignments through the binary on generated captures: the result
// folder a later extraction step reads, file by file.
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "align/align.h"
#include "cli/run_tool.h"

namespace {

std::vector<double> numbers(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<double>(in), std::istream_iterator<double>()};
}

cv::Mat read_plane(const std::string& path, int width, int height) {
  const std::vector<unsigned char> bytes = read_bytes(path);
  if (bytes.size() != size_t(width) * height) return cv::Mat();
  return cv::Mat(height, width, CV_8UC1, const_cast<unsigned char*>(bytes.data())).clone();
}

// "best score: S\nalignment time: Nms\n" gives S; any other form gives "".
std::string printed_score(const std::string& out) {
  const size_t end = out.find('\n');
  const std::string time = end == std::string::npos ? "" : out.substr(end + 1);
  const bool ok = out.rfind("best score: ", 0) == 0 && time.rfind("alignment time: ", 0) == 0 &&
                  time.size() > 19 && time.compare(time.size() - 3, 3, "ms\n") == 0 &&
                  time.find_first_not_of("0123456789", 16) == time.size() - 3;
  return ok ? out.substr(12, end - 12) : "";
}

// One line of `count` numbers in "%f" form separated by single spaces.
bool is_number_line(const std::string& text, size_t count) {
  std::string expected;
  for (double v : numbers(text)) {
    char s[64];
    std::snprintf(s, sizeof(s), "%f", v);
    expected += std::string(expected.empty() ? "" : " ") + s;
  }
  return numbers(text).size() == count && text == expected + "\n";
}

const double kCorners[8] = {310, 240, 2080, 330, 250, 1330, 2140, 1390};

// One search on a 1920 x 1080 reference and a 2400 x 1600 JPEG capture.
class SearchMode : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    reference_ = new cv::Mat(make_texture(1920, 1080, 101));
    write_yuv420(dir_->file("ref.yuv"), *reference_);
    cv::imwrite(dir_->file("cap.jpg"), make_capture(*reference_, kCorners, 2400, 1600, 102));
    run_ = new ToolRun(run_tool({"--input-file", dir_->file("cap.jpg"), "--reference-file",
                                 dir_->file("ref.yuv"), "--result-folder", dir_->file("out")}, *dir_));
  }
  static void TearDownTestSuite() {
    delete run_;
    delete reference_;
    delete dir_;
  }
  static inline TempDir* dir_;
  static inline cv::Mat* reference_;
  static inline ToolRun* run_;
};

TEST_F(SearchMode, FindsTheFrameAndWritesEverySlot) {
  ASSERT_EQ(run_->exit_code, 0) << run_->err;
  const std::string score = printed_score(run_->out);
  ASSERT_NE(score, "") << run_->out;
  EXPECT_LT(std::stod(score), 1.0);
  char best[64];
  std::snprintf(best, sizeof(best), "%f\n", std::stod(score));
  const std::string out = dir_->file("out/");
  EXPECT_EQ(read_text(out + "best_result.txt"), best);
  const std::vector<double> pts = numbers(read_text(out + "pts_0.txt"));
  ASSERT_EQ(pts.size(), 8u);
  for (int i = 0; i < 8; ++i) EXPECT_NEAR(pts[i], kCorners[i], 2.0) << i;

  const size_t slots = (read_folder(out).size() - 1) / 3;
  ASSERT_TRUE(slots == 2 || slots == 4 || slots == 6) << slots;
  for (size_t i = 0; i < slots; ++i) {
    const std::string s = std::to_string(i), o = std::to_string(i % (slots / 2));
    EXPECT_TRUE(is_number_line(read_text(out + "pts_" + s + ".txt"), 8)) << s;
    EXPECT_TRUE(is_number_line(read_text(out + "content_pts_" + s + ".txt"), 20)) << s;
    if (i < slots / 2) continue;
    // Slots k..2k-1 are the CLAHE(20, 32 x 32) copies of slots 0..k-1.
    EXPECT_EQ(read_text(out + "pts_" + s + ".txt"), read_text(out + "pts_" + o + ".txt"));
    cv::Mat enhanced = read_plane(out + "aligned_" + o + "__1920xx1080.yuv", 1920, 1080);
    adaptive_histogram_equalization(enhanced.data, 1920, 1080, 20.0f, 32, 32);
    EXPECT_EQ(cv::norm(read_plane(out + "aligned_" + s + "__1920xx1080.yuv", 1920, 1080), enhanced,
                       cv::NORM_INF), 0.0) << s;
  }
  cv::Mat diff;
  cv::absdiff(read_plane(out + "aligned_0__1920xx1080.yuv", 1920, 1080), *reference_, diff);
  EXPECT_LT(cv::mean(diff(cv::Rect(20, 20, 1880, 1040)))[0], 12.0);  // the reference, resampled
}

TEST_F(SearchMode, CachesLetTheReferenceGoMissing) {
  ASSERT_EQ(run_->exit_code, 0);
  for (const char* name : {"ref.yuv", "ref_0.ftrs", "cap_GAUSSIAN_BLUR.ftrs", "cap_ORIGINAL.ftrs",
                           "cap_MORPHOLOGICAL_OPENING.ftrs"}) {
    EXPECT_TRUE(std::filesystem::exists(dir_->file(name))) << name;
  }
  // A missing reference with its cache beside it aligns exactly as the reference did.
  std::filesystem::copy_file(dir_->file("ref_0.ftrs"), dir_->file("gone_0.ftrs"));
  const ToolRun cached = run_tool({"--input-file", dir_->file("cap.jpg"), "--reference-file",
                                   dir_->file("gone.yuv"), "--result-folder", dir_->file("cached")}, *dir_);
  EXPECT_EQ(printed_score(cached.out), printed_score(run_->out));
  EXPECT_TRUE(read_folder(dir_->file("cached")) == read_folder(dir_->file("out")));
}

// 1280 x 720 references in 1600 x 1200 captures for the other modes.
class SmallSearch : public testing::Test {
 protected:
  void SetUp() override { write_yuv420(dir_.file("ref.yuv"), reference_); }
  ToolRun run(const cv::Mat& capture, const std::vector<std::string>& extra = {}) {
    cv::imwrite(dir_.file("cap.png"), capture);
    std::vector<std::string> args = {"--input-file", dir_.file("cap.png"), "--reference-file",
                                     dir_.file("ref.yuv"), "--width", "1280", "--height", "720",
                                     "--result-folder", dir_.file("out")};
    args.insert(args.end(), extra.begin(), extra.end());
    std::filesystem::remove_all(dir_.file("out"));
    return run_tool(args, dir_);
  }
  TempDir dir_;
  cv::Mat reference_ = make_texture(1280, 720, 201);
  const double corners_[8] = {210, 180, 1390, 250, 170, 1010, 1430, 1060};
};

TEST_F(SmallSearch, UnrelatedCaptureFailsAndNoRectifyScoresZero) {
  ToolRun r = run(make_texture(1600, 1200, 999));
  EXPECT_EQ(printed_score(r.out), "999999") << r.err;
  EXPECT_EQ(read_folder(dir_.file("out")).size(), 1u);
  EXPECT_EQ(read_text(dir_.file("out/best_result.txt")), "999999.000000\n");

  r = run(make_texture(1280, 720, 203), {"--no-rectify"});
  EXPECT_EQ(printed_score(r.out), "0") << r.err;
  EXPECT_EQ(read_text(dir_.file("out/best_result.txt")), "0.000000\n");
}

}  // namespace
