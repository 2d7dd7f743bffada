// A hint is a start, never an answer: what it gives is taken only when the
// features seen where it puts the screen agree with the reference to within
// a pixel; otherwise the result says the hint is unverified.
#include "align/hinted.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <opencv2/calib3d.hpp>

#include "align/align.h"
#include "align/mapping.h"
#include "align/matching.h"
#include "align/scoring.h"
#include "align/verification.h"
#include "align/warps.h"
#include "core/plane_io.h"

namespace framealign {

namespace {

// As the quick path's: at least this many of the aligned frame's pairs must
// agree with the refined answer (and half of those offered).
constexpr int kMinimumFramePairs = 100;
// Matches enough to correct the hint by: a frame warped by corners a few
// percent off is distorted, and its matches are fewer than at the answer.
constexpr int kLeastToCorrect = 20;
// RANSAC's inlier threshold for the correction, in reference pixels.
constexpr double kInlierThreshold = 3.0;
// Corrections of the hint: the first takes a hint a few percent off to
// about a pixel, the second starts the refinement from there.
constexpr int kCorrections = 2;
// A hint is a few percent off; an answer that moves a corner further than
// this share of the hint's diagonal is another view (the screen turned
// upside down, a repeated pattern), not the hinted one.
constexpr double kLargestMove = 0.1;

// The capture seen through `corners`, matched with the reference.
struct Look {
  Slot seen;
  RectifiedMatches rectified;
  PointPairs pairs;  // reference points, and where the capture shows them
  std::vector<cv::Point2f> reference, frame;
};

Look look_through(const cv::Mat& image, const double* corners, const cv::Mat& ref_descriptors,
                  const std::vector<cv::KeyPoint>& ref_keypoints, int width, int height) {
  Look look{Slot::blank(width, height), {}, {}, {}, {}};
  warp_to_frame(image, width, height, corners, look.seen.frame.data, look.seen.polygon.data());
  cv::theRNG() = cv::RNG();  // FLANN's trees, as the search draws them
  look.rectified = match_rectified(look.seen.frame.data, ref_descriptors, width, height);
  const Mapping to_capture = corners_mapping(corners, width, height, image.size());
  for (const cv::DMatch& m : look.rectified.matches) {
    const cv::Point2f at = look.rectified.keypoints[m.trainIdx].pt;
    look.reference.push_back(ref_keypoints[m.queryIdx].pt);
    look.frame.push_back(at);
    look.pairs.reference.emplace_back(ref_keypoints[m.queryIdx].pt);
    look.pairs.input.push_back(to_capture.to_capture(cv::Point2d(at)));
  }
  return look;
}

// The corners that `correction` (reference to the frame warped by
// `corners`) moves `corners` to.
void corrected(const double* corners, const cv::Mat& correction, int width, int height,
               cv::Size capture, double* out) {
  const Mapping to_capture = corners_mapping(corners, width, height, capture);
  double frame[8];
  frame_corners(width, height, frame);
  std::vector<cv::Point2f> moved;
  cv::perspectiveTransform(corner_points(frame), moved, correction);
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d p = to_capture.to_capture(cv::Point2d(moved[i]));
    out[2 * i] = p.x;
    out[2 * i + 1] = p.y;
  }
}

bool finite(const double* corners) {
  return std::all_of(corners, corners + 8, [](double v) { return std::isfinite(v); });
}

// How far the corners moved from the hint, as a share of its diagonal.
double moved_share(const std::array<double, 8>& hint, const double* corners) {
  const double diagonal = std::hypot(hint[6] - hint[0], hint[7] - hint[1]);
  double most = 0.0;
  for (int i = 0; i < 8; i += 2) {
    most = std::max(most, std::hypot(corners[i] - hint[i], corners[i + 1] - hint[i + 1]));
  }
  return most / diagonal;
}

}  // namespace

