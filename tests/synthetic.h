// Synthetic pictures: a textured frame rich enough for SIFT (the
// simulator's), and a capture of it through a known perspective.
#pragma once

#include <opencv2/imgproc.hpp>

#include "sim/render.h"

inline cv::Mat make_texture(int width, int height, uint64_t seed) {
  return make_reference_frame(width, height, seed);
}

// The perspective that puts a width x height frame's corners at `corners`
// (8 values: top-left, top-right, bottom-left, bottom-right).
inline cv::Mat frame_to_capture(int width, int height, const double* corners) {
  const float w = static_cast<float>(width), h = static_cast<float>(height);
  const cv::Point2f src[4] = {{0, 0}, {w, 0}, {0, h}, {w, h}};
  cv::Point2f dst[4];
  for (int i = 0; i < 4; ++i) {
    dst[i] = cv::Point2f(static_cast<float>(corners[2 * i]), static_cast<float>(corners[2 * i + 1]));
  }
  return cv::getPerspectiveTransform(src, dst);
}

// `frame` seen at `corners` in a capture of the given size, over a dimmed
// texture of its own.
inline cv::Mat make_capture(const cv::Mat& frame, const double* corners, int capture_width,
                            int capture_height, uint64_t background_seed) {
  cv::Mat capture = make_texture(capture_width, capture_height, background_seed) / 2;
  cv::warpPerspective(frame, capture, frame_to_capture(frame.cols, frame.rows, corners),
                      capture.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
  return capture;
}
