// A homography with radial lens distortion, fitted to matched points, and
// the test of whether the evidence needs the lens at all.
//
// The fit runs in normalised coordinates: capture points relative to the
// capture's centre in units of half its diagonal (so the distortion's radius
// is the point's own length), reference points relative to the frame's
// centre in units of half its diagonal. It minimises the reference-side
// residuals of capture-to-reference = H * undistort(capture point), by
// Levenberg-Marquardt on H's eight entries and the two radial coefficients.
#include <algorithm>
#include <cmath>

#include "align/align.h"
#include "align/mapping.h"
#include "align/refinement.h"

namespace framealign {

namespace {

// Gates of the successive fits, reference pixels (as the homography's
// refinement uses), never below three spreads of the pairs within them.
const std::vector<double> kGates = {8.0, 4.0, 2.0, 1.5};
constexpr double kSpreadsPerGate = 3.0;
constexpr std::size_t kMinimumPairs = 40;
// The lens is chosen only when it lowers the held-out loss by
// kLensHeldOutGain's share and moves some point of the frame by at least
// this many reference pixels.
constexpr double kMinimumEffect = 0.3;
constexpr int kParameters = 10;

using Params = cv::Vec<double, kParameters>;  // h00 h01 h02 h10 h11 h12 h20 h21, k1, k2

struct Frame {
  cv::Point2d capture_centre, reference_centre;
  double capture_scale, reference_scale;  // pixels per normalised unit
};

cv::Matx33d matrix_of(const Params& p) {
  return {p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], 1.0};
}

struct Evaluated {
  cv::Point2d residual;        // normalised reference units
  double du[kParameters], dv[kParameters];
};

// The residual of one pair and its derivatives by the parameters.
bool evaluate(const Params& p, const cv::Point2d& d, const cv::Point2d& q, bool lens, Evaluated& e) {
  const double rd = std::hypot(d.x, d.y);
  const double ru = lens ? undistorted_radius(p[8], p[9], rd) : rd;
  if (!std::isfinite(ru)) return false;
  const double ratio = rd > 0.0 ? ru / rd : 1.0;
  const cv::Point2d u = d * ratio;
  const double w = p[6] * u.x + p[7] * u.y + 1.0;
  if (std::abs(w) < 1e-9) return false;
  const cv::Point2d h((p[0] * u.x + p[1] * u.y + p[2]) / w, (p[3] * u.x + p[4] * u.y + p[5]) / w);
  e.residual = h - q;
  const double a[8] = {u.x / w, u.y / w, 1.0 / w, 0, 0, 0, -h.x * u.x / w, -h.x * u.y / w};
  const double b[8] = {0, 0, 0, u.x / w, u.y / w, 1.0 / w, -h.y * u.x / w, -h.y * u.y / w};
  std::copy(a, a + 8, e.du);
  std::copy(b, b + 8, e.dv);
  // d(ru)/dk from ru (1 + k1 ru^2 + k2 ru^4) = rd held fixed.
  const double slope = 1.0 + 3.0 * p[8] * ru * ru + 5.0 * p[9] * std::pow(ru, 4);
  const double dr[2] = {-std::pow(ru, 3) / slope, -std::pow(ru, 5) / slope};
  for (int k = 0; k < 2; ++k) {
    const cv::Point2d du_dk = rd > 0.0 ? d * (dr[k] / rd) : cv::Point2d();
    e.du[8 + k] = lens ? ((p[0] - h.x * p[6]) * du_dk.x + (p[1] - h.x * p[7]) * du_dk.y) / w : 0.0;
    e.dv[8 + k] = lens ? ((p[3] - h.y * p[6]) * du_dk.x + (p[4] - h.y * p[7]) * du_dk.y) / w : 0.0;
  }
  return true;
}

double squared_residual(const Params& p, const cv::Point2d& d, const cv::Point2d& q, bool lens) {
  Evaluated e;
  if (!evaluate(p, d, q, lens, e)) return HUGE_VAL;
  return e.residual.dot(e.residual);
}

struct Pairs {
  std::vector<cv::Point2d> d, q;  // normalised capture and reference points
};

double cost(const Params& p, const Pairs& s, const std::vector<std::size_t>& kept, bool lens) {
  double sum = 0.0;
  for (std::size_t j : kept) sum += squared_residual(p, s.d[j], s.q[j], lens);
  return sum;
}

// Normal equations of `kept` at p; false when a pair cannot be evaluated.
bool normal_equations(const Params& p, const Pairs& s, const std::vector<std::size_t>& kept, bool lens,
                      cv::Matx<double, kParameters, kParameters>& a, Params& g) {
  a = cv::Matx<double, kParameters, kParameters>::zeros();
  g = Params::zeros();
  Evaluated e;
  for (std::size_t j : kept) {
    if (!evaluate(p, s.d[j], s.q[j], lens, e)) return false;
    for (int r = 0; r < kParameters; ++r) {
      g[r] += e.du[r] * e.residual.x + e.dv[r] * e.residual.y;
      for (int c = 0; c < kParameters; ++c) a(r, c) += e.du[r] * e.du[c] + e.dv[r] * e.dv[c];
    }
  }
  if (!lens) a(8, 8) = a(9, 9) = 1.0;  // the coefficients stay 0
  return true;
}

// Levenberg-Marquardt from p over `kept`.
Params least_squares(Params p, const Pairs& s, const std::vector<std::size_t>& kept, bool lens) {
  double lambda = 1e-3, current = cost(p, s, kept, lens);
  for (int iteration = 0; iteration < 30 && std::isfinite(current); ++iteration) {
    cv::Matx<double, kParameters, kParameters> a;
    Params g;
    if (!normal_equations(p, s, kept, lens, a, g)) break;
    bool improved = false;
    while (lambda < 1e12 && !improved) {
      cv::Matx<double, kParameters, kParameters> damped = a;
      for (int r = 0; r < kParameters; ++r) damped(r, r) *= 1.0 + lambda;
      Params step;
      if (!cv::solve(damped, g, step, cv::DECOMP_CHOLESKY)) break;
      Params next = p - step;
      if (!lens) next[8] = next[9] = 0.0;
      const double trial = cost(next, s, kept, lens);
      if (trial < current) {
        improved = true;
        const double gain = (current - trial) / current;
        p = next;
        current = trial;
        lambda = std::max(lambda / 10.0, 1e-9);
        if (gain < 1e-12) return p;
      } else {
        lambda *= 10.0;
      }
    }
    if (!improved) break;
  }
  return p;
}

std::vector<std::size_t> within(const Params& p, const Pairs& s, bool lens, double gate,
                                std::size_t parity = 2) {
  std::vector<std::size_t> kept;
  for (std::size_t j = 0; j < s.d.size(); ++j) {
    if (parity < 2 && j % 2 != parity) continue;
    if (squared_residual(p, s.d[j], s.q[j], lens) < gate * gate) kept.push_back(j);
  }
  return kept;
}

double spread(const Params& p, const Pairs& s, const std::vector<std::size_t>& kept, bool lens) {
  std::vector<double> lengths;
  for (std::size_t j : kept) lengths.push_back(std::sqrt(squared_residual(p, s.d[j], s.q[j], lens)));
  return quantile(lengths, 0.5) / 1.1774;
}

// Gated fits as the homography's refinement runs them (gates normalised);
// the last gate used in `gate`, the last fit's pairs in `kept`.
Params gated(Params p, const Pairs& s, bool lens, double unit, std::vector<std::size_t>& kept, double& gate) {
  kept.clear();
  for (double pixels : kGates) {
    double g = pixels / unit;
    std::vector<std::size_t> candidates = within(p, s, lens, g);
    if (candidates.size() < kMinimumPairs) break;
    const double wide = kSpreadsPerGate * spread(p, s, candidates, lens);
    if (wide > g) candidates = within(p, s, lens, g = wide);
    p = least_squares(p, s, candidates, lens);
    kept = std::move(candidates);
    gate = g;
  }
  return p;
}

// Two-fold held-out loss (residuals truncated at `gate`) of the model fitted
// from `full`.
double held_out_loss(const Params& full, const Pairs& s, bool lens, double gate) {
  double loss = 0.0;
  for (std::size_t fold = 0; fold < 2; ++fold) {
    const Params p = least_squares(full, s, within(full, s, lens, gate, fold), lens);
    for (std::size_t j = 1 - fold; j < s.d.size(); j += 2) {
      loss += std::min(squared_residual(p, s.d[j], s.q[j], lens), gate * gate);
    }
  }
  return loss;
}

}  // namespace

