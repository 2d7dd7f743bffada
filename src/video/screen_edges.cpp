// Edges of a filmed screen found across each side of the screen where it is
// expected to be: along a short profile across the side, from the bezel
// inwards, the steepest point of the step from the bezel's grey to the
// content's; a straight line through those points; the corners where the
// lines meet.
#include "video/screen_edges.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "core/plane_io.h"

namespace framealign {

namespace {

constexpr int kSamples = 120;        // profiles across each side
constexpr double kReach = 8.0;       // capture pixels either side of the expected edge
constexpr double kStep = 0.25;       // between a profile's samples, capture pixels
constexpr double kBezelSpan = 2.0;   // the profile's outer end, taken as bezel
constexpr double kFlatBezel = 10.0;  // grey levels the bezel may wander
constexpr double kLeastStep = 20.0;  // grey levels between bezel and content
constexpr double kLeastSeen = 0.12;  // share of a side's profiles that must find the edge
constexpr double kLineFit = 0.75;    // pixels off the line that a point may lie

// The capture's grey at `p`, bilinear; none outside it.
std::optional<double> grey_at(const cv::Mat& capture, cv::Point2d p) {
  if (!(p.x >= 0.0 && p.y >= 0.0 && p.x < capture.cols - 1.0 && p.y < capture.rows - 1.0))
    return std::nullopt;
  const int x = static_cast<int>(std::floor(p.x)), y = static_cast<int>(std::floor(p.y));
  const double fx = p.x - x, fy = p.y - y;
  const unsigned char* a = capture.ptr<unsigned char>(y) + x;
  const unsigned char* b = capture.ptr<unsigned char>(y + 1) + x;
  return (1 - fy) * ((1 - fx) * a[0] + fx * a[1]) + fy * ((1 - fx) * b[0] + fx * b[1]);
}

// Where along `profile` (sampled kStep apart from -kReach, outside to
// inside) the bezel ends: the steepest point of the first step away from
// the bezel's grey. None when the bezel is not flat there or the step is
// too low.
std::optional<double> step_in(const std::vector<double>& profile) {
  const int bezel_end = static_cast<int>(kBezelSpan / kStep), pixel = static_cast<int>(1.0 / kStep);
  const int n = static_cast<int>(profile.size());
  double bezel = 0.0;
  for (int i = 0; i <= bezel_end; ++i) bezel += profile[i];
  bezel /= bezel_end + 1;
  int departs = 0;
  while (departs < n && std::abs(profile[departs] - bezel) <= kFlatBezel) ++departs;
  if (departs <= bezel_end || departs + 3 * pixel >= n) return std::nullopt;
  // The steepest rise (a pixel's difference) from a pixel before the
  // departure to two after it.
  auto slope = [&](int i) {
    return std::abs(profile[i + pixel / 2] - profile[i - pixel / 2]);
  };
  int steepest = std::max(departs - pixel, pixel / 2 + 1);
  for (int i = steepest; i <= departs + 2 * pixel; ++i) {
    if (slope(i) > slope(steepest)) steepest = i;
  }
  if (std::abs(profile[std::min(n - 1, steepest + 3 * pixel / 2)] - bezel) < kLeastStep)
    return std::nullopt;
  const double a = slope(steepest - 1), b = slope(steepest), c = slope(steepest + 1);
  const double offset = a - 2 * b + c < 0.0 ? 0.5 * (a - c) / (a - 2 * b + c) : 0.0;
  return -kReach + kStep * (steepest + offset);
}

struct Line {
  cv::Point3d homogeneous;          // a x + b y + c = 0
  std::vector<cv::Point2d> points;  // the edge's points that lie on it
};

// A line through `points` by total least squares, refitted without the
// points that lie more than kLineFit off it until none does.
std::optional<Line> fit_line(std::vector<cv::Point2d> points, std::size_t least) {
  while (points.size() >= least) {
    cv::Vec4d fit;
    const std::vector<cv::Point2f> as_float(points.begin(), points.end());
    cv::fitLine(as_float, fit, cv::DIST_L2, 0, 0.01, 0.01);
    const cv::Point3d line(fit[1], -fit[0], fit[0] * fit[3] - fit[1] * fit[2]);
    auto off = [&line](const cv::Point2d& p) {
      return std::abs(line.x * p.x + line.y * p.y + line.z);
    };
    // The farthest point goes first: one stray step must not drag the
    // line far enough to shed good points with it.
    const auto worst =
        std::max_element(points.begin(), points.end(),
                         [&off](const auto& a, const auto& b) { return off(a) < off(b); });
    if (off(*worst) <= kLineFit) return Line{line, std::move(points)};
    points.erase(worst);
  }
  return std::nullopt;
}

// The edge along the frame's side from `from` to `to` (frame coordinates
// on the outline), with `inward` pointing into the frame.
std::optional<Line> edge_of(const cv::Mat& capture, const cv::Matx33d& to_capture, cv::Point2d from,
                            cv::Point2d to, cv::Point2d inward) {
  auto seen = [&to_capture](cv::Point2d p) {
    const cv::Vec3d q = to_capture * cv::Vec3d(p.x, p.y, 1.0);
    return cv::Point2d(q[0] / q[2], q[1] / q[2]);
  };
  std::vector<cv::Point2d> found;
  std::vector<double> profile(static_cast<std::size_t>(2 * kReach / kStep) + 1);
  for (int k = 0; k < kSamples; ++k) {
    const cv::Point2d on = from + (to - from) * (0.04 + 0.92 * k / (kSamples - 1.0));
    const cv::Point2d p = seen(on), along = seen(on + inward) - p;
    const cv::Point2d d = along / std::hypot(along.x, along.y);
    bool inside = true;
    for (std::size_t i = 0; i < profile.size() && inside; ++i) {
      const std::optional<double> g = grey_at(capture, p + d * (-kReach + kStep * i));
      inside = g.has_value();
      if (g) profile[i] = *g;
    }
    const std::optional<double> s = inside ? step_in(profile) : std::nullopt;
    if (s) found.push_back(p + d * *s);
  }
  return fit_line(found, static_cast<std::size_t>(kLeastSeen * kSamples));
}

cv::Point2d meet(const Line& a, const Line& b) {
  const cv::Point3d p = a.homogeneous.cross(b.homogeneous);
  return {p.x / p.z, p.y / p.z};
}

}  // namespace

std::optional<ScreenEdges> screen_edges(const cv::Mat& capture, const std::array<double, 8>& near,
                                        int width, int height) {
  double frame[8];
  frame_corners(width, height, frame);
  const cv::Matx33d to_capture(
      cv::getPerspectiveTransform(corner_points(frame), corner_points(near.data()), cv::DECOMP_LU));
  // The outline runs along the outer sides of the edge pixels.
  const double x0 = -0.5, y0 = -0.5, x1 = width - 0.5, y1 = height - 0.5;
  const std::optional<Line> sides[4] = {edge_of(capture, to_capture, {x0, y0}, {x1, y0}, {0, 1}),
                                        edge_of(capture, to_capture, {x0, y1}, {x1, y1}, {0, -1}),
                                        edge_of(capture, to_capture, {x0, y0}, {x0, y1}, {1, 0}),
                                        edge_of(capture, to_capture, {x1, y0}, {x1, y1}, {-1, 0})};
  for (const auto& side : sides) {
    if (!side) return std::nullopt;
  }
  const Line &top = *sides[0], &bottom = *sides[1], &left = *sides[2], &right = *sides[3];
  const std::vector<cv::Point2f> outline = {{float(x0), float(y0)},
                                            {float(x1), float(y0)},
                                            {float(x0), float(y1)},
                                            {float(x1), float(y1)}};
  const std::vector<cv::Point2f> met = {meet(top, left), meet(top, right), meet(bottom, left),
                                        meet(bottom, right)};
  const cv::Matx33d frame_to_capture(cv::getPerspectiveTransform(outline, met, cv::DECOMP_LU));
  auto apply = [](const cv::Matx33d& h, cv::Point2d p) {
    const cv::Vec3d q = h * cv::Vec3d(p.x, p.y, 1.0);
    return cv::Point2d(q[0] / q[2], q[1] / q[2]);
  };
  ScreenEdges edges;
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d c = apply(frame_to_capture, {frame[2 * i], frame[2 * i + 1]});
    edges.corners[2 * i] = c.x;
    edges.corners[2 * i + 1] = c.y;
  }
  // Lines that meet nowhere near, or a view no camera gives.
  for (double v : edges.corners) {
    if (!std::isfinite(v)) return std::nullopt;
  }
  if (!check_ref_pts_sanity(edges.corners.data(), capture.cols, capture.rows)) return std::nullopt;
  // Each edge point, in the frame the edges' own corners warp to, and the
  // point of the outline it shows: the same, moved onto the outline.
  const cv::Matx33d to_frame = frame_to_capture.inv();
  const double across[4] = {y0, y1, x0, x1};
  for (int side = 0; side < 4; ++side) {
    for (const cv::Point2d& q : sides[side]->points) {
      const cv::Point2d at = apply(to_frame, q);
      edges.anchors.input.push_back(at);
      edges.anchors.reference.push_back(side < 2 ? cv::Point2d(at.x, across[side])
                                                 : cv::Point2d(across[side], at.y));
    }
  }
  return edges;
}

double corners_apart(const std::array<double, 8>& a, const std::array<double, 8>& b) {
  double most = 0.0;
  for (int i = 0; i < 4; ++i)
    most = std::max(most, std::hypot(a[2 * i] - b[2 * i], a[2 * i + 1] - b[2 * i + 1]));
  return most;
}

}  // namespace framealign
