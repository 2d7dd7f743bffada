// A picture of a match set, for looking at it by eye.
#include <algorithm>
#include <mutex>
#include <utility>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"

namespace framealign {

namespace {

std::mutex g_sink_lock;
DiagnosticSink g_sink;

}  // namespace

void set_diagnostic_sink(DiagnosticSink sink) {
  const std::lock_guard<std::mutex> guard(g_sink_lock);
  g_sink = std::move(sink);
}

void draw_matches_combined(const cv::Mat& image1, const cv::Mat& image2,
                           const std::vector<cv::DMatch>& matches,
                           const std::vector<cv::KeyPoint>& keypoints1,
                           const std::vector<cv::KeyPoint>& keypoints2,
                           const std::string& file_name) {
  auto colour_copy = [](const cv::Mat& image) {
    cv::Mat out;
    if (image.channels() > 1) {
      out = image.clone();
    } else {
      cv::cvtColor(image, out, cv::COLOR_GRAY2BGR);
    }
    return out;
  };
  const cv::Mat colour1 = colour_copy(image1);
  const cv::Mat colour2 = colour_copy(image2);

  // One scale for both, so that both fit an 800 x 600 box.
  const double s = std::min({600.0 / image1.rows, 800.0 / image1.cols, 600.0 / image2.rows,
                             800.0 / image2.cols});
  const int w1 = cvRound(image1.cols * s), h1 = cvRound(image1.rows * s);
  const int w2 = cvRound(image2.cols * s), h2 = cvRound(image2.rows * s);
  cv::Mat scaled1, scaled2;
  cv::resize(colour1, scaled1, cv::Size(w1, h1), 0, 0, cv::INTER_LINEAR);
  cv::resize(colour2, scaled2, cv::Size(w2, h2), 0, 0, cv::INTER_LINEAR);

  const int canvas_height = std::max(h1, h2);
  cv::Mat canvas(canvas_height, w1 + w2, CV_8UC3, cv::Scalar(0, 0, 0));
  const int off1 = (canvas_height - h1) / 2;
  const int off2 = (canvas_height - h2) / 2;
  scaled1.copyTo(canvas(cv::Rect(0, off1, w1, h1)));
  scaled2.copyTo(canvas(cv::Rect(w1, off2, w2, h2)));

  cv::RNG rng(12345);  // the same colours on every run
  for (const cv::DMatch& m : matches) {
    const cv::Point2f& p1 = keypoints1[m.queryIdx].pt;
    const cv::Point2f& p2 = keypoints2[m.trainIdx].pt;
    const cv::Point a(cvRound(p1.x * s), cvRound(p1.y * s + off1));
    const cv::Point b(cvRound(p2.x * s + w1), cvRound(p2.y * s + off2));
    const int red = rng.uniform(0, 255);
    const int green = rng.uniform(0, 255);
    const int blue = rng.uniform(0, 255);
    const cv::Scalar colour(blue, green, red);
    cv::circle(canvas, a, 4, colour, 2, cv::LINE_8, 0);
    cv::circle(canvas, b, 4, colour, 2, cv::LINE_8, 0);
    cv::line(canvas, a, b, colour, 1, cv::LINE_8, 0);
  }
  const std::string caption = "Matches: " + std::to_string(matches.size());
  cv::putText(canvas, caption, cv::Point(10, 30), cv::FONT_HERSHEY_SIMPLEX, 1.0,
              cv::Scalar(255, 255, 255), 2, cv::LINE_8);
  cv::putText(canvas, caption, cv::Point(10, 30), cv::FONT_HERSHEY_SIMPLEX, 1.0,
              cv::Scalar(0, 0, 0), 1, cv::LINE_8);
  if (!cv::imwrite(file_name, canvas, {cv::IMWRITE_JPEG_QUALITY, 85})) {
    const std::lock_guard<std::mutex> guard(g_sink_lock);
    if (g_sink) g_sink("Failed to save image");
  }
}

}  // namespace framealign
