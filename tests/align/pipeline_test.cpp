#include <map>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "align/align.h"
#include "align/internal.h"
#include "align/parallel_for.h"
#include "test_support.h"

namespace {

TEST(usable_cpu_count, FollowsTheAffinityMask) {
  cpu_set_t all, one;
  ASSERT_EQ(sched_getaffinity(0, sizeof(all), &all), 0);
  CPU_ZERO(&one);
  for (int cpu = 0; CPU_COUNT(&one) == 0; ++cpu) {
    if (CPU_ISSET(cpu, &all)) CPU_SET(cpu, &one);
  }
  ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
  EXPECT_EQ(usable_cpu_count(), 1);
  ASSERT_EQ(sched_setaffinity(0, sizeof(all), &all), 0);
  EXPECT_EQ(usable_cpu_count(), CPU_COUNT(&all));
}

TEST(get_content_area, Nominal) {
  const cv::Mat picture(90, 160, CV_8UC1);
  auto outline = [&](double dx) {
    double polygon[20];
    std::fill(polygon, polygon + 20, -1.0);
    const cv::Mat shift = (cv::Mat_<double>(3, 3) << 1, 0, dx, 0, 1, 0, 0, 0, 1);
    get_content_area(shift, picture, 160, 90, polygon);
    return std::vector<double>(polygon, polygon + 9);
  };
  EXPECT_EQ(outline(0), (std::vector<double>{0, 0, 0, 89, 159, 89, 159, 0, -1}));  // border pixels
  EXPECT_EQ(outline(1000), (std::vector<double>{0, 0, 0, 90, 160, 90, 160, 0, -1}));  // nothing lands
}

// Point rows are read at the slot index modulo half the slot count; every
// number is written "%f", one line per file.
TEST(save_alignment_results, RowsFollowSlotModuloHalfTheCount) {
  std::vector<unsigned char> frames(6 * 32);
  unsigned char* aligned[6];
  double pts[6][8], content[6][20];
  for (int i = 0; i < 6; ++i) {
    aligned[i] = frames.data() + 32 * i;
    std::fill(aligned[i], aligned[i] + 32, static_cast<unsigned char>(i));
    std::fill(pts[i], pts[i] + 8, i + 0.5);
    std::fill(content[i], content[i] + 20, -i);
  }
  for (const auto& [count, row] : std::map<int, std::vector<int>>{{1, {0}}, {5, {0, 1, 0, 1, 0}}}) {
    TempDir dir;
    save_alignment_results(dir.path().c_str(), frames.data(), aligned, pts, content, count, 8, 4, 8, 4, 0.5, false);
    for (int i = 0; i < count; ++i) {
      const std::string s = std::to_string(i), r = std::to_string(row[i]);
      EXPECT_EQ(read_bytes(dir.file("aligned_" + s + "__8xx4.yuv")), std::vector<unsigned char>(32, i));
      std::string p8, p20;
      for (int v = 0; v < 20; ++v) {
        if (v < 8) p8 += r + ".500000" + (v < 7 ? " " : "\n");
        p20 += (row[i] ? "-" : "") + r + ".000000" + (v < 19 ? " " : "\n");
      }
      EXPECT_EQ(read_text(dir.file("pts_" + s + ".txt")), p8) << count << " " << i;
      EXPECT_EQ(read_text(dir.file("content_pts_" + s + ".txt")), p20);
    }
    EXPECT_EQ(read_text(dir.file("best_result.txt")), "0.500000\n");
    EXPECT_EQ(read_folder(dir.path().string()).size(), 3u * count + 1);  // no .jpg, no leftovers
  }
}

// The driver with corners given: one slot per requested variant, each
// OpenCV's warp by the corners finished with that variant's CLAHE setting.
TEST(align_frame, CornersGivenSlotsFollowTheVariantList) {
  const double corners[8] = {310, 240, 2080, 330, 250, 1330, 2140, 1390};
  const cv::Mat input = make_capture(make_reference_frame(1920, 1080, 8), corners, 2400, 1600, 9);
  double frame[8];
  frame_corners(1920, 1080, frame);
  cv::Mat warped;
  cv::warpPerspective(input, warped, cv::getPerspectiveTransform(corner_points(corners), corner_points(frame)),
                      cv::Size(1920, 1080));
  // Clip limit, tiles across, tiles down of variants 1..4.
  const std::map<int, std::tuple<float, int, int>> clahe = {
      {1, {40.f, 12, 8}}, {2, {20.f, 32, 32}}, {3, {18.f, 40, 64}}, {4, {20.f, 80, 45}}};
  const std::vector<std::pair<std::vector<int>, std::vector<int>>> cases = {
      {{7}, {3, 0}}, {{2, 2, 0}, {2, 0}}, {{-1, 3, 0, 4, 2, 1}, {3, 0, 4, 2, 1}}};
  for (const auto& [outputs, variants] : cases) {
    TempDir dir;
    EXPECT_EQ(align_frame(input.data, input.data, 1920, 1080, 2400, 1600, 0, 0, 0, corners, dir.path().c_str(),
                          nullptr, nullptr, false, outputs, false), 0.0);
    EXPECT_EQ(read_folder(dir.path().string()).size(), 3 * variants.size() + 1);
    for (size_t i = 0; i < variants.size(); ++i) {
      cv::Mat expected = warped.clone();
      if (variants[i] != 0) {
        const auto [clip, across, down] = clahe.at(variants[i]);
        adaptive_histogram_equalization(expected.data, 1920, 1080, clip, across, down);
      }
      EXPECT_EQ(read_bytes(dir.file("aligned_" + std::to_string(i) + "__1920xx1080.yuv")),
                std::vector<unsigned char>(expected.datastart, expected.dataend)) << i;
    }
  }
  // Without reference and corners it only fills the feature cache.
  int saves = 0;
  const double none[8] = {};
  EXPECT_EQ(align_frame(input.data, nullptr, 1920, 1080, 96, 64, 0, 0, 0, none, nullptr, nullptr,
                        [&](auto&, auto&, auto) { ++saves; }, false, {}, false), -1.0);
  EXPECT_EQ(saves, 6);
}

// With a crop size the picture keeps the crop's aspect and black padding
// fills the frame to its right or below; the ratio is compared with its
// limits 1.001 and 0.999 in double precision.
TEST(align_frame, CornersGivenPadToTheCropAspect) {
  struct Case {
    int width, height, crop_width, crop_height, inner_width, inner_height;
  };
  const std::vector<Case> cases = {{1920, 1080, 1080, 1080, 1080, 1080}, {1920, 1080, 1920, 800, 1920, 800},
                                   {1000, 1000, 1001, 1000, 1000, 999},  {1000, 1000, 1000, 1001, 1000, 1000},
                                   {1920, 1080, 0, 1080, 1920, 1080}};
  for (const Case& c : cases) {
    // Corners inside a larger picture with no black pixel of its own.
    const double w = c.width + 16, h = c.height + 16, corners[8] = {16, 16, w, 16, 16, h, w, h};
    const cv::Mat input = make_reference_frame(c.width + 32, c.height + 32, 3) | 1;
    TempDir dir;
    align_frame(input.data, input.data, c.width, c.height, input.cols, input.rows, c.crop_width, c.crop_height, 0,
                corners, dir.path().c_str(), nullptr, nullptr, false, {0}, false);
    char polygon[256];
    std::snprintf(polygon, sizeof(polygon), "0.000000 0.000000 0.000000 %d.000000 %d.000000 %d.000000 %d.000000 0.000000",
                  c.inner_height, c.inner_width, c.inner_height, c.inner_width);
    EXPECT_EQ(read_text(dir.file("content_pts_0.txt")).substr(0, std::strlen(polygon) + 10), polygon + std::string(" -1.000000"))
        << c.crop_width << "x" << c.crop_height;
    const std::vector<unsigned char> bytes = read_bytes(
        dir.file("aligned_0__" + std::to_string(c.width) + "xx" + std::to_string(c.height) + ".yuv"));
    const cv::Mat frame(c.height, c.width, CV_8UC1, const_cast<unsigned char*>(bytes.data()));
    // The picture fills the inner part; the rest is black padding.
    EXPECT_EQ(cv::countNonZero(frame(cv::Rect(0, 0, c.inner_width, c.inner_height))), c.inner_width * c.inner_height);
    EXPECT_EQ(cv::countNonZero(frame), c.inner_width * c.inner_height);
  }
}

// A mirrored capture, searched with --advanced and previews on both
// schedules, plain and refined.
class MirroredSearch : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    reference_ = make_reference_frame(640, 360, 61);
    cv::flip(make_capture(reference_, kCorners, 960, 720, 62), given_, 1);
    for (bool refine : {false, true}) {
      for (SearchSchedule schedule : {SearchSchedule::ONE_THREAD_PER_ATTEMPT, SearchSchedule::PIPELINED}) {
        set_search_schedule(schedule);
        const cv::Mat capture = given_.clone();
        TempDir dir;
        const double none[8] = {};
        AlignmentReport report;
        report.refine = refine;
        align_frame(capture.data, reference_.data, 640, 360, 960, 720, 0, 0, 0, none, dir.path().c_str(), nullptr,
                    nullptr, true, {}, true, &report);
        inputs_.push_back(capture);
        folders_.push_back(read_folder(dir.path().string()));
        reports_.push_back(report);
      }
    }
    set_search_schedule(SearchSchedule::AUTOMATIC);
  }
  static std::vector<unsigned char> file(const std::string& name) {
    return std::map<std::string, std::vector<unsigned char>>(folders_[0].begin(), folders_[0].end())[name];
  }
  static constexpr double kCorners[8] = {110, 80, 830, 100, 90, 610, 860, 640};
  static inline cv::Mat reference_, given_;
  static inline std::vector<cv::Mat> inputs_;
  static inline std::vector<Folder> folders_;  // plain on both schedules, then refined
  static inline std::vector<AlignmentReport> reports_;
};

