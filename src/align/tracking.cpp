// Tracking: a frame of a filmed screen aligned from where the screen lay in
// the frame before. The capture is warped by those corners, the reference's
// corner points are followed into the warped frame by pyramidal
// Lucas-Kanade (both ways, kept only when they come back), and the
// refinement corrects the corners from the followed pairs. No SIFT pass at
// all: the answer is taken only when verified as the quick path's is.
#include "align/tracking.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "align/align.h"
#include "align/scoring.h"
#include "align/verification.h"
#include "align/warps.h"

namespace framealign {

namespace {

constexpr int kTrackPoints = 1500;
// A followed point counts when following it back lands this close (pixels)
// to where it started.
constexpr float kRoundTrip = 0.5f;
// Verification, as the quick path's: enough pairs (TrackTerms) spread
// over the frame (kMinimumCoverage), most of them kept by the refinement,
// an estimate within a pixel.
// Of a frame whose points were picked from part of it (the bands of a mixed
// frame that show one reference frame), the pairs must cover this share of
// that part, and that part this share of the frame; the estimate over the
// whole frame says what the rest costs.
constexpr double kLeastPart = 0.15;

// `warped` brought to the reference's mean and contrast band by band of
// rows, so that the exposure of the filming camera does not read as
// motion: its gain may change along the rows (a PWM-dimmed backlight under
// a short exposure bands the picture as the shutter passes).
constexpr int kExposureBands = 24;

cv::Mat matched_exposure(const cv::Mat& warped, const cv::Mat& reference) {
  cv::Scalar warped_mean, warped_std, reference_mean, reference_std;
  cv::meanStdDev(warped, warped_mean, warped_std);
  if (warped_std[0] < 1.0) return cv::Mat();
  cv::Mat matched(warped.size(), CV_8U);
  for (int b = 0; b < kExposureBands; ++b) {
    const cv::Range rows(b * warped.rows / kExposureBands, (b + 1) * warped.rows / kExposureBands);
    if (rows.empty()) continue;
    cv::meanStdDev(warped.rowRange(rows), warped_mean, warped_std);
    cv::meanStdDev(reference.rowRange(rows), reference_mean, reference_std);
    const double gain = warped_std[0] < 1.0 ? 1.0 : reference_std[0] / warped_std[0];
    const double offset = reference_mean[0] - gain * warped_mean[0];
    warped.rowRange(rows).convertTo(matched.rowRange(rows), CV_8U, gain, offset);
  }
  return matched;
}

// Pairs of reference points and where they are found in `warped`.
PointPairs follow(const cv::Mat& reference, const cv::Mat& warped,
                  const std::vector<cv::Point2f>& points) {
  PointPairs pairs;
  if (points.empty()) return pairs;
  const cv::TermCriteria until(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, 0.01);
  std::vector<cv::Point2f> found = points, back = points;
  std::vector<unsigned char> there, returned;
  std::vector<float> error;
  cv::calcOpticalFlowPyrLK(reference, warped, points, found, there, error, cv::Size(21, 21), 3,
                           until, cv::OPTFLOW_USE_INITIAL_FLOW);
  cv::calcOpticalFlowPyrLK(warped, reference, found, back, returned, error, cv::Size(21, 21), 3,
                           until, cv::OPTFLOW_USE_INITIAL_FLOW);
  for (std::size_t i = 0; i < points.size(); ++i) {
    if (!there[i] || !returned[i] || cv::norm(back[i] - points[i]) > kRoundTrip) continue;
    pairs.reference.emplace_back(points[i]);
    pairs.input.emplace_back(found[i]);
  }
  return pairs;
}

// The search's score for the followed pairs: their displacement score
// times the match term over their number and spread.
double tracked_score(const PointPairs& pairs, double offered, int width, int height) {
  RectifiedMatches as_matches;
  std::vector<cv::KeyPoint> reference_points;
  std::vector<cv::Point2f> spread;
  for (std::size_t i = 0; i < pairs.input.size(); ++i) {
    reference_points.emplace_back(cv::Point2f(pairs.reference[i]), 1.0f);
    as_matches.keypoints.emplace_back(cv::Point2f(pairs.input[i]), 1.0f);
    as_matches.matches.emplace_back(static_cast<int>(i), static_cast<int>(i), 0.0f);
    spread.emplace_back(pairs.reference[i]);
  }
  const double covered = coverage(spread, width, height);
  if (offered < kLeastPart || covered < kMinimumCoverage * std::min(1.0, offered))
    return kFailedScore;
  return rectification_score(as_matches, reference_points) *
         match_term(pairs.input.size() * covered * width * height);
}

}  // namespace

std::vector<cv::Point2f> track_points(const cv::Mat& reference) {
  std::vector<cv::Point2f> points;
  cv::goodFeaturesToTrack(reference, points, kTrackPoints, 0.01,
                          std::max(4, std::min(reference.cols, reference.rows) / 60));
  return points;
}

std::optional<Slot> tracked_rectified_img(const cv::Mat& image,
                                          const std::vector<TrackGroup>& groups, const double* seed,
                                          const TrackTerms& terms) {
  if (groups.empty()) return std::nullopt;
  const int width = groups[0].reference.cols, height = groups[0].reference.rows;
  if (!check_ref_pts_sanity(seed, image.cols, image.rows)) return std::nullopt;
  Slot seen = Slot::blank(width, height);
  warp_to_frame(image, width, height, seed, seen.frame.data, seen.polygon.data());
  const cv::Mat& warped = seen.frame;
  const cv::Mat matched = matched_exposure(warped, groups[0].reference);
  if (matched.empty()) return std::nullopt;
  PointPairs pairs;
  std::vector<cv::Point2f> points;
  for (const TrackGroup& group : groups) {
    if (group.reference.size() != groups[0].reference.size()) {
      throw std::invalid_argument("tracked frames differ in size");
    }
    const PointPairs found = follow(group.reference, matched, group.points);
    pairs.reference.insert(pairs.reference.end(), found.reference.begin(), found.reference.end());
    pairs.input.insert(pairs.input.end(), found.input.begin(), found.input.end());
    points.insert(points.end(), group.points.begin(), group.points.end());
  }
  if (pairs.input.size() < static_cast<std::size_t>(terms.acceptance.least_pairs))
    return std::nullopt;
  const double offered = coverage(points, width, height);
  const double followed_score = tracked_score(pairs, offered, width, height);
  if (!(followed_score < kFailedScore)) return std::nullopt;

  PointPairs all = pairs;
  all.reference.insert(all.reference.end(), terms.anchors.reference.begin(),
                       terms.anchors.reference.end());
  all.input.insert(all.input.end(), terms.anchors.input.begin(), terms.anchors.input.end());
  const RefinedCorners refined =
      refine_corners(PointPairs{}, all, seed, width, height, image.size());
  return verified_slot(image, refined, all.input.size(), terms.acceptance, followed_score, width,
                       height);
}

}  // namespace framealign
