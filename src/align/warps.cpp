// Perspective warps onto the reference frame, and where content lands there.
#include "align/warps.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include <opencv2/imgproc.hpp>

#include "align/align.h"

namespace framealign {

namespace {

std::vector<cv::Point2f> frame_points(int width, int height) {
  double corners[8];
  frame_corners(width, height, corners);
  return corner_points(corners);
}

// Four finite corners of which no three lie on one line.
bool is_quadrilateral(const double* pts) {
  for (int i = 0; i < 8; ++i) {
    if (!std::isfinite(pts[i])) return false;
  }
  const cv::Point2d p[4] = {{pts[0], pts[1]}, {pts[2], pts[3]}, {pts[4], pts[5]}, {pts[6], pts[7]}};
  for (int skip = 0; skip < 4; ++skip) {
    cv::Point2d t[3];
    for (int i = 0, k = 0; i < 4; ++i) {
      if (i != skip) t[k++] = p[i];
    }
    const double twice_area = (t[1] - t[0]).cross(t[2] - t[0]);
    if (std::abs(twice_area) < 1e-6) return false;
  }
  return true;
}

}  // namespace

void write_frame_polygon(int width, int height, double* content_pts) {
  const double polygon[8] = {0, 0, 0, static_cast<double>(height), static_cast<double>(width),
                             static_cast<double>(height), static_cast<double>(width), 0};
  std::copy(polygon, polygon + 8, content_pts);
}

void align_by_pts(const cv::Mat& image, int width, int height, int pad_x, int pad_y,
                  const double* pts, unsigned char* aligned, double* content_pts) {
  // OpenCV answers a degenerate quadrilateral with a meaningless frame; a
  // user who gave such corners gets told instead.
  if (!is_quadrilateral(pts)) {
    std::string values;
    for (int i = 0; i < 8; ++i) values += (i ? " " : "") + std::to_string(pts[i]);
    throw std::invalid_argument("Corner points do not form a quadrilateral: " + values);
  }
  const int inner_width = width - pad_x;
  const int inner_height = height - pad_y;
  const cv::Mat M = cv::getPerspectiveTransform(
      corner_points(pts), frame_points(inner_width, inner_height), cv::DECOMP_LU);
  cv::Mat warped;
  cv::warpPerspective(image, warped, M, cv::Size(inner_width, inner_height), cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT, cv::Scalar(0));
  write_frame_polygon(inner_width, inner_height, content_pts);
  if (pad_x > 0 || pad_y > 0) {
    // Padding goes right and below only: the picture stays at the top-left.
    cv::copyMakeBorder(warped, warped, 0, pad_y, 0, pad_x, cv::BORDER_CONSTANT, cv::Scalar(0));
  }
  copy_plane(warped, aligned, width, height);
}

void get_content_area(const cv::Mat& transform, const cv::Mat& image, int width, int height,
                      double* content_pts) {
  const cv::Mat mask(image.size(), CV_8UC1, cv::Scalar(255));
  cv::Mat warped_mask;
  cv::warpPerspective(mask, warped_mask, transform, cv::Size(width, height), cv::INTER_NEAREST,
                      cv::BORDER_CONSTANT, cv::Scalar(0));
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(warped_mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE,
                   cv::Point(0, 0));
  if (contours.empty()) {
    write_frame_polygon(width, height, content_pts);
    return;
  }
  // The first of equal areas wins; with every area 0, contour 0.
  size_t largest = 0;
  double largest_area = 0.0;
  for (size_t i = 0; i < contours.size(); ++i) {
    const double area = cv::contourArea(contours[i], false);
    if (area > largest_area) {
      largest_area = area;
      largest = i;
    }
  }
  std::vector<cv::Point> polygon;
  cv::approxPolyDP(contours[largest], polygon, 3.0, true);
  if (polygon.size() <= 2) {
    write_frame_polygon(width, height, content_pts);
    return;
  }
  // At most 10 points fit a content row; a longer polygon is cut, not simplified.
  const size_t points = std::min<size_t>(polygon.size(), 10);
  for (size_t i = 0; i < points; ++i) {
    content_pts[2 * i] = polygon[i].x;
    content_pts[2 * i + 1] = polygon[i].y;
  }
}

void align_frame(const std::vector<cv::DMatch>& matches,
                 const std::vector<cv::KeyPoint>& refKeypoints,
                 const std::vector<cv::KeyPoint>& inputKeypoints, const cv::Mat& image,
                 int width, int height, const double* refCorners, unsigned char* aligned,
                 double* pts, double* content_pts) {
  const cv::Mat found = get_homography_pts(matches, refKeypoints, inputKeypoints, refCorners, pts);
  if (found.empty()) return;
  // The fitted homography only signals success; the warp comes from the corners.
  warp_to_frame(image, width, height, pts, aligned, content_pts);
}

void warp_to_frame(const cv::Mat& image, int width, int height, const double* pts,
                   unsigned char* aligned, double* content_pts) {
  const cv::Mat M =
      cv::getPerspectiveTransform(corner_points(pts), frame_points(width, height), cv::DECOMP_LU);
  cv::Mat warped;
  cv::warpPerspective(image, warped, M, cv::Size(width, height), cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT, cv::Scalar(0));
  get_content_area(M, image, width, height, content_pts);
  copy_plane(warped, aligned, width, height);
}

}  // namespace framealign
