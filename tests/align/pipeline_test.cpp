#include <map>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "align/alignment_driver.h"
#include "align/search.h"
#include "core/parallel_for.h"
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

// The driver with corners given: one slot per requested variant, in the
// list's order, each once, codes outside 0..4 dropped; each slot is the
// public warp by the corners finished as its variant.
TEST(align_frame, CornersGivenSlotsFollowTheVariantList) {
  const double corners[8] = {310, 240, 2080, 330, 250, 1330, 2140, 1390};
  const cv::Mat input = make_capture(make_reference_frame(1920, 1080, 8), corners, 2400, 1600, 9);
  std::array<double, 8> given;
  std::copy(corners, corners + 8, given.begin());
  const std::vector<std::pair<std::vector<int>, std::vector<int>>> cases = {
      {{7}, {3, 0}}, {{2, 2, 0}, {2, 0}}, {{-1, 3, 0, 4, 2, 1}, {3, 0, 4, 2, 1}}};
  for (const auto& [outputs, variants] : cases) {
    TempDir dir;
    EXPECT_EQ(align_frame(input.data, input.data, 1920, 1080, 2400, 1600, 0, 0, 0, corners, dir.path().c_str(),
                          nullptr, nullptr, false, outputs, false), 0.0);
    EXPECT_EQ(read_folder(dir.path().string()).size(), 3 * variants.size() + 1);
    for (size_t i = 0; i < variants.size(); ++i) {
      const cv::Mat expected = warp_by_corners(input, given, 1920, 1080, variants[i]);
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
        AlignmentJob job;
        job.input = given_.clone();
        job.reference = reference_;
        job.width = 640;
        job.height = 360;
        job.advanced = true;
        job.refine = refine;
        const Alignment alignment = run_alignment(job);
        TempDir dir;
        write_result_folder(dir.path().string(), job.input, alignment.slots, alignment.score, true);
        inputs_.push_back(job.input);
        folders_.push_back(read_folder(dir.path().string()));
        runs_.emplace_back(alignment.slots.slots().begin(),
                           alignment.slots.slots().begin() + alignment.slots.results());
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
  static inline std::vector<std::vector<Slot>> runs_;  // the search's results, per run
};

TEST_F(MirroredSearch, SchedulesWriteIdenticalResults) {
  EXPECT_GE(folders_[0].size(), 9u);  // an attempt succeeded, with previews
  EXPECT_TRUE(folders_[0] == folders_[1]);
  EXPECT_TRUE(folders_[2] == folders_[3]);
  ASSERT_EQ(runs_[2].size(), runs_[3].size());
  for (size_t i = 0; i < runs_[2].size(); ++i)
    EXPECT_EQ(runs_[2][i].est_error_px, runs_[3][i].est_error_px);
}

// Refinement changes the geometry, not the search's scores: every attempt,
// more than a pixel off here, ends well below one, with an estimate that
// does not understate its error.
TEST_F(MirroredSearch, RefinementBringsEveryAttemptBelowAPixel) {
  const std::vector<Slot>&plain = runs_[0], &refined = runs_[2];
  ASSERT_EQ(refined.size(), plain.size());
  double worst_plain = 0.0;
  for (size_t i = 0; i < refined.size(); ++i) {
    EXPECT_EQ(refined[i].score, plain[i].score);
    EXPECT_FALSE(plain[i].est_error_px);
    worst_plain =
        std::max(worst_plain, corner_error(kCorners, plain[i].corners.data(), 640, 360).max);
    EXPECT_LT(worst_plain, 2.0) << "corners located on the unmirrored capture";
    const double error = corner_error(kCorners, refined[i].corners.data(), 640, 360).max;
    EXPECT_TRUE(refined[i].refined);
    ASSERT_TRUE(refined[i].est_error_px);
    EXPECT_LT(error, 0.3) << i;
    EXPECT_GE(*refined[i].est_error_px, error) << i;
    EXPECT_LT(*refined[i].est_error_px, 1.0) << i;
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

}  // namespace
