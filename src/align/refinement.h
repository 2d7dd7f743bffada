// Refinement: the geometry of a found frame taken below a pixel, with an
// estimate of its error and, where the evidence shows it, lens distortion.
#pragma once

#include <cmath>
#include <vector>

#include <opencv2/core.hpp>

#include "framealign/framealign.h"

namespace framealign {

// Where reference points are seen in another picture, pair by pair.
struct PointPairs {
  std::vector<cv::Point2d> input;      // in the other picture
  std::vector<cv::Point2d> reference;  // in the reference frame
};

// The keypoint positions of `matches` (queryIdx: reference, trainIdx: input).
PointPairs matched_points(const std::vector<cv::DMatch>& matches,
                          const std::vector<cv::KeyPoint>& refKeypoints,
                          const std::vector<cv::KeyPoint>& inputKeypoints);

// What refine_corners found.
struct RefinedCorners {
  bool accepted = false;           // `corners` differ from the ones given
  double corners[8] = {};          // the geometry to use, input pixels
  double est_error_px = HUGE_VAL;  // estimated largest error over the frame, reference pixels
  int frame_pairs = 0;             // the aligned frame's pairs in the correction's last fit
  Mapping mapping;                 // the whole mapping; lens distortion only when chosen
};

// Re-fits the homography of the frame found at `corners` over `pairs` (all
// ratio-test matches of the attempt) inside tightening gates, then corrects
// it by the residual homography of `rectified`: the aligned frame's matches
// with the reference, at their positions in the frame warped by `corners`.
// Then fits a homography with lens distortion to both sets and keeps it only
// when held-out pairs and the size of its effect say so (fit_lens). The
// estimate comes from the last fit's residuals over a grid of the frame. A
// result that moves a corner too far, or leaves `rectified` further from the
// reference, is not accepted. `capture` is the input's size. Deterministic.
RefinedCorners refine_corners(const PointPairs& pairs, const PointPairs& rectified,
                              const double* corners, int width, int height, cv::Size capture);

// Points over the whole width x height frame, its corners and edges
// included, where errors are estimated.
std::vector<cv::Point2d> frame_grid(int width, int height);

// The lens model is chosen only when held-out pairs fit it with at most this
// share of the homography's loss: on undistorted captures the two stay
// within a few percent (bench/RESULTS.md).
constexpr double kLensHeldOutGain = 0.9;

// The lens model's fit to `evidence` (capture points in `input`), started
// from the capture-to-reference homography `to_reference`.
struct LensFit {
  bool chosen = false;          // the evidence supports it
  Mapping mapping;              // the fit, valid when `pairs` > 0
  int pairs = 0;                // pairs in its last fit
  double deviation = HUGE_VAL;  // std of the worst grid point's position, reference pixels
  double effect = 0.0;          // largest gap over the frame to `to_reference`, reference pixels
  double held_out = 1.0;        // held-out loss, lens over homography
};
LensFit fit_lens(const PointPairs& evidence, const cv::Matx33d& to_reference, cv::Size capture,
                 int width, int height);

}  // namespace framealign