VerifiedAttempt hinted_slot(const cv::Mat& image, const std::array<double, 8>& hint,
                            const cv::Mat& reference,
                            const std::vector<cv::KeyPoint>& ref_keypoints,
                            const cv::Mat& ref_descriptors) {
  const int width = reference.cols, height = reference.rows;
  double corners[8];
  std::copy(hint.begin(), hint.end(), corners);
  if (!finite(corners) || !check_ref_pts_sanity(corners, image.cols, image.rows)) {
    return {std::nullopt,
            "the hint's corners are no view of a screen (a side under a twentieth of the capture, "
            "or a corner's angle outside 45 to 135 degrees)"};
  }
  Look look;
  std::vector<unsigned char> inlier;
  for (int round = 0; round <= kCorrections; ++round) {
    look = look_through(image, corners, ref_descriptors, ref_keypoints, width, height);
    const int least = round == kCorrections ? kMinimumFramePairs : kLeastToCorrect;
    if (look.frame.size() < static_cast<std::size_t>(least)) {
      return {std::nullopt,
              std::to_string(look.frame.size()) + " matches with the reference where the " +
                  (round == 0 ? "hint" : "corrected hint") + " puts the screen (at least " +
                  std::to_string(least) + " are needed)"};
    }
    const cv::Mat correction = cv::findHomography(look.reference, look.frame, cv::RANSAC,
                                                  kInlierThreshold, inlier, 2000, 0.995);
    if (correction.empty()) return {std::nullopt, "the matches agree on no geometry"};
    if (round == kCorrections) break;
    double next[8];
    corrected(corners, correction, width, height, image.size(), next);
    if (!finite(next) || !check_ref_pts_sanity(next, image.cols, image.rows)) {
      return {std::nullopt, "the matches move the hint to corners that are no view of a screen"};
    }
    std::copy(next, next + 8, corners);
    if (!(moved_share(hint, corners) <= kLargestMove)) {
      return {std::nullopt, figures("the matches move a corner %.0f%% of the screen's diagonal "
                                    "from the hint (at most %.0f%%)",
                                    100.0 * moved_share(hint, corners), 100.0 * kLargestMove)};
    }
  }
  std::vector<cv::Point2f> kept;
  PointPairs agreeing;
  for (std::size_t j = 0; j < inlier.size(); ++j) {
    if (!inlier[j]) continue;
    kept.push_back(look.reference[j]);
    agreeing.reference.push_back(look.pairs.reference[j]);
    agreeing.input.push_back(look.pairs.input[j]);
  }
  const double covered = coverage(kept, width, height);
  if (kept.size() < static_cast<std::size_t>(kMinimumFramePairs) || covered < kMinimumCoverage) {
    return {std::nullopt, figures("%.0f agreeing matches covering %.0f%% of the frame (at least "
                                  "100 over 35%% are needed)",
                                  double(kept.size()), 100.0 * covered)};
  }
  const double score = rectification_score(look.rectified, ref_keypoints) *
                       match_term(static_cast<double>(kept.size()) * covered * width * height);
  if (!(score < kFailedScore)) {
    return {std::nullopt, "the frame warped by the corrected hint does not score as a match"};
  }
  const RefinedCorners refined = refine_corners(
      look.pairs, matched_points(look.rectified.matches, ref_keypoints, look.rectified.keypoints),
      corners, width, height, image.size());
  // The corrected hint was fitted at the reference's own scale: when the
  // refinement keeps it, it stands, its estimate as the refinement gives it.
  const Acceptance acceptance{kMinimumFramePairs, kQuickMaxError, false};
  const std::size_t offered = look.rectified.matches.size();
  std::optional<Slot> slot =
      verified_slot(image, refined, offered, acceptance, score, width, height);
  if (!slot) return {std::nullopt, refusal(refined, offered, acceptance)};
  record_evidence(*slot, agreeing);
  return {std::move(slot), ""};
}

Slot unverified_hint_slot(const cv::Mat& image, const std::array<double, 8>& hint, int width,
                          int height) {
  Slot slot = Slot::blank(width, height);
  std::copy(hint.begin(), hint.end(), slot.corners.begin());
  warp_to_frame(image, width, height, slot.corners.data(), slot.frame.data, slot.polygon.data());
  slot.score = kFailedScore;
  slot.mapping = corners_mapping(slot.corners.data(), width, height, image.size());
  return slot;
}

}  // namespace framealign
