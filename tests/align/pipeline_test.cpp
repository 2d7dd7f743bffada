#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "align/align.h"
#include "align/internal.h"
#include "align/parallel_for.h"
#include "test_support.h"

namespace {

TEST(parallel_for, EveryIndexOnceInContiguousBlocks) {
  // start, end, threads, then the indices each thread runs, in order.
  const std::vector<std::tuple<int, int, int, std::set<std::vector<int>>>> cases = {
      {0, 7, 3, {{0, 1, 2}, {3, 4, 5}, {6}}}, {0, 2, 8, {{0}, {1}}}, {5, 9, 2, {{5, 6}, {7, 8}}},
      {3, 1, 4, {}}};
  for (const auto& [start, end, threads, blocks] : cases) {
    std::mutex lock;
    std::map<std::thread::id, std::vector<int>> seen;
    parallel_for(start, end, [&](int i) {
      std::lock_guard<std::mutex> guard(lock);
      seen[std::this_thread::get_id()].push_back(i);
    }, threads);
    std::set<std::vector<int>> got;
    for (const auto& [id, indices] : seen) got.insert(indices);
    EXPECT_EQ(got, blocks) << start << ".." << end;
    EXPECT_EQ(seen.count(std::this_thread::get_id()), 0u);
  }
}

TEST(align_by_pts, WarpsPadsAndOutlines) {
  const cv::Mat input = make_texture(320, 180, 1) | 1;  // no black pixel of its own
  std::vector<unsigned char> aligned(320 * 180);
  const cv::Mat frame(180, 320, CV_8UC1, aligned.data());
  double polygon[20];
  std::fill(polygon, polygon + 20, -1.0);
  const double identity[8] = {0, 0, 320, 0, 0, 180, 320, 180};
  align_by_pts(input, 320, 180, 0, 0, identity, aligned.data(), polygon);
  EXPECT_EQ(cv::norm(frame, input, cv::NORM_INF), 0.0);

  align_by_pts(input, 320, 180, 20, 0, identity, aligned.data(), polygon);
  EXPECT_EQ(cv::countNonZero(frame(cv::Rect(300, 0, 20, 180))), 0);
  EXPECT_EQ(cv::countNonZero(frame(cv::Rect(0, 0, 300, 180))), 300 * 180);
  const std::vector<double> outline = {0, 0, 0, 180, 300, 180, 300, 0, -1};
  EXPECT_EQ(std::vector<double>(polygon, polygon + 9), outline);
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
  EXPECT_EQ(outline(80), (std::vector<double>{80, 0, 80, 89, 159, 89, 159, 0, -1}));
  EXPECT_EQ(outline(1000), (std::vector<double>{0, 0, 0, 90, 160, 90, 160, 0, -1}));  // nothing lands
}

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
  const std::map<int, std::vector<int>> rows = {{1, {0}}, {4, {0, 1, 0, 1}}, {5, {0, 1, 0, 1, 0}}};
  for (const auto& [count, row] : rows) {
    TempDir dir;
    save_alignment_results(dir.path().c_str(), frames.data(), aligned, pts, content, count, 8, 4, 8,
                           4, 0.5, false);
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
  TempDir previews;
  save_alignment_results(previews.path().c_str(), frames.data(), aligned, pts, content, 2, 8, 4, 8, 4,
                         1.0, true);
  EXPECT_EQ(cv::imread(previews.file("in_1.jpg")).channels(), 3);
  EXPECT_EQ(cv::imread(previews.file("aligned_1.jpg"), cv::IMREAD_UNCHANGED).size(), cv::Size(8, 4));
  EXPECT_THROW(save_alignment_results("/nonexistent", frames.data(), aligned, pts, content, 0, 8, 4,
                                      8, 4, 1.0, false), std::runtime_error);
}

// The driver with corners given: one slot per requested variant, each
// OpenCV's warp by the corners finished as that variant.
TEST(align_frame, CornersGivenSlotsFollowTheVariantList) {
  const double corners[8] = {310, 240, 2080, 330, 250, 1330, 2140, 1390};
  const cv::Mat input = make_capture(make_texture(1920, 1080, 8), corners, 2400, 1600, 9);
  std::vector<unsigned char> reference(1920 * 1080, 0);
  auto run = [&](const std::vector<int>& outputs, int crop, TempDir& dir) {
    return align_frame(input.data, reference.data(), 1920, 1080, 2400, 1600, crop, crop, 0, corners,
                       dir.path().c_str(), nullptr, nullptr, false, outputs, false);
  };
  const cv::Point2f src[4] = {{310, 240}, {2080, 330}, {250, 1330}, {2140, 1390}};
  const cv::Point2f dst[4] = {{0, 0}, {1920, 0}, {0, 1080}, {1920, 1080}};
  cv::Mat warped;
  cv::warpPerspective(input, warped, cv::getPerspectiveTransform(src, dst), cv::Size(1920, 1080));
  const std::vector<std::pair<std::vector<int>, std::vector<int>>> cases = {
      {{7}, {3, 0}}, {{2, 2, 0}, {2, 0}}, {{-1, 3, 0, 4, 2, 1}, {3, 0, 4, 2, 1}}};
  for (const auto& [outputs, variants] : cases) {
    TempDir dir;
    EXPECT_EQ(run(outputs, 0, dir), 0.0);
    EXPECT_EQ(read_folder(dir.path().string()).size(), 3 * variants.size() + 1);
    for (size_t i = 0; i < variants.size(); ++i) {
      cv::Mat expected = warped.clone();
      apply_output_variant(expected.data, 1920, 1080, variants[i]);
      EXPECT_EQ(read_bytes(dir.file("aligned_" + std::to_string(i) + "__1920xx1080.yuv")),
                std::vector<unsigned char>(expected.datastart, expected.dataend)) << i;
    }
  }
  // Without reference and corners it only fills the feature cache.
  int saves = 0;
  const double none[8] = {};
  const cv::Mat small = make_texture(96, 64, 9);
  TempDir cache_only;
  EXPECT_EQ(align_frame(small.data, nullptr, 1920, 1080, 96, 64, 0, 0, 0, none, cache_only.path().c_str(),
                        nullptr, [&](auto&, auto&, auto) { ++saves; }, false, {}, false), -1.0);
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
    const cv::Mat input = make_texture(c.width + 32, c.height + 32, 3) | 1;
    TempDir dir;
    align_frame(input.data, input.data, c.width, c.height, input.cols, input.rows, c.crop_width, c.crop_height, 0,
                corners, dir.path().c_str(), nullptr, nullptr, false, {0}, false);
    const std::string iw = std::to_string(c.inner_width) + ".000000", ih = std::to_string(c.inner_height) + ".000000";
    std::string polygon = "0.000000 0.000000 0.000000 " + ih + " " + iw + " " + ih + " " + iw + " 0.000000";
    for (int i = 0; i < 12; ++i) polygon += " -1.000000";
    EXPECT_EQ(read_text(dir.file("content_pts_0.txt")), polygon + "\n") << c.crop_width << "x" << c.crop_height;
    const std::vector<unsigned char> bytes = read_bytes(
        dir.file("aligned_0__" + std::to_string(c.width) + "xx" + std::to_string(c.height) + ".yuv"));
    const cv::Mat frame(c.height, c.width, CV_8UC1, const_cast<unsigned char*>(bytes.data()));
    // The picture fills the inner part; the rest is black padding.
    EXPECT_EQ(cv::countNonZero(frame(cv::Rect(0, 0, c.inner_width, c.inner_height))), c.inner_width * c.inner_height);
    EXPECT_EQ(cv::countNonZero(frame), c.inner_width * c.inner_height);
  }
}

