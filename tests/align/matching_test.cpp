#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "align/matching.h"
#include "test_support.h"

namespace {

const double kFrame[8] = {0, 0, 1280, 0, 0, 720, 1280, 720};
// Where the 1280 x 720 frame lies in the 1600 x 1200 captures of these tests.
const double kCorners[8] = {210, 180, 1390, 250, 170, 1010, 1430, 1060};

// Matches i -> i between reference points and their images under H.
struct ExactMatches {
  std::vector<cv::KeyPoint> ref, input;
  std::vector<cv::DMatch> matches;
  void add(const cv::Mat& H, cv::Point2f p, float size, float response, float distance,
           cv::Point2f offset = {0, 0}) {
    std::vector<cv::Point2f> q;
    cv::perspectiveTransform(std::vector<cv::Point2f>{p}, q, H);
    const int i = static_cast<int>(ref.size());
    ref.emplace_back(p, size, -1, response);
    input.emplace_back(q[0] + offset, size, -1, response);
    matches.emplace_back(i, i, distance);
  }
};

TEST(inspect_matches, KeepsSelectedMatchesThatAgreeWithTheCorners) {
  const cv::Mat H = frame_to_capture(1280, 720, kCorners);
  const float cw = 1280.0f / 6.0f, ch = 720.0f / 3.0f;
  ExactMatches m;
  std::vector<int> expected;
  cv::RNG rng(12);
  for (int cell = 0; cell < 18; ++cell) {
    auto inside = [&] {
      return cv::Point2f(cell % 6 * cw + rng.uniform(5.f, cw - 5), cell / 6 * ch + rng.uniform(5.f, ch - 5));
    };
    // Six strong exact matches, one strong match 300 px off, and four weak
    // exact ones that only a quantile below 0.4 would let through.
    for (int k = 0; k < 6; ++k) {
      expected.push_back(static_cast<int>(m.matches.size()));
      m.add(H, inside(), 10, 1.0f, rng.uniform(0.f, 500.f));
    }
    m.add(H, inside(), 10, 1.0f, rng.uniform(0.f, 500.f), {300, -200});
    for (int k = 0; k < 4; ++k) m.add(H, inside(), 1, 0.1f, rng.uniform(0.f, 500.f));
  }
  m.add(H, {cw, 100}, 10, 1.0f, 0.0f);  // exactly on a cell border: in no cell

  double score = -1;
  const std::vector<cv::DMatch> inliers = inspect_matches(m.matches, m.ref, m.input, 1280, 720, kFrame, score);
  std::vector<int> got;
  for (const cv::DMatch& d : inliers) {
    got.push_back(d.queryIdx);
  }
  EXPECT_TRUE(std::is_sorted(inliers.begin(), inliers.end(), by_distance));
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, expected);

  score = 1.0;
  EXPECT_TRUE(inspect_matches({}, {}, {}, 1280, 720, kFrame, score).empty());
  EXPECT_EQ(score, std::numeric_limits<double>::infinity());
}

TEST(get_rectification_score, ScoresTheResidualShift) {
  const cv::Mat reference = make_reference_frame(640, 360, 21);
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  SIFTdetectAndCompute(reference, kps, desc, false);
  auto score = [&](const cv::Mat& plane) { return get_rectification_score(plane.data, kps, desc, 640, 360); };
  EXPECT_EQ(score(reference), kFailedScore);  // a perfect copy scores like a failure
  const cv::Mat shift = (cv::Mat_<double>(2, 3) << 1, 0, 3, 0, 1, 0);
  cv::Mat shifted;
  cv::warpAffine(reference, shifted, shift, reference.size());
  EXPECT_NEAR(score(shifted), 3.0, 0.5);
}

// The matching step on a synthetic capture: for every preprocessing type the
// corners located from its inliers lie within 2 pixels of the truth.
TEST(calculateMatches, LocatesTheFrameForEveryPreprocessingType) {
  const cv::Mat reference = make_reference_frame(1280, 720, 31);
  const cv::Mat capture = make_capture(reference, kCorners, 1600, 1200, 32);
  std::vector<cv::KeyPoint> ref_kps;
  cv::Mat ref_desc;
  SIFTdetectAndCompute(reference, ref_kps, ref_desc, false);
  for (int type = 0; type <= 2; ++type) {
    std::vector<cv::KeyPoint> kps;
    cv::Mat desc;
    double score = 1.0;
    const std::vector<cv::DMatch> inliers = calculateMatches(
        capture, cv::Mat(), 1280, 720, type, kFrame, nullptr, ref_desc, ref_kps, desc, kps, nullptr, nullptr, score, false);
    ASSERT_GE(inliers.size(), 50u) << type;
    EXPECT_LT(score, 1.0);
    double found[8] = {};
    get_homography_pts(inliers, ref_kps, kps, kFrame, found);
    for (int i = 0; i < 8; ++i) EXPECT_NEAR(found[i], kCorners[i], 2.0) << type << " " << i;
  }
}

}  // namespace

// Plausible views of a 1920 x 1080 frame: every side at least a twentieth
// of the frame, every corner between 45 and 135 degrees, the frame's own
// turning direction. Parallelograms skewed to a corner angle of 44 and 46
// degrees, rectangles just below and above the shortest sides.
TEST(check_ref_pts_sanity, LimitsOfAPlausibleView) {
  auto skewed = [](double degrees) {
    const double d = 1080.0 / std::tan(degrees * CV_PI / 180.0);
    return std::vector<double>{0, 0, 1920, 0, d, 1080, 1920 + d, 1080};
  };
  auto rectangle = [](double w, double h) { return std::vector<double>{0, 0, w, 0, 0, h, w, h}; };
  const std::vector<std::pair<std::vector<double>, bool>> cases = {
      {rectangle(1920, 1080), true},  {skewed(46), true},          {skewed(44), false},
      {skewed(134), true},            {skewed(136), false},        {rectangle(97, 1080), true},
      {rectangle(95, 1080), false},   {rectangle(1920, 55), true}, {rectangle(1920, 53), false},
      {{1920, 0, 0, 0, 1920, 1080, 0, 1080}, false},  // mirrored left-right
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(check_ref_pts_sanity(cases[i].first.data(), 1920, 1080), cases[i].second) << i;
  }
}
