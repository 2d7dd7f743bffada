#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/parallel_for.h"
#include "synthetic.h"
#include "test_support.h"

namespace {

TEST(parallel_for, EveryIndexOnceInContiguousBlocks) {
  struct Case {
    int start, end, threads;
    std::vector<std::vector<int>> blocks;  // the indices each thread runs, in order
  };
  const std::vector<Case> cases = {
      {0, 7, 3, {{0, 1, 2}, {3, 4, 5}, {6}}},
      {0, 3, 3, {{0}, {1}, {2}}},
      {0, 2, 8, {{0}, {1}}},  // no thread for a block that would start past the end
      {5, 9, 2, {{5, 6}, {7, 8}}},
      {0, 0, 4, {}},
      {3, 1, 4, {}},
  };
  for (const Case& c : cases) {
    std::mutex lock;
    std::map<std::thread::id, std::vector<int>> seen;
    parallel_for(
        c.start, c.end,
        [&](int i) {
          std::lock_guard<std::mutex> guard(lock);
          seen[std::this_thread::get_id()].push_back(i);
        },
        c.threads);
    std::set<std::vector<int>> got;
    for (const auto& entry : seen) {
      EXPECT_NE(entry.first, std::this_thread::get_id());
      got.insert(entry.second);
    }
    EXPECT_EQ(got, std::set<std::vector<int>>(c.blocks.begin(), c.blocks.end()))
        << c.start << ".." << c.end << " on " << c.threads;
  }
}

TEST(align_by_pts, IdentityCornersReturnTheInput) {
  const cv::Mat input = make_texture(320, 180, 1);
  const double corners[8] = {0, 0, 320, 0, 0, 180, 320, 180};
  std::vector<unsigned char> aligned(320 * 180);
  double polygon[20];
  std::fill(polygon, polygon + 20, -1.0);
  align_by_pts(input, 320, 180, 0, 0, corners, aligned.data(), polygon);
  EXPECT_EQ(cv::norm(cv::Mat(180, 320, CV_8UC1, aligned.data()), input, cv::NORM_INF), 0.0);
  const double expected[8] = {0, 0, 0, 180, 320, 180, 320, 0};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(polygon[i], expected[i]);
  for (int i = 8; i < 20; ++i) EXPECT_EQ(polygon[i], -1.0);
}

TEST(align_by_pts, PaddingIsBlackAtTheRightAndBottom) {
  const cv::Mat input = make_texture(640, 480, 2) | 1;  // no black pixel of its own
  const double corners[8] = {40, 30, 600, 40, 30, 450, 610, 440};
  std::vector<unsigned char> aligned(1920 * 1080);
  double polygon[20];
  align_by_pts(input, 1920, 1080, 100, 0, corners, aligned.data(), polygon);
  const cv::Mat frame(1080, 1920, CV_8UC1, aligned.data());
  EXPECT_EQ(cv::countNonZero(frame(cv::Rect(1820, 0, 100, 1080))), 0);
  EXPECT_EQ(cv::countNonZero(frame(cv::Rect(0, 0, 1820, 1080))), 1820 * 1080);
  const double expected[8] = {0, 0, 0, 1080, 1820, 1080, 1820, 0};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(polygon[i], expected[i]);

  align_by_pts(input, 1920, 1080, 0, 280, corners, aligned.data(), polygon);
  EXPECT_EQ(cv::countNonZero(frame(cv::Rect(0, 800, 1920, 280))), 0);
  EXPECT_EQ(polygon[3], 800);
}

TEST(get_content_area, Nominal) {
  double polygon[20];
  // The identity on a frame-sized picture: the outline of the border pixels.
  std::fill(polygon, polygon + 20, -1.0);
  get_content_area(cv::Mat::eye(3, 3, CV_64F), cv::Mat(90, 160, CV_8UC1), 160, 90, polygon);
  const double border[8] = {0, 0, 0, 89, 159, 89, 159, 0};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(polygon[i], border[i]) << i;
  EXPECT_EQ(polygon[8], -1.0);

  // A picture mapped entirely outside the frame: the frame's own outline.
  const cv::Mat away = (cv::Mat_<double>(3, 3) << 1, 0, 1000, 0, 1, 0, 0, 0, 1);
  get_content_area(away, cv::Mat(90, 160, CV_8UC1), 160, 90, polygon);
  const double frame[8] = {0, 0, 0, 90, 160, 90, 160, 0};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(polygon[i], frame[i]) << i;

  // A half-frame shift leaves content on the right half only.
  const cv::Mat half = (cv::Mat_<double>(3, 3) << 1, 0, 80, 0, 1, 0, 0, 0, 1);
  get_content_area(half, cv::Mat(90, 160, CV_8UC1), 160, 90, polygon);
  const double right[8] = {80, 0, 80, 89, 159, 89, 159, 0};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(polygon[i], right[i]) << i;
}

TEST(align_frame, TooFewMatchesLeaveEverythingAlone) {
  std::vector<cv::KeyPoint> kps = {cv::KeyPoint(1, 1, 1), cv::KeyPoint(50, 5, 1),
                                   cv::KeyPoint(9, 40, 1)};
  std::vector<cv::DMatch> three = {{0, 0, 0.f}, {1, 1, 0.f}, {2, 2, 0.f}};
  const double frame[8] = {0, 0, 64, 0, 0, 48, 64, 48};
  std::vector<unsigned char> aligned(64 * 48, 7);
  double pts[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  double polygon[20];
  std::fill(polygon, polygon + 20, -1.0);
  align_frame(three, kps, kps, make_texture(64, 48, 3), 64, 48, frame, aligned.data(), pts,
              polygon);
  EXPECT_EQ(std::count(aligned.begin(), aligned.end(), 7), 64 * 48);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(pts[i], i + 1);
  EXPECT_EQ(polygon[0], -1.0);
}

// Reads a result folder's file names.
std::set<std::string> folder_files(const TempDir& dir) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

TEST(save_alignment_results, RowsFollowSlotModuloHalfTheCount) {
  const int w = 8, h = 4;
  std::vector<unsigned char> input(16 * 10, 50);
  std::vector<std::vector<unsigned char>> frames(6, std::vector<unsigned char>(w * h));
  unsigned char* aligned[6];
  for (int i = 0; i < 6; ++i) {
    std::fill(frames[i].begin(), frames[i].end(), static_cast<unsigned char>(i));
    aligned[i] = frames[i].data();
  }
  double pts[6][8], content[6][20];
  for (int r = 0; r < 6; ++r) {
    for (int v = 0; v < 8; ++v) pts[r][v] = r + v / 10.0;
    for (int v = 0; v < 20; ++v) content[r][v] = -r - 1;
  }
  const std::map<int, std::vector<int>> rows_for_count = {
      {1, {0}}, {4, {0, 1, 0, 1}}, {5, {0, 1, 0, 1, 0}}, {6, {0, 1, 2, 0, 1, 2}}};
  for (const auto& [count, rows] : rows_for_count) {
    TempDir dir;
    const std::string folder = dir.path().string();
    save_alignment_results(folder.c_str(), input.data(), aligned, pts, content, count, w, h, 16,
                           10, 0.5, false);
    for (int i = 0; i < count; ++i) {
      const std::string slot = std::to_string(i);
      EXPECT_EQ(read_bytes(dir.file("aligned_" + slot + "__8xx4.yuv")), frames[i]);
      char line[200];
      const int r = rows[i];
      std::snprintf(line, sizeof(line), "%d.000000 %d.100000 %d.200000 %d.300000 %d.400000 "
                    "%d.500000 %d.600000 %d.700000\n", r, r, r, r, r, r, r, r);
      EXPECT_EQ(read_text(dir.file("pts_" + slot + ".txt")), line) << count << " " << i;
      std::string polygon;
      for (int v = 0; v < 20; ++v) {
        polygon += "-" + std::to_string(r + 1) + ".000000" + (v < 19 ? " " : "\n");
      }
      EXPECT_EQ(read_text(dir.file("content_pts_" + slot + ".txt")), polygon);
    }
    EXPECT_EQ(read_text(dir.file("best_result.txt")), "0.500000\n");
    EXPECT_EQ(folder_files(dir).size(), 3u * count + 1);  // no .jpg, no temporary file
  }
}

TEST(save_alignment_results, PreviewsAndEmptyResults) {
  const int w = 64, h = 48;
  const cv::Mat input = make_texture(100, 80, 4);
  std::vector<unsigned char> frame(w * h, 200);
  unsigned char* aligned[6] = {frame.data(), frame.data()};
  double pts[6][8] = {{10.5, 10, 90, 11.5, 9, 70, 91, 71}};
  double content[6][20] = {};
  TempDir dir;
  const std::string folder = dir.path().string();
  save_alignment_results(folder.c_str(), input.data, aligned, pts, content, 2, w, h, 100, 80,
                         0.25, true);
  const cv::Mat in_preview = cv::imread(dir.file("in_0.jpg"), cv::IMREAD_COLOR);
  ASSERT_EQ(in_preview.size(), cv::Size(100, 80));
  const cv::Vec3b on_line = in_preview.at<cv::Vec3b>(10, 50);  // the top edge, green
  EXPECT_GT(on_line[1], 180);
  EXPECT_LT(on_line[0], 90);
  const cv::Mat aligned_preview = cv::imread(dir.file("aligned_1.jpg"), cv::IMREAD_UNCHANGED);
  EXPECT_EQ(aligned_preview.size(), cv::Size(w, h));
  EXPECT_EQ(aligned_preview.channels(), 1);

  TempDir empty;
  const std::string empty_folder = empty.path().string();
  save_alignment_results(empty_folder.c_str(), input.data, aligned, pts, content, 0, w, h, 100,
                         80, kFailedScore, true);
  EXPECT_EQ(folder_files(empty), std::set<std::string>{"best_result.txt"});
  EXPECT_EQ(read_text(empty.file("best_result.txt")), "999999.000000\n");
}

TEST(save_alignment_results, UnwritableFolderThrows) {
  std::vector<unsigned char> frame(16, 0);
  unsigned char* aligned[1] = {frame.data()};
  double pts[1][8] = {};
  double content[1][20] = {};
  EXPECT_THROW(save_alignment_results("/nonexistent/folder", frame.data(), aligned, pts, content,
                                      0, 4, 4, 4, 4, 1.0, false),
               std::runtime_error);
}

TEST(draw_matches_combined, ScalesBothIntoOneBox) {
  TempDir dir;
  const cv::Mat big = make_texture(1600, 1200, 5);
  std::vector<cv::KeyPoint> kps = {cv::KeyPoint(100, 100, 5), cv::KeyPoint(1500, 1100, 5)};
  std::vector<cv::DMatch> matches = {{0, 1, 1.f}, {1, 0, 2.f}};
  draw_matches_combined(big, big, matches, kps, kps, dir.file("a.jpg"));
  EXPECT_EQ(cv::imread(dir.file("a.jpg")).size(), cv::Size(1600, 600));
  draw_matches_combined(big, big, matches, kps, kps, dir.file("b.jpg"));
  EXPECT_EQ(read_bytes(dir.file("a.jpg")), read_bytes(dir.file("b.jpg")));

  cv::Mat small_colour;
  cv::cvtColor(make_texture(400, 300, 6), small_colour, cv::COLOR_GRAY2BGR);
  draw_matches_combined(small_colour, make_texture(800, 600, 7), {}, {}, {}, dir.file("c.jpg"));
  const cv::Mat c = cv::imread(dir.file("c.jpg"));
  EXPECT_EQ(c.size(), cv::Size(1200, 600));
  EXPECT_LT(cv::mean(c(cv::Rect(0, 0, 400, 140)))[0], 40);  // black above the centred picture

  testing::internal::CaptureStdout();
  draw_matches_combined(big, big, {}, {}, {}, dir.file("no/such/dir.jpg"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to save image\n");
}

// The top-level driver with corners given: one slot per requested variant.
class CornersGiven : public testing::Test {
 protected:
  static constexpr int kW = 192, kH = 108;
  double run(const std::vector<int>& outputs, int crop_w = 0, int crop_h = 0) {
    dir_ = std::make_unique<TempDir>();
    folder_ = dir_->path().string();
    return align_frame(input_.data, reference_.data(), kW, kH, input_.cols, input_.rows, crop_w,
                       crop_h, 0, corners_, folder_.c_str(), nullptr, nullptr, false, outputs,
                       false);
  }
  cv::Mat slot(int i) {
    const std::vector<unsigned char> bytes =
        read_bytes(dir_->file("aligned_" + std::to_string(i) + "__192xx108.yuv"));
    return bytes.size() == kW * kH ? cv::Mat(kH, kW, CV_8UC1, const_cast<unsigned char*>(bytes.data())).clone()
                                   : cv::Mat();
  }
  cv::Mat expected(int variant) {
    const cv::Point2f src[4] = {{20, 15}, {300, 25}, {15, 200}, {310, 210}};
    const cv::Point2f dst[4] = {{0, 0}, {kW, 0}, {0, kH}, {kW, kH}};
    cv::Mat warped;
    cv::warpPerspective(input_, warped, cv::getPerspectiveTransform(src, dst), cv::Size(kW, kH),
                        cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar(0));
    apply_output_variant(warped.data, kW, kH, variant);
    return warped;
  }
  cv::Mat input_ = make_texture(330, 230, 8);
  std::vector<unsigned char> reference_ = std::vector<unsigned char>(kW * kH, 0);
  double corners_[8] = {20, 15, 300, 25, 15, 200, 310, 210};
  std::unique_ptr<TempDir> dir_;
  std::string folder_;
};

TEST_F(CornersGiven, SlotsFollowTheVariantList) {
  const std::vector<std::pair<std::vector<int>, std::vector<int>>> cases = {
      {{}, {3, 0}}, {{7}, {3, 0}}, {{2, 2, 0}, {2, 0}}, {{3, 0, 4, 2, 1}, {3, 0, 4, 2, 1}},
      {{-1, 1}, {1}}};
  for (const auto& [outputs, variants] : cases) {
    EXPECT_EQ(run(outputs), 0.0);
    for (size_t i = 0; i < variants.size(); ++i) {
      const cv::Mat got = slot(static_cast<int>(i));
      ASSERT_FALSE(got.empty()) << i;
      EXPECT_EQ(cv::norm(got, expected(variants[i]), cv::NORM_INF), 0.0) << "slot " << i;
      EXPECT_EQ(read_text(dir_->file("pts_" + std::to_string(i) + ".txt")),
                "20.000000 15.000000 300.000000 25.000000 15.000000 200.000000 310.000000 "
                "210.000000\n");
    }
    EXPECT_TRUE(slot(static_cast<int>(variants.size())).empty());
    EXPECT_EQ(read_text(dir_->file("best_result.txt")), "0.000000\n");
  }
}

TEST_F(CornersGiven, PaddingMatchesTheCropAspect) {
  // 192 x 108 with a square crop: r = 0.5625, pad_x = 192 - 108 = 84.
  run({0}, 1080, 1080);
  cv::Mat got = slot(0);
  EXPECT_EQ(cv::countNonZero(got(cv::Rect(108, 0, 84, kH))), 0);
  EXPECT_EQ(read_text(dir_->file("content_pts_0.txt")),
            "0.000000 0.000000 0.000000 108.000000 108.000000 108.000000 108.000000 0.000000"
            " -1.000000 -1.000000 -1.000000 -1.000000 -1.000000 -1.000000 -1.000000 -1.000000"
            " -1.000000 -1.000000 -1.000000 -1.000000\n");
  // 1920 x 800 on the 16:9 frame: r = 1.35, pad_y = 108 - 80 = 28.
  run({0}, 1920, 800);
  got = slot(0);
  EXPECT_EQ(cv::countNonZero(got(cv::Rect(0, 80, kW, 28))), 0);
  EXPECT_GT(cv::countNonZero(got(cv::Rect(0, 79, kW, 1))), kW / 2);
  // A crop of 0 disables padding.
  run({0}, 0, 800);
  EXPECT_EQ(cv::norm(slot(0), expected(0), cv::NORM_INF), 0.0);
}

TEST(align_frame, FeaturesOnlyWithoutReferenceOrCorners) {
  const cv::Mat input = make_texture(96, 64, 9);
  std::vector<std::string> saved;
  const FeatureSaveCallback save = [&](const std::vector<cv::KeyPoint>&, const cv::Mat&,
                                       const char* name) { saved.push_back(name); };
  TempDir dir;
  const std::string folder = dir.path().string();
  const double no_corners[8] = {};
  EXPECT_EQ(align_frame(input.data, nullptr, 1920, 1080, 96, 64, 0, 0, 0, no_corners,
                        folder.c_str(), nullptr, save, false, {}, true),
            -1.0);
  EXPECT_EQ(saved.size(), 6u);
  EXPECT_TRUE(folder_files(dir).empty());
}

TEST(align_frame, NoRectifyCopiesTheInput) {
  const cv::Mat input = make_texture(64, 48, 10);
  std::vector<unsigned char> reference(64 * 48, 0);
  TempDir dir;
  const std::string folder = dir.path().string();
  const double no_corners[8] = {};
  EXPECT_EQ(align_frame(input.data, reference.data(), 64, 48, 64, 48, 0, 0, 1, no_corners,
                        folder.c_str(), nullptr, nullptr, false, {}, false),
            0.0);
  EXPECT_EQ(read_bytes(dir.file("aligned_0__64xx48.yuv")),
            std::vector<unsigned char>(input.data, input.data + 64 * 48));
  std::vector<unsigned char> enhanced(input.data, input.data + 64 * 48);
  apply_output_variant(enhanced.data(), 64, 48, kEnhancedCopyVariant);
  EXPECT_EQ(read_bytes(dir.file("aligned_1__64xx48.yuv")), enhanced);
  EXPECT_EQ(read_text(dir.file("best_result.txt")), "0.000000\n");
  EXPECT_EQ(read_text(dir.file("content_pts_0.txt")).substr(0, 80),
            "0.000000 0.000000 0.000000 48.000000 64.000000 48.000000 64.000000 0.000000 -1.0");
}

}  // namespace
