// Sub-pixel refinement of a found frame and an estimate of its remaining
// error, from the evidence the search has: the attempt's ratio-test matches
// and those of its aligned frame with the reference.
#include "align/refinement.h"

#include <algorithm>
#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/mapping.h"

namespace framealign {

namespace {

// Gates, in reference pixels, of the successive re-fits over the input's
// matches: wide enough at first to take in what the search's 10 px RHO fit
// got roughly right, then tight enough that no mismatch pulls the last fit.
// The aligned frame's matches start from the first refit, already within a
// pixel or so. A gate never drops below three times the pairs' own spread,
// so that a blurred or small screen, whose matches scatter more, keeps its
// good pairs.
const std::vector<double> kInputGates = {8.0, 4.0, 2.0, 1.5};
const std::vector<double> kRectifiedGates = {3.0, 2.0, 1.5};
constexpr double kSpreadsPerGate = 3.0;
// Fewer pairs than this do not pin down 8 parameters over a whole frame.
constexpr std::size_t kMinimumPairs = 24;
// A refinement may move a corner at most this far (reference pixels): the
// search's geometry is already within a few pixels when it is right at all.
constexpr double kLargestMove = 4.0;
// With lens distortion the search's homography can be off by as much as the
// lens bends the frame: the move is bounded by what such lenses do, and the
// aligned frame's matches within this gate must agree.
constexpr double kLargestLensMove = 40.0;
constexpr double kLensGate = 40.0;
// The estimate is this many standard deviations of the worst corner's
// position. For independent errors 3.5 would bound the largest of four
// two-dimensional errors nearly always; neighbouring keypoints share a
// blurred or moire-striped patch, and on simulated captures of every kind
// 3.5 fell short on 30% of attempts, 5 on 2% (bench/RESULTS.md).
constexpr double kDeviations = 5.0;

cv::Point2d apply(const cv::Matx33d& h, const cv::Point2d& p) {
  const double w = h(2, 0) * p.x + h(2, 1) * p.y + h(2, 2);
  return {(h(0, 0) * p.x + h(0, 1) * p.y + h(0, 2)) / w, (h(1, 0) * p.x + h(1, 1) * p.y + h(1, 2)) / w};
}

// Input-to-reference homography that takes `corners` onto the frame's corners.
cv::Matx33d frame_homography(const double* corners, int width, int height) {
  double frame[8];
  frame_corners(width, height, frame);
  cv::Matx33d h = cv::getPerspectiveTransform(corner_points(corners), corner_points(frame), cv::DECOMP_LU);
  return h * (1.0 / h(2, 2));
}

// The frame's corners seen through an input-to-reference homography.
void corners_of(const cv::Matx33d& to_reference, int width, int height, double* corners) {
  double frame[8];
  frame_corners(width, height, frame);
  const cv::Matx33d to_input = to_reference.inv();
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d p = apply(to_input, {frame[2 * i], frame[2 * i + 1]});
    corners[2 * i] = p.x;
    corners[2 * i + 1] = p.y;
  }
}

double residual(const cv::Matx33d& h, const PointPairs& pairs, std::size_t j) {
  const cv::Point2d d = apply(h, pairs.input[j]) - pairs.reference[j];
  return std::hypot(d.x, d.y);
}

std::vector<std::size_t> within(const cv::Matx33d& h, const PointPairs& pairs, double gate) {
  std::vector<std::size_t> kept;
  for (std::size_t j = 0; j < pairs.input.size(); ++j) {
    if (residual(h, pairs, j) < gate) kept.push_back(j);
  }
  return kept;
}

// Per-axis spread of the residuals of `kept`, from their median length (for
// an isotropic Gaussian the median length is 1.177 sigma).
double robust_spread(const cv::Matx33d& h, const PointPairs& pairs, const std::vector<std::size_t>& kept) {
  std::vector<double> lengths;
  for (std::size_t j : kept) lengths.push_back(residual(h, pairs, j));
  return quantile(lengths, 0.5) / 1.1774;
}

// Least squares over `kept`, then Levenberg-Marquardt on the reprojection
// error (OpenCV's method 0); `ok` false when the pairs are degenerate.
cv::Matx33d fit(const PointPairs& pairs, const std::vector<std::size_t>& kept, bool* ok) {
  std::vector<cv::Point2f> from, to;
  for (std::size_t j : kept) {
    from.emplace_back(pairs.input[j]);
    to.emplace_back(pairs.reference[j]);
  }
  const cv::Mat h = cv::findHomography(from, to, 0);
  *ok = !h.empty() && std::abs(h.at<double>(2, 2)) > 1e-12;
  if (!*ok) return cv::Matx33d::eye();
  cv::Matx33d m = h;
  return m * (1.0 / m(2, 2));
}

// Derivatives of the reference position of input point p under h (h22 = 1)
// with respect to h's first eight entries, row-major.
void position_jacobian(const cv::Matx33d& h, const cv::Point2d& p, double du[8], double dv[8]) {
  const double w = h(2, 0) * p.x + h(2, 1) * p.y + 1.0;
  const cv::Point2d q = apply(h, p);
  const double a[8] = {p.x / w, p.y / w, 1.0 / w, 0, 0, 0, -q.x * p.x / w, -q.x * p.y / w};
  const double b[8] = {0, 0, 0, p.x / w, p.y / w, 1.0 / w, -q.y * p.x / w, -q.y * p.y / w};
  std::copy(a, a + 8, du);
  std::copy(b, b + 8, dv);
}

// Standard deviation, along its worst direction, of the worst grid point's
// position under the fitted h, with per-axis residual spread `sigma`.
double grid_deviation(const cv::Matx33d& h, const PointPairs& pairs, const std::vector<std::size_t>& kept,
                      double sigma, int width, int height) {
  cv::Matx<double, 8, 8> normal = cv::Matx<double, 8, 8>::zeros();
  double du[8], dv[8];
  for (std::size_t j : kept) {
    position_jacobian(h, pairs.input[j], du, dv);
    for (int r = 0; r < 8; ++r) {
      for (int c = 0; c < 8; ++c) normal(r, c) += du[r] * du[c] + dv[r] * dv[c];
    }
  }
  cv::Matx<double, 8, 8> covariance;
  if (cv::invert(normal, covariance, cv::DECOMP_SVD) == 0.0) return HUGE_VAL;
  covariance *= sigma * sigma;
  const cv::Matx33d to_input = h.inv();
  double worst = 0.0;
  for (const cv::Point2d& q : frame_grid(width, height)) {
    position_jacobian(h, apply(to_input, q), du, dv);
    const cv::Vec<double, 8> u(du), v(dv);
    const double uu = u.dot(covariance * u), vv = v.dot(covariance * v), uv = u.dot(covariance * v);
    const double largest = 0.5 * (uu + vv) + std::sqrt(0.25 * (uu - vv) * (uu - vv) + uv * uv);
    worst = std::max(worst, std::sqrt(std::max(largest, 0.0)));
  }
  return worst;
}

double largest_move(const double* a, const double* b, const cv::Matx33d& to_reference) {
  double worst = 0.0;
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d d = apply(to_reference, {a[2 * i], a[2 * i + 1]}) - apply(to_reference, {b[2 * i], b[2 * i + 1]});
    worst = std::max(worst, std::hypot(d.x, d.y));
  }
  return worst;
}

