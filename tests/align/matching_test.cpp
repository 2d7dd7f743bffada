#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "synthetic.h"

namespace {

cv::KeyPoint keypoint(float x, float y, float size, float response) {
  cv::KeyPoint kp(x, y, size);
  kp.response = response;
  return kp;
}

cv::Point2f apply(const cv::Mat& H, const cv::Point2f& p) {
  std::vector<cv::Point2f> out;
  cv::perspectiveTransform(std::vector<cv::Point2f>{p}, out, H);
  return out[0];
}

const double kFrameCorners[8] = {0, 0, 1280, 0, 0, 720, 1280, 720};
// Where the 1280 x 720 frame lies in the 1600 x 1200 captures of these tests.
const double kCaptureCorners[8] = {210, 180, 1390, 250, 170, 1010, 1430, 1060};

TEST(select_best_matches, KeepsBySizeOrElseByResponse) {
  // Per match: reference size, input size, reference response, input response.
  struct Row {
    float ref_size, input_size, ref_response, input_response;
    bool kept;
  };
  const std::vector<Row> rows = {
      {9, 9, 0.1f, 0.1f, true},   // both sizes large
      {1, 1, 0.9f, 0.9f, true},   // sizes small, both responses strong
      {9, 1, 0.9f, 0.1f, false},  // one side weak in both tests
      {1, 9, 0.1f, 0.9f, false},
      {5, 5, 0.5f, 0.5f, false},  // exactly on every threshold: strict tests fail
      {2, 2, 0.2f, 0.2f, false},
      {8, 8, 0.8f, 0.8f, true},
  };
  // Reference keypoints are stored in reverse order, so that a swapped
  // query/train index is caught.
  const int n = static_cast<int>(rows.size());
  std::vector<cv::KeyPoint> ref(n), input(n);
  std::vector<cv::DMatch> matches;
  for (int i = 0; i < n; ++i) {
    ref[n - 1 - i] = keypoint(0, 0, rows[i].ref_size, rows[i].ref_response);
    input[i] = keypoint(0, 0, rows[i].input_size, rows[i].input_response);
    matches.emplace_back(n - 1 - i, i, 1.0f);
  }
  // The median of every column is 5 (or 0.5): q = 0.5 puts thresholds there.
  const std::vector<cv::DMatch> kept = select_best_matches(matches, 0.5f, ref, input);
  std::vector<int> kept_idx;
  for (const cv::DMatch& m : kept) kept_idx.push_back(m.trainIdx);
  std::vector<int> expected;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].kept) expected.push_back(static_cast<int>(i));
  }
  EXPECT_EQ(kept_idx, expected);

  EXPECT_TRUE(select_best_matches({}, 0.5f, ref, input).empty());
  EXPECT_TRUE(select_best_matches({matches[0]}, 0.95f, ref, input).empty());
}

// Reference points spread over the frame and their exact images under H.
struct ExactMatches {
  std::vector<cv::KeyPoint> ref, input;
  std::vector<cv::DMatch> matches;

  void add(const cv::Mat& H, cv::Point2f p, float size, float response, float distance,
           cv::Point2f offset = {0, 0}) {
    const int idx = static_cast<int>(ref.size());
    ref.push_back(keypoint(p.x, p.y, size, response));
    input.push_back(keypoint(apply(H, p).x + offset.x, apply(H, p).y + offset.y, size, response));
    matches.emplace_back(idx, idx, distance);
  }
};

TEST(get_homography_pts, RecoversAKnownHomography) {
  const cv::Mat H = frame_to_capture(1280, 720, kCaptureCorners);
  ExactMatches m;
  cv::RNG rng(11);
  for (int i = 0; i < 60; ++i) {
    m.add(H, {rng.uniform(0.f, 1280.f), rng.uniform(0.f, 720.f)}, 3, 0.1f, static_cast<float>(i));
  }
  double found[8] = {};
  const cv::Mat to_ref = get_homography_pts(m.matches, m.ref, m.input, kFrameCorners, found);
  for (int i = 0; i < 8; ++i) EXPECT_NEAR(found[i], kCaptureCorners[i], 0.01) << i;
  ASSERT_EQ(to_ref.size(), cv::Size(3, 3));
  const cv::Mat expected = H.inv();
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      EXPECT_NEAR(to_ref.at<double>(r, c) / to_ref.at<double>(2, 2),
                  expected.at<double>(r, c) / expected.at<double>(2, 2), 1e-4);
    }
  }

  double untouched[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const std::vector<cv::DMatch> three(m.matches.begin(), m.matches.begin() + 3);
  EXPECT_TRUE(get_homography_pts(three, m.ref, m.input, kFrameCorners, untouched).empty());
  for (int i = 0; i < 8; ++i) EXPECT_EQ(untouched[i], i + 1);
}

