#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>

#include <opencv2/imgproc.hpp>

#include "align/align.h"

namespace framealign {

namespace {

// Length of the side a-b: float differences widened before squaring.
double side_length(const cv::Point2f& a, const cv::Point2f& b) {
  const double dx = b.x - a.x;
  const double dy = b.y - a.y;
  return std::sqrt(dx * dx + dy * dy);
}

bool angle_out_of_range(double angle) { return angle < 45.0 || angle > 135.0; }

}  // namespace

float calculate_quantile(const std::vector<float>& data, float q) {
  if (data.empty()) throw std::invalid_argument("The data vector is empty.");
  std::vector<float> sorted = data;
  std::sort(sorted.begin(), sorted.end());
  const size_t n = sorted.size();
  const float pos = static_cast<float>(n - 1) * q;
  const int idx = static_cast<int>(pos);
  if (static_cast<size_t>(idx) + 1 < n) {
    const float f = pos - static_cast<float>(idx);
    return std::fma(1.0f - f, sorted[idx], f * sorted[idx + 1]);
  }
  return sorted[idx];
}

double quantile(std::vector<double>& data, double q) {
  if (data.empty()) throw std::invalid_argument("The data vector is empty.");
  if (q < 0.0 || q > 1.0) throw std::invalid_argument("Quantile value must be between 0 and 1.");
  std::sort(data.begin(), data.end());
  const size_t n = data.size();
  const double pos = static_cast<double>(n - 1) * q;
  const size_t idx = static_cast<size_t>(pos);
  if (idx + 1 >= n) return data[idx];
  const double f = pos - static_cast<double>(idx);
  return data[idx] * (1 - f) + f * data[idx + 1];
}

double get_angle(const cv::Point2f& a, const cv::Point2f& b, const cv::Point2f& c) {
  const float t1 = std::atan2(a.y - b.y, a.x - b.x);
  const float t2 = std::atan2(c.y - b.y, c.x - b.x);
  double d = static_cast<double>(t2 - t1) * 57.29577951308232;
  if (d > 180) {
    d -= 360;
  } else if (d < -180) {
    d += 360;
  }
  return d;
}

double get_angle_old(const cv::Point2f& a, const cv::Point2f& b, const cv::Point2f& c) {
  const cv::Point2f u = a - b;
  const cv::Point2f v = c - b;
  const float dot = v.x * u.x + v.y * u.y;
  const float len_u = std::sqrt(u.x * u.x + u.y * u.y);
  const float len_v = std::sqrt(v.x * v.x + v.y * v.y);
  return std::acos(static_cast<double>(dot) /
                   (static_cast<double>(len_v) * static_cast<double>(len_u))) *
         180.0 / 3.141592653589793;
}

std::string sanity_failure(const double* pts, int width, int height) {
  const cv::Point2f p1(static_cast<float>(pts[0]), static_cast<float>(pts[1]));
  const cv::Point2f p2(static_cast<float>(pts[2]), static_cast<float>(pts[3]));
  const cv::Point2f p3(static_cast<float>(pts[4]), static_cast<float>(pts[5]));
  const cv::Point2f p4(static_cast<float>(pts[6]), static_cast<float>(pts[7]));
  char text[160];
  // Each test is written as its failure condition so that NaN passes.
  const struct {
    const char* name;
    double length, least;
  } sides[] = {{"top", side_length(p1, p2), width / 20.0},
               {"bottom", side_length(p3, p4), width / 20.0},
               {"left", side_length(p1, p3), height / 20.0},
               {"right", side_length(p2, p4), height / 20.0}};
  for (const auto& side : sides) {
    if (side.length < side.least) {
      std::snprintf(text, sizeof(text), "the %s side is %.1f px long (at least %.1f, a twentieth)",
                    side.name, side.length, side.least);
      return text;
    }
  }
  const struct {
    const char* name;
    double degrees;
  } angles[] = {{"top-left", get_angle(p2, p1, p3)},
                {"bottom-left", get_angle(p1, p3, p4)},
                {"bottom-right", get_angle(p4, p2, p1)},
                {"top-right", get_angle(p3, p4, p2)}};
  for (const auto& angle : angles) {
    if (angle_out_of_range(angle.degrees)) {
      std::snprintf(text, sizeof(text),
                    "the %s corner's angle is %.0f degrees (45 to 135 is a view of a screen; a "
                    "mirrored view turns the other way)",
                    angle.name, angle.degrees);
      return text;
    }
  }
  return "";
}

bool check_ref_pts_sanity(const double* pts, int width, int height) {
  return sanity_failure(pts, width, height).empty();
}

double calculateConvexHullArea(const std::vector<cv::Point2f>& pts) {
  if (pts.size() < 3) return 1.0;
  std::vector<cv::Point> rounded;
  rounded.reserve(pts.size());
  for (const cv::Point2f& p : pts) rounded.emplace_back(cvRound(p.x), cvRound(p.y));
  std::vector<cv::Point> hull;
  cv::convexHull(rounded, hull, false, true);
  return cv::contourArea(hull, false);
}

double match_term(double pairs_by_area) { return 100.0 / std::pow(pairs_by_area, 0.333); }

}  // namespace framealign
