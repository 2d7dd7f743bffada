// The quick path: one cheap feature pass over a reduced copy of the capture
// and a robust fit, then the refinement at full resolution. Its answer is
// taken only when the evidence for it is strong; otherwise the tuned search
// runs as it would have without it.
#include "align/quick_path.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/matching.h"
#include "align/scoring.h"
#include "align/verification.h"
#include "align/warps.h"
#include "core/plane_io.h"

namespace framealign {

namespace {

// The capture is reduced to about the reference's width: SIFT finds a screen
// of a third to the whole of that size well, and the pyramid costs a quarter
// of the full capture's.
constexpr double kQuickWidthRatio = 1.0;
// RANSAC's inlier threshold, in pixels of the reduced capture.
constexpr double kInlierThreshold = 3.0;
// Verification: enough consistent matches, spread over the frame, and most
// of the aligned frame's own matches agreeing with the refined answer. On
// the bench (bench/RESULTS.md) every capture that took the quick path was
// within half a pixel, and every negative (unrelated pictures, another frame
// of the same video, mirrored and upside-down views) failed at least one
// test and went to the search.
constexpr int kMinimumInliers = 60;
constexpr int kMinimumFramePairs = 100;  // aligned frame's pairs kept by the refit (and half)
// The quick path takes only views of an upright frame: its top edge within
// this many degrees of the capture's rows. A frame turned further, upside
// down in particular, is left to the search.
constexpr double kLargestTurn = 45.0;

bool upright(const double* corners) {
  const double turn = std::atan2(corners[3] - corners[1], corners[2] - corners[0]) * 180.0 / CV_PI;
  return std::abs(turn) <= kLargestTurn;
}

}  // namespace

QuickFeatures quick_features(const cv::Mat& picture) {
  QuickFeatures features;
  cv::SIFT::create()->detectAndCompute(picture, cv::noArray(), features.keypoints,
                                       features.descriptors);
  return features;
}

namespace {

// Where the corners of a width x height frame lie under `to_capture`.
void frame_seen_through(const cv::Mat& to_capture, int width, int height, double* corners) {
  double frame[8];
  frame_corners(width, height, frame);
  std::vector<cv::Point2f> seen;
  cv::perspectiveTransform(corner_points(frame), seen, to_capture);
  for (int i = 0; i < 4; ++i) {
    corners[2 * i] = seen[i].x;
    corners[2 * i + 1] = seen[i].y;
  }
}

}  // namespace

namespace {

// Features of the capture reduced to about the reference's width; `scale`
// is the reduction (1 for a capture no wider).
QuickFeatures reduced_features(const cv::Mat& image, int width, double& scale) {
  scale = std::min(1.0, kQuickWidthRatio * width / image.cols);
  if (!(scale < 1.0)) return quick_features(image);
  cv::Mat reduced;
  cv::resize(image, reduced, cv::Size(), scale, scale, cv::INTER_AREA);
  return quick_features(reduced);
}

}  // namespace

VerifiedAttempt quick_rectified_img(const cv::Mat& image, const cv::Mat& reference,
                                    const QuickFeatures& reference_quick,
                                    const std::vector<cv::KeyPoint>& ref_keypoints,
                                    const cv::Mat& ref_descriptors) {
  const int width = reference.cols, height = reference.rows;
  double scale = 1.0;
  const QuickFeatures capture = reduced_features(image, width, scale);
  if (capture.descriptors.empty() || reference_quick.descriptors.empty()) {
    return {std::nullopt, "the quick pass found no features"};
  }

  cv::theRNG() = cv::RNG();  // FLANN's trees, as the search draws them
  const std::vector<cv::DMatch> matches =
      ratio_test_matches(reference_quick.descriptors, capture.descriptors);
  if (matches.size() < static_cast<std::size_t>(kMinimumInliers)) {
    return {std::nullopt, figures("the quick pass matched %.0f features (at least %.0f are needed)",
                                  double(matches.size()), kMinimumInliers)};
  }
  std::vector<cv::Point2f> from, to;
  for (const cv::DMatch& m : matches) {
    from.push_back(reference_quick.keypoints[m.queryIdx].pt);
    to.push_back(capture.keypoints[m.trainIdx].pt * (1.0 / scale));
  }
  std::vector<unsigned char> inlier;
  const cv::Mat to_capture = cv::findHomography(from, to, cv::RANSAC, kInlierThreshold / scale,
                                                inlier, 2000, 0.995);
  if (to_capture.empty()) return {std::nullopt, "the quick pass's matches agree on no geometry"};
  std::vector<cv::Point2f> kept_reference;
  PointPairs pairs;  // all of them: the refinement gates them itself
  PointPairs agreeing;
  for (std::size_t j = 0; j < matches.size(); ++j) {
    if (inlier[j]) {
      kept_reference.push_back(from[j]);
      agreeing.reference.emplace_back(from[j]);
      agreeing.input.emplace_back(to[j]);
    }
    pairs.reference.emplace_back(from[j]);
    pairs.input.emplace_back(to[j]);
  }
  const double covered = coverage(kept_reference, width, height);
  if (static_cast<int>(kept_reference.size()) < kMinimumInliers || covered < kMinimumCoverage) {
    return {std::nullopt, figures("the quick pass kept %.0f matches spanning %.0f%% of the "
                                  "reference (at least 60 over 35%% are needed)",
                                  double(kept_reference.size()), 100.0 * covered)};
  }

  double corners[8];
  frame_seen_through(to_capture, width, height, corners);
  if (!upright(corners)) {
    return {std::nullopt, "the quick pass saw the frame turned over 45 degrees"};
  }
  const std::string insane = sanity_failure(corners, image.cols, image.rows);
  if (!insane.empty()) return {std::nullopt, "the quick pass's corners: " + insane};

  Slot seen = Slot::blank(width, height);
  warp_to_frame(image, width, height, corners, seen.frame.data, seen.polygon.data());
  cv::theRNG() = cv::RNG();
  const RectifiedMatches rectified =
      match_rectified(seen.frame.data, ref_descriptors, width, height);
  // The search's score, with the quick fit's inliers in place of the grid's.
  const double quick_score =
      rectification_score(rectified, ref_keypoints) *
      match_term(static_cast<double>(kept_reference.size()) * covered * width * height);
  if (!(quick_score < kFailedScore)) {
    return {std::nullopt, figures("the frame warped by the quick pass's corners matched %.0f of "
                                  "the reference's features (at least 10 are needed)",
                                  double(rectified.matches.size()))};
  }

  const RefinedCorners refined =
      refine_corners(pairs, matched_points(rectified.matches, ref_keypoints, rectified.keypoints),
                     corners, width, height, image.size());
  const Acceptance acceptance{kMinimumFramePairs};
  const std::size_t offered = rectified.matches.size();
  std::optional<Slot> slot =
      verified_slot(image, refined, offered, acceptance, quick_score, width, height);
  if (!slot) return {std::nullopt, refusal(refined, offered, acceptance)};
  record_evidence(*slot, agreeing);
  return {std::move(slot), ""};
}

}  // namespace framealign
