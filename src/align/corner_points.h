// Shared by the matching and warp stages.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

// The four points of a corner array (8 doubles), in order, in single
// precision as OpenCV's perspective functions take them.
inline std::vector<cv::Point2f> corner_points(const double* corners) {
  std::vector<cv::Point2f> points(4);
  for (int i = 0; i < 4; ++i) {
    points[i] = cv::Point2f(static_cast<float>(corners[2 * i]),
                            static_cast<float>(corners[2 * i + 1]));
  }
  return points;
}