std::vector<cv::Point2d> frame_grid(int width, int height) {
  constexpr int kSteps = 8;
  std::vector<cv::Point2d> grid;
  for (int i = 0; i <= kSteps; ++i) {
    for (int j = 0; j <= kSteps; ++j) grid.emplace_back(width * j / double(kSteps), height * i / double(kSteps));
  }
  return grid;
}

namespace {

cv::Matx33d shift_scale(const cv::Point2d& centre, double scale) {
  return {1.0 / scale, 0.0, -centre.x / scale, 0.0, 1.0 / scale, -centre.y / scale, 0.0, 0.0, 1.0};
}

Params params_of(const cv::Matx33d& h) {
  const cv::Matx33d n = h * (1.0 / h(2, 2));
  return {n(0, 0), n(0, 1), n(0, 2), n(1, 0), n(1, 1), n(1, 2), n(2, 0), n(2, 1), 0.0, 0.0};
}

Mapping mapping_of(const Params& p, const Frame& f) {
  // Undistorted capture to reference, in pixels, then its inverse.
  const cv::Matx33d to_reference = shift_scale(f.reference_centre, f.reference_scale).inv() *
                                   matrix_of(p) * shift_scale(f.capture_centre, f.capture_scale);
  const cv::Matx33d to_capture = to_reference.inv();
  Mapping m;
  m.homography = to_capture * (1.0 / to_capture(2, 2));
  m.centre = f.capture_centre;
  m.scale = f.capture_scale;
  m.k1 = p[8];
  m.k2 = p[9];
  return m;
}

// Standard deviation, along its worst direction, of the worst grid point's
// reference position, from the fit's covariance; reference pixels.
double grid_deviation(const Params& p, const Pairs& s, const std::vector<std::size_t>& kept,
                      const Mapping& m, const Frame& f, int width, int height) {
  cv::Matx<double, kParameters, kParameters> a, covariance;
  Params g;
  if (!normal_equations(p, s, kept, true, a, g)) return HUGE_VAL;
  if (cv::invert(a, covariance, cv::DECOMP_SVD) == 0.0) return HUGE_VAL;
  const double dof = std::max(2.0 * static_cast<double>(kept.size()) - kParameters, 1.0);
  covariance *= cost(p, s, kept, true) / dof / 2.0;
  double worst = 0.0;
  Evaluated e;
  for (const cv::Point2d& q : frame_grid(width, height)) {
    const cv::Point2d d = (m.to_capture(q) - f.capture_centre) / f.capture_scale;
    if (!evaluate(p, d, (q - f.reference_centre) / f.reference_scale, true, e)) return HUGE_VAL;
    const Params u(e.du), v(e.dv);
    const double uu = u.dot(covariance * u), vv = v.dot(covariance * v), uv = u.dot(covariance * v);
    const double largest = 0.5 * (uu + vv) + std::sqrt(0.25 * (uu - vv) * (uu - vv) + uv * uv);
    worst = std::max(worst, std::sqrt(std::max(largest, 0.0)));
  }
  return worst * f.reference_scale;
}

cv::Point2d project(const cv::Matx33d& h, const cv::Point2d& p) {
  const cv::Vec3d v = h * cv::Vec3d(p.x, p.y, 1.0);
  return {v[0] / v[2], v[1] / v[2]};
}

}  // namespace

