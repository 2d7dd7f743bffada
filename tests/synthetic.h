// Synthetic pictures for the tests: textured frames rich enough for SIFT,
// and captures made from them by a known perspective.
#pragma once

#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

// A grey frame of shapes, lines and text over a gradient; the same seed
// gives the same picture.
inline cv::Mat make_texture(int width, int height, uint64_t seed) {
  cv::RNG rng(seed);
  cv::Mat img(height, width, CV_8UC1);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      img.at<unsigned char>(y, x) = static_cast<unsigned char>(60 + 90 * x / width + 50 * y / height);
    }
  }
  const int shapes = width * height / 1500;
  const int max_size = std::max(4, std::min(width, height) / 12);
  for (int i = 0; i < shapes; ++i) {
    const cv::Point c(rng.uniform(0, width), rng.uniform(0, height));
    const cv::Scalar colour(rng.uniform(0, 256));
    const int size = rng.uniform(2, max_size);
    switch (rng.uniform(0, 5)) {
      case 0:
        cv::circle(img, c, size, colour, rng.uniform(0, 2) ? -1 : 2, cv::LINE_AA);
        break;
      case 1:
        cv::rectangle(img, c, c + cv::Point(size, rng.uniform(2, max_size)), colour, -1);
        break;
      case 2:
        cv::line(img, c, c + cv::Point(rng.uniform(-2 * size, 2 * size), rng.uniform(-2 * size, 2 * size)),
                 colour, rng.uniform(1, 4), cv::LINE_AA);
        break;
      case 3:
        cv::ellipse(img, c, cv::Size(size, size / 2 + 1), rng.uniform(0, 180), 0, 360, colour, -1,
                    cv::LINE_AA);
        break;
      default: {
        const std::string text = std::to_string(rng.uniform(0, 100000));
        cv::putText(img, text, c, cv::FONT_HERSHEY_SIMPLEX, 0.4 + size / 40.0, colour,
                    rng.uniform(1, 3), cv::LINE_AA);
      }
    }
  }
  cv::GaussianBlur(img, img, cv::Size(3, 3), 0.7);
  return img;
}

// The perspective that puts a width x height frame's corners at `corners`
// (top-left, top-right, bottom-left, bottom-right as 8 values).
inline cv::Mat frame_to_capture(int width, int height, const double* corners) {
  const cv::Point2f src[4] = {{0, 0},
                              {static_cast<float>(width), 0},
                              {0, static_cast<float>(height)},
                              {static_cast<float>(width), static_cast<float>(height)}};
  cv::Point2f dst[4];
  for (int i = 0; i < 4; ++i) {
    dst[i] = cv::Point2f(static_cast<float>(corners[2 * i]), static_cast<float>(corners[2 * i + 1]));
  }
  return cv::getPerspectiveTransform(src, dst);
}

// `frame` seen at `corners` inside a capture of the given size, over a
// background texture of its own.
inline cv::Mat make_capture(const cv::Mat& frame, const double* corners, int capture_width,
                            int capture_height, uint64_t background_seed) {
  cv::Mat capture = make_texture(capture_width, capture_height, background_seed) / 2;
  cv::warpPerspective(frame, capture, frame_to_capture(frame.cols, frame.rows, corners),
                      capture.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
  return capture;
}