// The search on a mirrored capture with --advanced matches on a mirrored
// copy: the caller's picture stays as it was and the preview outlines it.
TEST(align_frame, AdvancedSearchLeavesTheCallersPictureAlone) {
  const cv::Mat reference = make_texture(640, 360, 61);
  const double corners[8] = {110, 80, 830, 100, 90, 610, 860, 640};
  cv::Mat capture, mirror;
  cv::flip(make_capture(reference, corners, 960, 720, 62), capture, 1);
  cv::flip(capture, mirror, 1);
  const cv::Mat given = capture.clone();
  TempDir dir;
  const double none[8] = {};
  EXPECT_LT(align_frame(capture.data, reference.data, 640, 360, 960, 720, 0, 0, 0, none, dir.path().c_str(),
                        nullptr, nullptr, true, {}, true), kFailedScore);
  EXPECT_EQ(cv::norm(capture, given, cv::NORM_INF), 0.0);
  // Corners are located on the input turned back, where the frame was placed.
  std::istringstream found(read_text(dir.file("pts_0.txt")));
  for (int i = 0; i < 8; ++i) {
    double v = -1;
    found >> v;
    EXPECT_NEAR(v, corners[i], 2.0) << i;
  }
  const cv::Mat preview = cv::imread(dir.file("in_0.jpg"), cv::IMREAD_GRAYSCALE);
  EXPECT_LT(cv::norm(preview, given, cv::NORM_L1) / given.total(), 4.0);
  EXPECT_GT(cv::norm(preview, mirror, cv::NORM_L1) / given.total(), 15.0);
}

