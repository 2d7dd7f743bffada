// The mapping from reference to capture (a homography, then radial lens
// distortion), its inverse, the warp of a capture through it, and its file.
#include "align/mapping.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/warps.h"
#include "framealign/framealign.h"

namespace framealign {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

cv::Point2d project(const cv::Matx33d& h, const cv::Point2d& p) {
  const double w = h(2, 0) * p.x + h(2, 1) * p.y + h(2, 2);
  if (w == 0.0) return {kNaN, kNaN};
  return {(h(0, 0) * p.x + h(0, 1) * p.y + h(0, 2)) / w, (h(1, 0) * p.x + h(1, 1) * p.y + h(1, 2)) / w};
}

cv::Point2d undistort(const Mapping& m, const cv::Point2d& capture_point) {
  const cv::Point2d offset = capture_point - m.centre;
  const double rd = std::hypot(offset.x, offset.y) / m.scale;
  const double ru = undistorted_radius(m.k1, m.k2, rd);
  if (rd == 0.0 || !std::isfinite(ru)) return std::isfinite(ru) ? m.centre : cv::Point2d(kNaN, kNaN);
  return m.centre + offset * (ru / rd);
}

}  // namespace

double largest_monotonic_radius(double k1, double k2) {
  // The radius where 1 + 3 k1 r^2 + 5 k2 r^4, the growth of the distorted
  // radius, first reaches 0 (a quadratic in r^2); infinite when it never does.
  double first = HUGE_VAL;
  if (k2 == 0.0) {
    if (k1 < 0.0) first = -1.0 / (3.0 * k1);
  } else {
    const double disc = 9.0 * k1 * k1 - 20.0 * k2;
    if (disc >= 0.0) {
      for (double t : {(-3.0 * k1 - std::sqrt(disc)) / (10.0 * k2), (-3.0 * k1 + std::sqrt(disc)) / (10.0 * k2)}) {
        if (t > 0.0) first = std::min(first, t);
      }
    }
  }
  return std::sqrt(first);
}

double undistorted_radius(double k1, double k2, double rd) {
  if (k1 == 0.0 && k2 == 0.0) return rd;
  const double top = largest_monotonic_radius(k1, k2);
  const auto grow = [&](double r) { return r * (1.0 + k1 * r * r + k2 * r * r * r * r); };
  double lo = 0.0, hi = std::isfinite(top) ? top : std::max(2.0 * rd, 1.0);
  while (!std::isfinite(top) && grow(hi) < rd) hi *= 2.0;
  if (grow(hi) < rd) return kNaN;  // beyond what the lens can image
  // Newton's method, kept inside the bracket by bisection.
  double r = std::min(rd, hi);
  for (int i = 0; i < 60; ++i) {
    const double f = grow(r) - rd;
    if (std::abs(f) <= 1e-15 * std::max(1.0, rd)) break;
    (f < 0.0 ? lo : hi) = r;
    const double slope = 1.0 + 3.0 * k1 * r * r + 5.0 * k2 * r * r * r * r;
    double next = slope > 0.0 ? r - f / slope : 0.5 * (lo + hi);
    if (!(next > lo && next < hi)) next = 0.5 * (lo + hi);
    if (next == r) break;
    r = next;
  }
  return r;
}

cv::Point2d Mapping::to_capture(const cv::Point2d& reference_point) const {
  const cv::Point2d u = project(homography, reference_point);
  const cv::Point2d offset = u - centre;
  const double rho2 = (offset.x * offset.x + offset.y * offset.y) / (scale * scale);
  return centre + offset * (1.0 + k1 * rho2 + k2 * rho2 * rho2);
}

cv::Point2d Mapping::to_reference(const cv::Point2d& capture_point) const {
  return project(homography.inv(), undistort(*this, capture_point));
}

std::vector<cv::Point2d> Mapping::to_capture(const std::vector<cv::Point2d>& points) const {
  std::vector<cv::Point2d> out;
  out.reserve(points.size());
  for (const cv::Point2d& p : points) out.push_back(to_capture(p));
  return out;
}

std::vector<cv::Point2d> Mapping::to_reference(const std::vector<cv::Point2d>& points) const {
  const cv::Matx33d inverse = homography.inv();
  std::vector<cv::Point2d> out;
  out.reserve(points.size());
  for (const cv::Point2d& p : points) out.push_back(project(inverse, undistort(*this, p)));
  return out;
}

Mapping homography_mapping(const cv::Matx33d& to_capture, cv::Size capture) {
  Mapping m;
  m.homography = to_capture * (1.0 / to_capture(2, 2));
  m.centre = {capture.width / 2.0, capture.height / 2.0};
  m.scale = std::max(0.5 * std::hypot(capture.width, capture.height), 1.0);
  return m;
}

Mapping corners_mapping(const double* corners, int width, int height, cv::Size capture) {
  double frame[8];
  frame_corners(width, height, frame);
  const cv::Mat h = cv::getPerspectiveTransform(corner_points(frame), corner_points(corners));
  return homography_mapping(cv::Matx33d(h.ptr<double>()), capture);
}

void warp_through_mapping(const cv::Mat& image, const Mapping& mapping, int width, int height,
                          unsigned char* aligned) {
  // Pixel (x, y) of the frame samples the capture where the mapping puts the
  // reference point (x, y), as warp_to_frame's perspective warp does.
  cv::Mat map_x(height, width, CV_32FC1), map_y(height, width, CV_32FC1);
  for (int y = 0; y < height; ++y) {
    float* mx = map_x.ptr<float>(y);
    float* my = map_y.ptr<float>(y);
    for (int x = 0; x < width; ++x) {
      const cv::Point2d p = mapping.to_capture({static_cast<double>(x), static_cast<double>(y)});
      mx[x] = static_cast<float>(p.x);
      my[x] = static_cast<float>(p.y);
    }
  }
  cv::Mat warped;
  cv::remap(image, warped, map_x, map_y, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar(0));
  copy_plane(warped, aligned, width, height);
}

std::string mapping_text(const Mapping& m) {
  const cv::Matx33d& h = m.homography;
  char text[1024];
  std::snprintf(text, sizeof(text),
                "# framealign mapping: reference point (x, y) to capture point\n"
                "# u = H (x, y, 1) (divided by its third value)\n"
                "# rho = |u - centre| / scale\n"
                "# capture = centre + (u - centre) * (1 + k1 rho^2 + k2 rho^4)\n"
                "model %s\n"
                "homography %.17g %.17g %.17g %.17g %.17g %.17g %.17g %.17g %.17g\n"
                "centre %.17g %.17g\nscale %.17g\nk1 %.17g\nk2 %.17g\n",
                m.has_lens() ? "lens" : "homography", h(0, 0), h(0, 1), h(0, 2), h(1, 0), h(1, 1),
                h(1, 2), h(2, 0), h(2, 1), h(2, 2), m.centre.x, m.centre.y, m.scale, m.k1, m.k2);
  return text;
}

}  // namespace framealign