TEST(inspect_matches, KeepsSelectedMatchesThatAgreeWithTheCorners) {
  const cv::Mat H = frame_to_capture(1280, 720, kCaptureCorners);
  const float cw = 1280.0f / 6.0f, ch = 720.0f / 3.0f;
  ExactMatches m;
  std::vector<int> expected;  // indices of the matches that must come back
  cv::RNG rng(12);
  auto inside = [&](int r, int c) {
    return cv::Point2f(c * cw + rng.uniform(5.f, cw - 5), r * ch + rng.uniform(5.f, ch - 5));
  };
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 6; ++c) {
      // Per cell: six strong exact matches, one strong match 300 px off, and
      // four weak exact ones that only a quantile below 0.4 would let through.
      for (int k = 0; k < 6; ++k) {
        expected.push_back(static_cast<int>(m.matches.size()));
        m.add(H, inside(r, c), 10, 1.0f, rng.uniform(0.f, 500.f));
      }
      m.add(H, inside(r, c), 10, 1.0f, rng.uniform(0.f, 500.f), {300, -200});
      for (int k = 0; k < 4; ++k) m.add(H, inside(r, c), 1, 0.1f, rng.uniform(0.f, 500.f));
    }
  }
  // A strong exact match exactly on a cell border belongs to no cell.
  m.add(H, {cw, 100}, 10, 1.0f, 0.0f);

  double score = -1;
  const std::vector<cv::DMatch> inliers =
      inspect_matches(m.matches, m.ref, m.input, 1280, 720, kFrameCorners, score);

  ASSERT_EQ(inliers.size(), expected.size());
  std::vector<int> got;
  std::vector<cv::Point2f> hull;
  for (size_t i = 0; i < inliers.size(); ++i) {
    got.push_back(inliers[i].queryIdx);
    hull.push_back(m.input[inliers[i].trainIdx].pt);
    if (i > 0) {
      EXPECT_LE(inliers[i - 1].distance, inliers[i].distance);
    }
  }
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, expected);
  const double area = calculateConvexHullArea(hull);
  EXPECT_GT(area, 0.5 * 1100 * 800);
  EXPECT_DOUBLE_EQ(score, 100.0 / std::pow(expected.size() * area, 0.333));
}

TEST(inspect_matches, EmptySetScoresInfinity) {
  double score = 1.0;
  const std::vector<cv::KeyPoint> none;
  EXPECT_TRUE(inspect_matches({}, none, none, 1280, 720, kFrameCorners, score).empty());
  EXPECT_EQ(score, std::numeric_limits<double>::infinity());
}

TEST(ratio_test_matches, RejectsTheExactBoundary) {
  // One reference descriptor at the origin; two input descriptors at
  // distances d1 and 100. 0.78f * 100 is exactly 78.0f.
  const cv::Mat ref = cv::Mat::zeros(1, 128, CV_32F);
  for (float d1 : {78.0f, 77.99f, 78.01f}) {
    cv::Mat input = cv::Mat::zeros(2, 128, CV_32F);
    input.at<float>(0, 0) = d1;
    input.at<float>(1, 5) = 100.0f;
    const std::vector<cv::DMatch> kept = ratio_test_matches(ref, input);
    if (d1 < 78.0f) {
      ASSERT_EQ(kept.size(), 1u) << d1;
      EXPECT_EQ(kept[0].queryIdx, 0);
      EXPECT_EQ(kept[0].trainIdx, 0);
    } else {
      EXPECT_TRUE(kept.empty()) << d1;
    }
  }
}

class RectificationScore : public testing::Test {
 protected:
  void SetUp() override {
    reference_ = make_texture(640, 360, 21);
    SIFTdetectAndCompute(reference_, ref_kps_, ref_desc_, false);
  }
  double score(const cv::Mat& plane) {
    return get_rectification_score(plane.data, ref_kps_, ref_desc_, plane.cols, plane.rows);
  }
  cv::Mat reference_;
  std::vector<cv::KeyPoint> ref_kps_;
  cv::Mat ref_desc_;
};