// The pre-pass's three trials draw from one generator sequence, started
// fresh before the plain trial, as three calls in a row on one thread do.
TEST(choose_matching_mode, TrialsContinueOneGeneratorSequence) {
  const cv::Mat reference = make_texture(640, 360, 71);
  const double corners[8] = {110, 80, 830, 100, 90, 610, 860, 640};
  cv::Mat capture;
  cv::flip(make_capture(reference, corners, 960, 720, 72), capture, 1);
  const MatchingMode mode = choose_matching_mode(capture, reference, nullptr);
  EXPECT_TRUE(mode.mirror && !mode.affine);

  cv::Mat small_ref, small_input;
  cv::resize(reference, small_ref, cv::Size(640, 360));
  cv::resize(capture, small_input, cv::Size(640, 360));
  std::vector<cv::KeyPoint> ref_kps, kps;
  cv::Mat ref_desc, desc;
  SIFTdetectAndCompute(small_ref, ref_kps, ref_desc, false);
  const double frame[8] = {0, 0, 640, 0, 0, 360, 640, 360};
  cv::theRNG() = cv::RNG();
  for (int trial = 0; trial < 3; ++trial) {
    if (trial == 2) cv::flip(small_input, small_input, 1);
    double score = 1.0;
    EXPECT_EQ(calculateMatches(small_input, small_ref, 640, 360, GAUSSIAN_BLUR, frame, nullptr, ref_desc, ref_kps,
                               desc, kps, nullptr, nullptr, score, trial == 1).size(),
              mode.trial_matches[trial]) << trial;
  }
}

TEST(usable_cpu_count, FollowsTheAffinityMask) {
  cpu_set_t all;
  ASSERT_EQ(sched_getaffinity(0, sizeof(all), &all), 0);
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &all)) {
      CPU_SET(cpu, &one);
      break;
    }
  }
  ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
  EXPECT_EQ(usable_cpu_count(), 1);
  ASSERT_EQ(sched_setaffinity(0, sizeof(all), &all), 0);
  EXPECT_EQ(usable_cpu_count(), CPU_COUNT(&all));
}

// The two search schedules write the same bytes, plain and with --advanced
// on a mirrored capture.
TEST(set_search_schedule, SchedulesWriteIdenticalResults) {
  for (const bool advanced : {false, true}) {
    const cv::Mat reference = make_texture(640, 360, 61);
    const double corners[8] = {110, 80, 830, 100, 90, 610, 860, 640};
    cv::Mat capture = make_capture(reference, corners, 960, 720, 62);
    if (advanced) cv::flip(capture, capture, 1);
    std::vector<std::vector<std::pair<std::string, std::vector<unsigned char>>>> folders;
    for (SearchSchedule schedule : {SearchSchedule::ONE_THREAD_PER_ATTEMPT, SearchSchedule::PIPELINED}) {
      set_search_schedule(schedule);
      TempDir dir;
      const double none[8] = {};
      align_frame(capture.data, reference.data, 640, 360, 960, 720, 0, 0, 0, none, dir.path().c_str(),
                  nullptr, nullptr, advanced, {}, true);
      folders.push_back(read_folder(dir.path().string()));
    }
    set_search_schedule(SearchSchedule::AUTOMATIC);
    EXPECT_GE(folders[0].size(), 9u) << advanced;  // an attempt succeeded, with previews
    EXPECT_TRUE(folders[0] == folders[1]) << advanced;
  }
}

}  // namespace
