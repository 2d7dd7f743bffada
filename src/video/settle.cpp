#include "video/settle.h"

#include <algorithm>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "framealign/framealign.h"

namespace framealign {

namespace {

// The edge band, as a share of the frame's smaller side: wider than the
// shifts a search can be pulled by between neighbouring frames.
constexpr double kEdgeBand = 0.04;

}  // namespace

std::optional<std::array<double, 8>> moved_corners(const cv::Mat& from, const cv::Mat& to,
                                                   const std::vector<cv::Point2f>& from_points,
                                                   const std::array<double, 8>& found) {
  if (from_points.size() < 8) return std::nullopt;
  std::vector<cv::Point2f> seen = from_points;
  std::vector<unsigned char> there;
  std::vector<float> error;
  cv::calcOpticalFlowPyrLK(from, to, from_points, seen, there, error, cv::Size(21, 21), 4);
  std::vector<cv::Point2f> a, b;
  for (std::size_t i = 0; i < from_points.size(); ++i) {
    if (!there[i]) continue;
    a.push_back(from_points[i]);
    b.push_back(seen[i]);
  }
  if (a.size() < 8) return std::nullopt;
  // Content at x in `from` lies at motion(x) in `to`; the screen found by
  // `from`'s content maps x to found(x), so the screen showing `to` maps y
  // to found(motion^-1(y)).
  const cv::Mat motion = cv::findHomography(a, b, cv::RANSAC, 1.0);
  if (motion.empty()) return std::nullopt;
  std::vector<cv::Point2f> frame = {{0.0f, 0.0f},
                                    {float(from.cols), 0.0f},
                                    {0.0f, float(from.rows)},
                                    {float(from.cols), float(from.rows)}};
  std::vector<cv::Point2f> back, screen;
  cv::perspectiveTransform(frame, back, motion.inv());
  const cv::Matx33d by_found = cv::getPerspectiveTransform(
      frame, std::vector<cv::Point2f>{{float(found[0]), float(found[1])},
                                      {float(found[2]), float(found[3])},
                                      {float(found[4]), float(found[5])},
                                      {float(found[6]), float(found[7])}});
  cv::perspectiveTransform(back, screen, cv::Mat(by_found));
  std::array<double, 8> corners;
  for (int i = 0; i < 4; ++i) {
    corners[2 * i] = screen[i].x;
    corners[2 * i + 1] = screen[i].y;
  }
  return corners;
}

double edge_agreement(const cv::Mat& capture, const std::array<double, 8>& corners,
                      const cv::Mat& plane) {
  const cv::Mat seen = warp_by_corners(capture, corners, plane.cols, plane.rows);
  const int band = std::max(2, static_cast<int>(kEdgeBand * std::min(plane.cols, plane.rows)));
  cv::Mat mask(plane.size(), CV_8UC1, cv::Scalar(255));
  mask(cv::Rect(band, band, plane.cols - 2 * band, plane.rows - 2 * band)) = 0;
  cv::Mat a, b;
  seen.convertTo(a, CV_32F);
  plane.convertTo(b, CV_32F);
  cv::Scalar mean_a, std_a, mean_b, std_b;
  cv::meanStdDev(a, mean_a, std_a, mask);
  cv::meanStdDev(b, mean_b, std_b, mask);
  if (std_a[0] < 1e-3 || std_b[0] < 1e-3) return 0.0;
  a -= mean_a[0];
  b -= mean_b[0];
  const double covariance = cv::mean(a.mul(b), mask)[0];
  return covariance / (std_a[0] * std_b[0]);
}

}  // namespace framealign