TEST_F(MirroredSearch, SchedulesWriteIdenticalResults) {
  EXPECT_GE(folders_[0].size(), 9u);  // an attempt succeeded, with previews
  EXPECT_TRUE(folders_[0] == folders_[1]);
  EXPECT_TRUE(folders_[2] == folders_[3]);
  EXPECT_EQ(reports_[2].est_error_px, reports_[3].est_error_px);
}

// Refinement changes the geometry, not the search's scores: every attempt,
// more than a pixel off here, ends well below one, with an estimate that
// does not understate its error.
TEST_F(MirroredSearch, RefinementBringsEveryAttemptBelowAPixel) {
  const AlignmentReport &plain = reports_[0], &refined = reports_[2];
  EXPECT_EQ(refined.scores, plain.scores);
  EXPECT_TRUE(plain.est_error_px.empty());
  ASSERT_EQ(refined.est_error_px.size(), refined.scores.size());
  double worst_plain = 0.0;
  for (size_t i = 0; i < refined.scores.size(); ++i) {
    worst_plain = std::max(worst_plain, corner_error(kCorners, plain.corners[i].data(), 640, 360).max);
    EXPECT_LT(worst_plain, 2.0) << "corners located on the unmirrored capture";
    const double error = corner_error(kCorners, refined.corners[i].data(), 640, 360).max;
    EXPECT_TRUE(refined.refined[i]);
    EXPECT_LT(error, 0.3) << i;
    EXPECT_GE(refined.est_error_px[i], error) << i;
    EXPECT_LT(refined.est_error_px[i], 1.0) << i;
  }
  EXPECT_GT(worst_plain, 1.0);
}

