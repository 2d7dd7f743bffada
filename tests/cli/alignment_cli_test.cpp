// End-to-end runs of framealign on generated captures: the result folder a
// later extraction step reads, file by file.
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "cli/run_tool.h"
#include "synthetic.h"
#include "test_support.h"

namespace {

// A frame as a raw 4:2:0 file: the luma plane and two grey chroma planes.
void write_yuv420(const std::string& path, const cv::Mat& luma) {
  std::vector<unsigned char> bytes(luma.data, luma.data + luma.total());
  bytes.resize(bytes.size() + 2 * ((luma.cols + 1) / 2) * ((luma.rows + 1) / 2), 128);
  write_bytes(path, bytes);
}

std::vector<double> numbers(const std::string& text) {
  std::istringstream in(text);
  std::vector<double> values;
  double v;
  while (in >> v) values.push_back(v);
  return values;
}

std::set<std::string> files_in(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

cv::Mat read_plane(const std::string& path, int width, int height) {
  const std::vector<unsigned char> bytes = read_bytes(path);
  if (bytes.size() != static_cast<size_t>(width) * height) return cv::Mat();
  return cv::Mat(height, width, CV_8UC1, const_cast<unsigned char*>(bytes.data())).clone();
}

bool same_plane(const cv::Mat& a, const cv::Mat& b) {
  return !a.empty() && a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

bool all_digits(const std::string& s) {
  return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

// Standard output of a finished run: "best score: S\nalignment time: Nms\n".
// Returns S, or "" when the output has another form.
std::string printed_score(const std::string& out) {
  const std::string head = "best score: ";
  const size_t first_end = out.find('\n');
  if (out.compare(0, head.size(), head) != 0 || first_end == std::string::npos) return "";
  const std::string second = out.substr(first_end + 1);
  const std::string time_head = "alignment time: ";
  if (second.compare(0, time_head.size(), time_head) != 0 || second.size() < time_head.size() + 4 ||
      second.compare(second.size() - 3, 3, "ms\n") != 0 ||
      !all_digits(second.substr(time_head.size(), second.size() - time_head.size() - 3))) {
    return "";
  }
  return out.substr(head.size(), first_end - head.size());
}

// One line of `count` "%f" numbers separated by single spaces.
bool is_number_line(const std::string& text, int count) {
  if (text.empty() || text.back() != '\n') return false;
  std::istringstream in(text.substr(0, text.size() - 1));
  std::string token;
  int seen = 0;
  while (std::getline(in, token, ' ')) {
    const size_t dot = token.find('.');
    const size_t start = token[0] == '-' ? 1 : 0;
    if (dot == std::string::npos || token.size() - dot != 7 ||
        !all_digits(token.substr(start, dot - start)) || !all_digits(token.substr(dot + 1))) {
      return false;
    }
    ++seen;
  }
  return seen == count;
}

// Where the 1920 x 1080 reference lies in the 2400 x 1600 capture.
const double kCorners[8] = {310, 240, 2080, 330, 250, 1330, 2140, 1390};

// One search on a 1920 x 1080 reference and a 2400 x 1600 JPEG capture,
// shared by the tests that read its result folder.
class SearchMode : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    reference_ = new cv::Mat(make_texture(1920, 1080, 101));
    write_yuv420(dir_->file("ref.yuv"), *reference_);
    ASSERT_TRUE(cv::imwrite(dir_->file("cap.jpg"),
                            make_capture(*reference_, kCorners, 2400, 1600, 102)));
    run_ = new ToolRun(run_tool({"--input-file", dir_->file("cap.jpg"), "--reference-file",
                                 dir_->file("ref.yuv"), "--result-folder", dir_->file("out")},
                                *dir_));
  }
  static void TearDownTestSuite() {
    delete run_;
    delete reference_;
    delete dir_;
  }
  static TempDir* dir_;
  static cv::Mat* reference_;
  static ToolRun* run_;
};
TempDir* SearchMode::dir_ = nullptr;
cv::Mat* SearchMode::reference_ = nullptr;
ToolRun* SearchMode::run_ = nullptr;

TEST_F(SearchMode, FindsTheFrame) {
  ASSERT_EQ(run_->exit_code, 0) << run_->err;
  const std::string printed = printed_score(run_->out);
  ASSERT_NE(printed, "") << run_->out;
  const double score = std::stod(printed);
  EXPECT_GT(score, 0.0);
  EXPECT_LT(score, 1.0);
  char best[64];
  std::snprintf(best, sizeof(best), "%f\n", score);
  EXPECT_EQ(read_text(dir_->file("out/best_result.txt")), best);

  const std::vector<double> pts = numbers(read_text(dir_->file("out/pts_0.txt")));
  ASSERT_EQ(pts.size(), 8u);
  for (int i = 0; i < 8; ++i) EXPECT_NEAR(pts[i], kCorners[i], 2.0) << i;
}

TEST_F(SearchMode, SlotsHoldAttemptsThenTheirEnhancedCopies) {
  ASSERT_EQ(run_->exit_code, 0);
  const std::string out = dir_->file("out/");
  int slots = 0;
  while (std::filesystem::exists(out + "aligned_" + std::to_string(slots) + "__1920xx1080.yuv")) {
    ++slots;
  }
  ASSERT_TRUE(slots == 2 || slots == 4 || slots == 6) << slots;
  const int k = slots / 2;
  std::set<std::string> expected = {"best_result.txt"};
  for (int i = 0; i < slots; ++i) {
    const std::string s = std::to_string(i);
    expected.insert({"aligned_" + s + "__1920xx1080.yuv", "pts_" + s + ".txt",
                     "content_pts_" + s + ".txt"});
    EXPECT_TRUE(is_number_line(read_text(out + "pts_" + s + ".txt"), 8)) << s;
    EXPECT_TRUE(is_number_line(read_text(out + "content_pts_" + s + ".txt"), 20)) << s;
    // Copies share the corners and polygon of their original.
    if (i >= k) {
      const std::string o = std::to_string(i - k);
      EXPECT_EQ(read_text(out + "pts_" + s + ".txt"), read_text(out + "pts_" + o + ".txt"));
      cv::Mat enhanced = read_plane(out + "aligned_" + o + "__1920xx1080.yuv", 1920, 1080);
      ASSERT_FALSE(enhanced.empty());
      adaptive_histogram_equalization(enhanced.data, 1920, 1080, 20.0f, 32, 32);
      EXPECT_TRUE(same_plane(read_plane(out + "aligned_" + s + "__1920xx1080.yuv", 1920, 1080),
                             enhanced))
          << "slot " << i;
    }
  }
  EXPECT_EQ(files_in(out), expected);

  // The aligned frame is the reference, up to resampling.
  const cv::Mat aligned = read_plane(out + "aligned_0__1920xx1080.yuv", 1920, 1080);
  cv::Mat diff;
  cv::absdiff(aligned, *reference_, diff);
  EXPECT_LT(cv::mean(diff(cv::Rect(20, 20, 1880, 1040)))[0], 12.0);
}

TEST_F(SearchMode, CachesLetTheReferenceGoMissing) {
  ASSERT_EQ(run_->exit_code, 0);
  // The run left the reference and the four caches in place.
  for (const char* name : {"ref.yuv", "ref_0.ftrs", "cap_GAUSSIAN_BLUR.ftrs", "cap_ORIGINAL.ftrs",
                           "cap_MORPHOLOGICAL_OPENING.ftrs"}) {
    EXPECT_TRUE(std::filesystem::exists(dir_->file(name))) << name;
  }
  // A reference path that does not exist, with its cache beside it, aligns
  // exactly as the reference itself did.
  std::filesystem::copy_file(dir_->file("ref_0.ftrs"), dir_->file("gone_0.ftrs"));
  const ToolRun cached =
      run_tool({"--input-file", dir_->file("cap.jpg"), "--reference-file", dir_->file("gone.yuv"),
                "--result-folder", dir_->file("cached")},
               *dir_);
  ASSERT_EQ(cached.exit_code, 0) << cached.err;
  EXPECT_NE(printed_score(run_->out), "");
  EXPECT_EQ(printed_score(cached.out), printed_score(run_->out));
  const std::set<std::string> names = files_in(dir_->file("out"));
  EXPECT_EQ(files_in(dir_->file("cached")), names);
  for (const std::string& name : names) {
    EXPECT_EQ(read_bytes(dir_->file("out/" + name)), read_bytes(dir_->file("cached/" + name)))
        << name;
  }
}

// Smaller pictures for the remaining searches: 1280 x 720 in 1600 x 1200.
const double kSmallCorners[8] = {210, 180, 1390, 250, 170, 1010, 1430, 1060};

class SmallSearch : public testing::Test {
 protected:
  void SetUp() override {
    reference_ = make_texture(1280, 720, 201);
    write_yuv420(dir_.file("ref.yuv"), reference_);
  }
  ToolRun run(const cv::Mat& capture, std::vector<std::string> extra = {}) {
    EXPECT_TRUE(cv::imwrite(dir_.file("cap.png"), capture));
    std::vector<std::string> args = {"--input-file", dir_.file("cap.png"), "--reference-file",
                                     dir_.file("ref.yuv"), "--width", "1280", "--height", "720",
                                     "--result-folder", dir_.file("out")};
    args.insert(args.end(), extra.begin(), extra.end());
    return run_tool(args, dir_);
  }
  TempDir dir_;
  cv::Mat reference_;
};

TEST_F(SmallSearch, UnrelatedCaptureFails) {
  const ToolRun r = run(make_texture(1600, 1200, 999));
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(printed_score(r.out), "999999") << r.out;
  EXPECT_EQ(files_in(dir_.file("out")), std::set<std::string>{"best_result.txt"});
  EXPECT_EQ(read_text(dir_.file("out/best_result.txt")), "999999.000000\n");
}

TEST_F(SmallSearch, MirroredCaptureAlignsWithAdvanced) {
  cv::Mat mirrored;
  cv::flip(make_capture(reference_, kSmallCorners, 1600, 1200, 202), mirrored, 1);
  const ToolRun r = run(mirrored, {"--advanced"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  ASSERT_NE(printed_score(r.out), "") << r.out;
  // Corners are found on the input turned back, where the frame was placed.
  const std::vector<double> pts = numbers(read_text(dir_.file("out/pts_0.txt")));
  ASSERT_EQ(pts.size(), 8u);
  for (int i = 0; i < 8; ++i) EXPECT_NEAR(pts[i], kSmallCorners[i], 2.0) << i;
}

// Two runs on the same inputs write the same bytes, in every mode and
// whether the feature caches are there or not.
TEST_F(SmallSearch, RepeatedRunsWriteIdenticalFolders) {
  const cv::Mat capture = make_capture(reference_, kSmallCorners, 1600, 1200, 204);
  cv::Mat mirrored;
  cv::flip(capture, mirrored, 1);
  std::vector<std::string> corners = {"--pts"};
  for (double v : kSmallCorners) corners.push_back(std::to_string(v));
  corners.insert(corners.end(), {"--output", "slow", "--crop-width", "4", "--crop-height", "3"});
  const std::vector<std::vector<std::string>> modes = {{}, {"--advanced"}, corners};

  auto folder = [&](const std::string& name) {
    std::map<std::string, std::vector<unsigned char>> files;
    for (const std::string& file : files_in(dir_.file(name))) {
      files[file] = read_bytes(dir_.file(name + "/" + file));
    }
    return files;
  };
  auto remove_caches = [&] {
    for (const std::string& file : files_in(dir_.path().string())) {
      if (file.size() > 5 && file.compare(file.size() - 5, 5, ".ftrs") == 0) {
        std::filesystem::remove(dir_.file(file));
      }
    }
  };
  for (const std::vector<std::string>& mode : modes) {
    SCOPED_TRACE(mode.empty() ? "search" : mode[0]);
    remove_caches();
    std::vector<std::map<std::string, std::vector<unsigned char>>> runs;
    for (int run_index = 0; run_index < 3; ++run_index) {
      if (run_index == 2) remove_caches();  // runs: miss, hit, miss
      std::filesystem::remove_all(dir_.file("out"));
      const ToolRun r = run(mode == modes[1] ? mirrored : capture, mode);
      ASSERT_EQ(r.exit_code, 0) << r.err;
      runs.push_back(folder("out"));
    }
    EXPECT_GE(runs[0].size(), 4u);
    EXPECT_TRUE(runs[1] == runs[0]);
    EXPECT_TRUE(runs[2] == runs[0]);
  }
}

TEST_F(SmallSearch, NoRectifyScoresZero) {
  const ToolRun r = run(make_texture(1280, 720, 203), {"--no-rectify"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(printed_score(r.out), "0") << r.out;
  EXPECT_EQ(read_text(dir_.file("out/best_result.txt")), "0.000000\n");
  EXPECT_EQ(files_in(dir_.file("out")).size(), 7u);
}

// Corners given: every slot is OpenCV's warp by those corners, finished as
// the requested variant.
TEST(CornersGivenMode, SlotsAreTheWarpOfTheGivenCorners) {
  TempDir dir;
  const cv::Mat capture = make_capture(make_texture(1920, 1080, 301), kCorners, 2400, 1600, 302);
  ASSERT_TRUE(cv::imwrite(dir.file("cap.jpg"), capture));
  const cv::Mat decoded = cv::imread(dir.file("cap.jpg"), cv::IMREAD_GRAYSCALE);
  std::vector<std::string> args = {"--input-file", dir.file("cap.jpg"), "--reference-file",
                                   dir.file("missing.yuv"), "--result-folder", dir.file("out"),
                                   "--output", "slowest", "--pts"};
  for (double v : kCorners) args.push_back(std::to_string(v));
  ToolRun r = run_tool(args, dir);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(printed_score(r.out), "0") << r.out;

  const cv::Point2f src[4] = {{310, 240}, {2080, 330}, {250, 1330}, {2140, 1390}};
  const cv::Point2f dst[4] = {{0, 0}, {1920, 0}, {0, 1080}, {1920, 1080}};
  cv::Mat warped;
  cv::warpPerspective(decoded, warped, cv::getPerspectiveTransform(src, dst), cv::Size(1920, 1080),
                      cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar(0));
  const int variants[5] = {3, 0, 4, 2, 1};
  for (int i = 0; i < 5; ++i) {
    cv::Mat expected = warped.clone();
    apply_output_variant(expected.data, 1920, 1080, variants[i]);
    EXPECT_TRUE(same_plane(
        read_plane(dir.file("out/aligned_" + std::to_string(i) + "__1920xx1080.yuv"), 1920, 1080),
        expected))
        << "slot " << i;
  }
  EXPECT_EQ(files_in(dir.file("out")).size(), 16u);

  // A square crop leaves the right 840 columns black.
  args = {"--input-file", dir.file("cap.jpg"), "--result-folder", dir.file("square"), "--output",
          "0", "--crop-width", "1080", "--crop-height", "1080", "--pts"};
  for (double v : kCorners) args.push_back(std::to_string(v));
  r = run_tool(args, dir);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const cv::Mat square = read_plane(dir.file("square/aligned_0__1920xx1080.yuv"), 1920, 1080);
  ASSERT_FALSE(square.empty());
  EXPECT_EQ(cv::countNonZero(square(cv::Rect(1080, 0, 840, 1080))), 0);
  EXPECT_GT(cv::countNonZero(square(cv::Rect(1079, 0, 1, 1080))), 1000);
  EXPECT_EQ(read_text(dir.file("square/content_pts_0.txt")),
            "0.000000 0.000000 0.000000 1080.000000 1080.000000 1080.000000 1080.000000 0.000000"
            " -1.000000 -1.000000 -1.000000 -1.000000 -1.000000 -1.000000 -1.000000 -1.000000"
            " -1.000000 -1.000000 -1.000000 -1.000000\n");
}

}  // namespace