// Gated fits over `pairs`, starting from `h`, each gate keeping the pairs
// within it (widened to three times their spread); the pairs of the last fit
// in `kept`, none when even the first gate holds too few.
cv::Matx33d gated_fit(const PointPairs& pairs, cv::Matx33d h, const std::vector<double>& gates,
                      std::vector<std::size_t>& kept) {
  kept.clear();
  for (double gate : gates) {
    std::vector<std::size_t> candidates = within(h, pairs, gate);
    if (candidates.size() < kMinimumPairs) break;
    const double spread = robust_spread(h, pairs, candidates);
    if (kSpreadsPerGate * spread > gate) candidates = within(h, pairs, kSpreadsPerGate * spread);
    bool ok = false;
    const cv::Matx33d next = fit(pairs, candidates, &ok);
    if (!ok) break;
    h = next;
    kept = std::move(candidates);
  }
  return h;
}

// Per-axis spread of the residuals of `kept` under `h`, corrected for the
// eight parameters the fit used up.
double fit_spread(const cv::Matx33d& h, const PointPairs& pairs, const std::vector<std::size_t>& kept) {
  double squares = 0.0;
  for (std::size_t j : kept) squares += std::pow(residual(h, pairs, j), 2);
  const double dof = 2.0 * static_cast<double>(kept.size()) - 8.0;
  return std::sqrt(squares / std::max(dof, 1.0) / 2.0);
}

double rms(const cv::Matx33d& h, const PointPairs& pairs, const std::vector<std::size_t>& kept) {
  double squares = 0.0;
  for (std::size_t j : kept) squares += std::pow(residual(h, pairs, j), 2);
  return std::sqrt(squares / static_cast<double>(std::max<std::size_t>(kept.size(), 1)));
}

// The aligned frame's matches as capture points, through the warp that made
// the frame. They were found at the reference's own scale, so they are free
// of the bias the capture's differently scaled keypoints can carry, and they
// cover the frame.
PointPairs capture_evidence(const PointPairs& rectified, const cv::Matx33d& found) {
  PointPairs evidence;
  evidence.reference = rectified.reference;
  const cv::Matx33d to_input = found.inv();
  for (const cv::Point2d& p : rectified.input) evidence.input.push_back(apply(to_input, p));
  return evidence;
}