TEST_F(RectificationScore, PerfectCopyScoresAsFailure) {
  EXPECT_EQ(score(reference_.clone()), kFailedScore);
}

TEST_F(RectificationScore, ShiftedPictureScoresItsShift) {
  for (double shift : {2.0, 4.0}) {
    const cv::Mat M = (cv::Mat_<double>(2, 3) << 1, 0, shift, 0, 1, 0);
    cv::Mat shifted;
    cv::warpAffine(reference_, shifted, M, reference_.size());
    const double s = score(shifted);
    EXPECT_GT(s, shift - 0.5) << shift;
    EXPECT_LT(s, shift + 0.5) << shift;
  }
}

TEST_F(RectificationScore, UnrelatedPictureScoresFarWorse) {
  EXPECT_GT(score(make_texture(640, 360, 22)), 20.0);
  // A flat plane has no features to match against.
  EXPECT_THROW(score(cv::Mat(360, 640, CV_8UC1, cv::Scalar(90))), std::runtime_error);
}

// The whole matching step on a synthetic capture: the located corners must
// land within 2 pixels of the truth for every preprocessing type.
TEST(calculateMatches, LocatesTheFrameForEveryPreprocessingType) {
  const cv::Mat reference = make_texture(1280, 720, 31);
  const cv::Mat capture = make_capture(reference, kCaptureCorners, 1600, 1200, 32);
  std::vector<cv::KeyPoint> ref_kps;
  cv::Mat ref_desc;
  SIFTdetectAndCompute(reference, ref_kps, ref_desc, false);
  double frame[8];
  std::copy(kFrameCorners, kFrameCorners + 8, frame);

  for (int type = 0; type <= 2; ++type) {
    std::vector<cv::KeyPoint> kps;
    cv::Mat desc;
    std::vector<std::string> saved;
    const FeatureSaveCallback save = [&](const std::vector<cv::KeyPoint>&, const cv::Mat&,
                                         const char* name) { saved.push_back(name); };
    double score = 1.0;
    const std::vector<cv::DMatch> inliers =
        calculateMatches(capture, cv::Mat(), 1280, 720, type, frame, nullptr, ref_desc, ref_kps,
                         desc, kps, nullptr, save, score, false);
    ASSERT_GE(inliers.size(), 50u) << type;
    EXPECT_GT(score, 0.0);
    EXPECT_LT(score, 1.0);
    EXPECT_EQ(saved, std::vector<std::string>{get_preprocessing_name(static_cast<PreprocessingType>(type))});
    EXPECT_EQ(desc.rows, static_cast<int>(kps.size()));

    double found[8] = {};
    ASSERT_FALSE(get_homography_pts(inliers, ref_kps, kps, kFrameCorners, found).empty());
    for (int i = 0; i < 8; ++i) EXPECT_NEAR(found[i], kCaptureCorners[i], 2.0) << type << " " << i;
  }
}

TEST(calculateMatches, CachedFeaturesReplaceExtraction) {
  // A loader that hands back the reference's own features as the input's:
  // every match is then exact and no SIFT runs on the (blank) input.
  const cv::Mat reference = make_texture(640, 360, 41);
  std::vector<cv::KeyPoint> ref_kps;
  cv::Mat ref_desc;
  SIFTdetectAndCompute(reference, ref_kps, ref_desc, false);
  const FeatureLoadCallback load = [&](std::vector<cv::KeyPoint>& k, cv::Mat& d, const char*) {
    k = ref_kps;
    d = ref_desc.clone();
    return true;
  };
  bool saved = false;
  const FeatureSaveCallback save = [&](const std::vector<cv::KeyPoint>&, const cv::Mat&,
                                       const char*) { saved = true; };
  const double frame[8] = {0, 0, 640, 0, 0, 360, 640, 360};
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  double score = 1.0;
  const cv::Mat blank(360, 640, CV_8UC1, cv::Scalar(0));
  const std::vector<cv::DMatch> inliers = calculateMatches(
      blank, blank, 640, 360, ORIGINAL, frame, "ignored", ref_desc, ref_kps, desc, kps, load,
      save, score, false);
  EXPECT_FALSE(saved);
  EXPECT_EQ(kps.size(), ref_kps.size());
  EXPECT_FALSE(inliers.empty());
}

}  // namespace