LensFit fit_lens(const PointPairs& evidence, const cv::Matx33d& to_reference, cv::Size capture,
                 int width, int height) {
  LensFit out;
  const Frame f = {{capture.width / 2.0, capture.height / 2.0},
                   {width / 2.0, height / 2.0},
                   std::max(0.5 * std::hypot(capture.width, capture.height), 1.0),
                   std::max(0.5 * std::hypot(width, height), 1.0)};
  Pairs s;
  for (std::size_t j = 0; j < evidence.input.size(); ++j) {
    s.d.push_back((evidence.input[j] - f.capture_centre) / f.capture_scale);
    s.q.push_back((evidence.reference[j] - f.reference_centre) / f.reference_scale);
  }
  const Params start = params_of(shift_scale(f.reference_centre, f.reference_scale) * to_reference *
                                 shift_scale(f.capture_centre, f.capture_scale).inv());
  std::vector<std::size_t> kept_plain, kept_lens;
  double gate_plain = 0.0, gate_lens = 0.0;
  const Params plain = gated(start, s, false, f.reference_scale, kept_plain, gate_plain);
  const Params lens = gated(start, s, true, f.reference_scale, kept_lens, gate_lens);
  if (kept_lens.empty()) return out;
  out.pairs = static_cast<int>(kept_lens.size());
  out.mapping = mapping_of(lens, f);
  out.deviation = grid_deviation(lens, s, kept_lens, out.mapping, f, width, height);
  for (const cv::Point2d& q : frame_grid(width, height)) {
    const cv::Point2d gap = project(to_reference, out.mapping.to_capture(q)) - q;
    out.effect = std::max(out.effect, std::hypot(gap.x, gap.y));
  }
  if (!std::isfinite(out.effect)) return out;
  if (!kept_plain.empty()) {
    const double gate = std::max(gate_plain, gate_lens);
    out.held_out = held_out_loss(lens, s, true, gate) / held_out_loss(plain, s, false, gate);
  } else {
    out.held_out = 0.0;  // the homography alone gathers too few pairs
  }
  // The lens must keep growing the radius out past the capture's corners
  // (radius 1 in these units), or points would fold back onto others.
  const bool unfolded = largest_monotonic_radius(lens[8], lens[9]) > 1.25;
  out.chosen = unfolded && out.held_out <= kLensHeldOutGain && out.effect >= kMinimumEffect;
  return out;
}

}  // namespace framealign