// Replaces the homography in `out` by a fit with lens distortion when the
// evidence chooses it and the result stays consistent with the aligned
// frame. When held-out pairs favour the lens but it is not taken, the
// estimate widens by how far that fit's frame lies from the kept one, which
// a homography cannot see; a lens fit the pairs do not favour is mostly
// noise, and says nothing about the kept geometry.
void consider_lens(const PointPairs& rectified, const cv::Matx33d& found, int width,
                   int height, cv::Size capture, RefinedCorners& out) {
  const cv::Matx33d kept = out.mapping.homography.inv();
  const LensFit lens = fit_lens(capture_evidence(rectified, found), kept, capture, width, height);
  if (lens.pairs == 0) return;
  double frame[8], corners[8];
  frame_corners(width, height, frame);
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d p = lens.mapping.to_capture({frame[2 * i], frame[2 * i + 1]});
    corners[2 * i] = p.x;
    corners[2 * i + 1] = p.y;
  }
  const bool finite = std::all_of(corners, corners + 8, [](double v) { return std::isfinite(v); });
  const std::vector<std::size_t> near = within(cv::Matx33d::eye(), rectified, kLensGate);
  double before = 0.0, after = 0.0;
  const cv::Matx33d to_input = found.inv();
  for (std::size_t j : near) {
    const cv::Point2d p = lens.mapping.to_reference(apply(to_input, rectified.input[j]));
    after += (p - rectified.reference[j]).dot(p - rectified.reference[j]);
    before += std::pow(residual(cv::Matx33d::eye(), rectified, j), 2);
  }
  if (lens.chosen && finite && largest_move(corners, out.corners, kept) <= kLargestLensMove &&
      after <= before) {
    std::copy(corners, corners + 8, out.corners);
    out.accepted = true;
    out.mapping = lens.mapping;
    out.est_error_px = kDeviations * lens.deviation;
  } else if (lens.held_out <= kLensHeldOutGain) {
    out.est_error_px = std::max(out.est_error_px, lens.effect);
  }
}

}  // namespace

RefinedCorners refine_corners(const PointPairs& pairs, const PointPairs& rectified, const double* corners, int width,
                              int height, cv::Size capture) {
  RefinedCorners out;
  std::copy(corners, corners + 8, out.corners);
  const cv::Matx33d found = frame_homography(corners, width, height);

  // First the input's own matches, all of them, not only the search's sample.
  std::vector<std::size_t> kept;
  cv::Matx33d h = gated_fit(pairs, found, kInputGates, kept);
  double deviation = HUGE_VAL;
  if (!kept.empty()) {
    deviation = grid_deviation(h, pairs, kept, fit_spread(h, pairs, kept), width, height);
  }

  // Then the aligned frame's matches, moved to where the frame warped by h
  // would put them. They were found at the reference's own scale, as its
  // keypoints were, so they are free of the bias the input's differently
  // scaled keypoints can carry (seen on small screens); their residual
  // homography corrects h.
  const cv::Matx33d to_candidate = h * found.inv();
  PointPairs moved;
  moved.reference = rectified.reference;
  for (const cv::Point2d& p : rectified.input) moved.input.push_back(apply(to_candidate, p));
  std::vector<std::size_t> rectified_kept;
  const cv::Matx33d correction = gated_fit(moved, cv::Matx33d::eye(), kRectifiedGates, rectified_kept);
  if (!rectified_kept.empty()) {
    const double spread = fit_spread(correction, moved, rectified_kept);
    const double before = rms(cv::Matx33d::eye(), moved, rectified_kept);
    out.frame_pairs = static_cast<int>(rectified_kept.size());
    if (rms(correction, moved, rectified_kept) <= before) {
      h = correction * h;
      deviation = grid_deviation(correction, moved, rectified_kept, spread, width, height);
    }
  }
  out.mapping = homography_mapping(found.inv(), capture);
  if (kept.empty() && rectified_kept.empty()) return out;

  double refined[8];
  corners_of(h, width, height, refined);
  const double moved_by = largest_move(refined, corners, found);
  const bool finite = std::all_of(refined, refined + 8, [](double v) { return std::isfinite(v); });
  // The aligned frame's matches near where the search put them must not end
  // up further from their reference points (by more than rounding).
  const std::vector<std::size_t> near = within(cv::Matx33d::eye(), rectified, kRectifiedGates[0]);
  const bool agrees =
      rms(h * found.inv(), rectified, near) <= rms(cv::Matx33d::eye(), rectified, near) + 1e-3;
  out.est_error_px = kDeviations * deviation;
  if (finite && moved_by <= kLargestMove && agrees) {
    std::copy(refined, refined + 8, out.corners);
    out.accepted = true;
    out.mapping = homography_mapping(h.inv(), capture);
  } else {
    // The kept geometry is at least as far from the evidence as the refit.
    out.est_error_px = std::max(out.est_error_px, moved_by);
  }
  consider_lens(rectified, found, width, height, capture, out);
  return out;
}

}  // namespace framealign