// The attempts match on a mirrored copy: the caller's picture stays as it
// was and the preview outlines it unmirrored (the corners located on it are
// checked with the refinement's).
TEST_F(MirroredSearch, CallersPictureIsLeftAlone) {
  for (const cv::Mat& input : inputs_) EXPECT_EQ(cv::norm(input, given_, cv::NORM_INF), 0.0);
  cv::Mat preview = cv::imdecode(file("in_0.jpg"), cv::IMREAD_GRAYSCALE), mirror;
  cv::flip(given_, mirror, 1);
  EXPECT_LT(cv::norm(preview, given_, cv::NORM_L1) / given_.total(), 4.0);
  EXPECT_GT(cv::norm(preview, mirror, cv::NORM_L1) / given_.total(), 15.0);
}

// The pre-pass's three trials draw from one generator sequence, started
// fresh before the plain trial, as three calls in a row on one thread do.
TEST_F(MirroredSearch, PrepassTrialsContinueOneGeneratorSequence) {
  const MatchingMode mode = choose_matching_mode(given_, reference_, nullptr);
  EXPECT_TRUE(mode.mirror && !mode.affine);
  cv::Mat input = given_.clone(), desc, ref_desc;  // scaled to 640 x 360, the reference's own size
  cv::resize(input, input, reference_.size());
  std::vector<cv::KeyPoint> ref_kps, kps;
  SIFTdetectAndCompute(reference_, ref_kps, ref_desc, false);
  double frame[8], score = 1.0;
  frame_corners(640, 360, frame);
  cv::theRNG() = cv::RNG();
  for (int trial = 0; trial < 3; ++trial) {
    if (trial == 2) cv::flip(input, input, 1);
    EXPECT_EQ(calculateMatches(input, reference_, 640, 360, GAUSSIAN_BLUR, frame, nullptr, ref_desc, ref_kps, desc,
                               kps, nullptr, nullptr, score, trial == 1).size(),
              mode.trial_matches[trial]) << trial;
  }
}

}  // namespace
