// Answers that skip the full search, against known homographies: the one
// verification they share, the quick path on a whole capture, and the
// tracker from a seed, and a hint. A right answer is taken and lands within a fraction
// of a pixel; an answer most pairs disagree with, one about 2 px off whose
// pairs lie in a corner, one from too few pairs, or another picture, is
// refused.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "align/hinted.h"
#include "align/quick_path.h"
#include "align/refinement.h"
#include "align/tracking.h"
#include "align/verification.h"
#include "test_support.h"

namespace {

constexpr int kW = 640, kH = 360;
const cv::Size kCapture(960, 720);
const double kTruth[8] = {110.4, 80.2, 830.7, 100.9, 90.3, 610.6, 860.2, 640.5};

double worst_corner(const std::array<double, 8>& found) {
  double worst = 0.0;
  for (int i = 0; i < 8; i += 2)
    worst = std::max(worst, std::hypot(found[i] - kTruth[i], found[i + 1] - kTruth[i + 1]));
  return worst;
}

// `n` pairs seen through kTruth's view, where the frame warped by `start`
// shows them (as an aligned frame's matches are given), over the part of
// the frame given (shares of its width and height from the top-left), pair
// i moved by shifts[i % size] pixels to the right.
PointPairs seen_pairs(const double* start, int n, double part, const std::vector<double>& shifts) {
  const cv::Mat to_aligned =
      frame_to_capture(kW, kH, start).inv() * frame_to_capture(kW, kH, kTruth);
  cv::RNG rng(11);
  PointPairs pairs;
  for (int i = 0; i < n; ++i) {
    std::vector<cv::Point2d> ref = {{rng.uniform(0.0, kW * part), rng.uniform(0.0, kH * part)}},
                             seen;
    cv::perspectiveTransform(ref, seen, to_aligned);
    seen[0] += cv::Point2d(rng.gaussian(0.2) + shifts[i % shifts.size()], rng.gaussian(0.2));
    pairs.reference.push_back(ref[0]);
    pairs.input.push_back(seen[0]);
  }
  return pairs;
}

TEST(verified_slot, TakesOnlyWhatTheEvidenceHolds) {
  const cv::Mat reference = make_reference_frame(kW, kH, 5);
  const cv::Mat capture = make_capture(reference, kTruth, kCapture.width, kCapture.height, 6);
  double start[8];
  for (int i = 0; i < 8; ++i) start[i] = kTruth[i] + (i % 3 == 0 ? 1.5 : -1.0);
  struct Case {
    const char* what;
    int pairs;
    double part;
    std::vector<double> shifts;
    bool taken;
  };
  const Case cases[] = {
      {"a right answer", 600, 1.0, {0}, true},
      // The refinement keeps the 40% that agree: too few of those offered.
      {"three views 6 px apart", 600, 1.0, {0, 0, 0, 0, 6, 6, 6, -6, -6, -6}, false},
      // Pairs over a tenth of the frame leave the far corners ~2 px off.
      {"pairs in one corner", 600, 0.3, {0}, false},
      {"too few pairs", 60, 1.0, {0}, false},
  };
  for (const Case& c : cases) {
    const PointPairs pairs = seen_pairs(start, c.pairs, c.part, c.shifts);
    const RefinedCorners refined = refine_corners(PointPairs{}, pairs, start, kW, kH, kCapture);
    const std::optional<Slot> slot =
        verified_slot(capture, refined, pairs.input.size(), Acceptance{}, 7.0, kW, kH);
    EXPECT_EQ(slot.has_value(), c.taken) << c.what;
    if (!slot) continue;
    EXPECT_LT(worst_corner(slot->corners), 0.3) << c.what;
    ASSERT_TRUE(slot->est_error_px && slot->mapping) << c.what;
    EXPECT_LE(*slot->est_error_px, kQuickMaxError) << c.what;
    EXPECT_EQ(slot->score, 7.0);
    // The frame is the capture warped by the slot's own corners.
    const cv::Mat expected = warp_by_corners(capture, slot->corners, kW, kH);
    EXPECT_LT(cv::norm(slot->frame, expected, cv::NORM_L1) / expected.total(), 0.5) << c.what;
    EXPECT_EQ(slot->polygon[8], -1.0) << "a four-point outline leaves the rest unwritten";
  }
}

TEST(quick_rectified_img, TakesTheRightViewAndRefusesAnotherPicture) {
  const cv::Mat reference = make_reference_frame(kW, kH, 21);
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;
  SIFTdetectAndCompute(reference, keypoints, descriptors, false);
  const QuickFeatures quick = quick_features(reference);
  struct Case {
    const char* what;
    cv::Mat shown;
    bool taken;
  };
  const Case cases[] = {
      {"the reference", reference, true},
      {"another picture", make_reference_frame(kW, kH, 22), false},
  };
  for (const Case& c : cases) {
    const cv::Mat capture = make_capture(c.shown, kTruth, kCapture.width, kCapture.height, 23);
    const VerifiedAttempt attempt =
        quick_rectified_img(capture, reference, quick, keypoints, descriptors);
    EXPECT_EQ(attempt.slot.has_value(), c.taken) << c.what;
    EXPECT_EQ(attempt.reason.empty(), c.taken) << c.what << ": " << attempt.reason;
    if (attempt.slot) {
      EXPECT_LT(worst_corner(attempt.slot->corners), 0.3) << c.what;
    }
  }
}

TEST(tracked_rectified_img, FollowsFromASeedAndRefusesAFrameNotShown) {
  const cv::Mat reference = make_reference_frame(kW, kH, 31);
  const cv::Mat capture = make_capture(reference, kTruth, kCapture.width, kCapture.height, 32);
  double seed[8];
  for (int i = 0; i < 8; ++i) seed[i] = kTruth[i] + (i < 4 ? 2.0 : -1.5);
  const cv::Mat other = make_reference_frame(kW, kH, 33);
  struct Case {
    const char* what;
    cv::Mat followed;
    bool taken;
  };
  const Case cases[] = {
      {"the frame shown, from a seed 2 px off", reference, true},
      {"another frame", other, false},
  };
  for (const Case& c : cases) {
    const std::vector<TrackGroup> groups = {{c.followed, track_points(c.followed)}};
    const std::optional<Slot> slot = tracked_rectified_img(capture, groups, seed, TrackTerms());
    EXPECT_EQ(slot.has_value(), c.taken) << c.what;
    if (slot) {
      EXPECT_LT(worst_corner(slot->corners), 0.3) << c.what;
    }
  }
}

// Hints as a hand clicks them: every corner up to 3% of the frame's size
// off, in random directions.
TEST(hinted_slot, RefinesRoughCornersAndRefusesWhatTheyDoNotShow) {
  const cv::Mat reference = make_reference_frame(kW, kH, 41);
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;
  SIFTdetectAndCompute(reference, keypoints, descriptors, false);
  const cv::Mat shown = make_capture(reference, kTruth, kCapture.width, kCapture.height, 42);
  const cv::Mat other =
      make_capture(make_reference_frame(kW, kH, 43), kTruth, kCapture.width, kCapture.height, 42);
  cv::RNG rng(44);
  for (int trial = 0; trial < 4; ++trial) {
    std::array<double, 8> hint;
    for (int i = 0; i < 8; ++i) hint[i] = kTruth[i] + rng.uniform(-0.03, 0.03) * kW;
    const VerifiedAttempt found = hinted_slot(shown, hint, reference, keypoints, descriptors);
    ASSERT_TRUE(found.slot) << "trial " << trial << ": " << found.reason;
    EXPECT_LT(worst_corner(found.slot->corners), 0.5) << "trial " << trial;
    EXPECT_TRUE(found.reason.empty());
  }
  std::array<double, 8> right;
  std::copy(kTruth, kTruth + 8, right.begin());
  const std::array<double, 8> folded = {100, 100, 100, 100, 100, 600, 800, 600};
  struct Case {
    const char* what;
    cv::Mat capture;
    std::array<double, 8> hint;
    const char* reason;
  };
  const Case refused[] = {
      {"another picture where the hint points", other, right, "matches"},
      {"a hint that is no view", shown, folded, "no view of a screen"},
  };
  for (const Case& c : refused) {
    const VerifiedAttempt found = hinted_slot(c.capture, c.hint, reference, keypoints, descriptors);
    EXPECT_FALSE(found.slot) << c.what;
    EXPECT_NE(found.reason.find(c.reason), std::string::npos) << c.what << ": " << found.reason;
  }
}

}  // namespace
