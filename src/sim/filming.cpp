#include "sim/filming.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

PlayerClock::PlayerClock(const VideoSettings& v)
    : fps_(v.display_fps), frames_(v.reference_frames) {
  segments_.push_back({v.phase, 0, true});
  auto add = [this](double at, const Segment& s) {
    if (at < 0) return;
    segments_.push_back(s);
    std::sort(segments_.begin(), segments_.end(),
              [](const Segment& a, const Segment& b) { return a.start < b.start; });
  };
  add(v.seek_at, {v.seek_at, v.seek_to, true});
  if (v.pause_at >= 0) {
    const int paused = frame_at(v.pause_at);
    add(v.pause_at, {v.pause_at, paused, false});
    add(v.pause_at, {v.pause_at + v.pause_for, paused, true});
  }
}

int PlayerClock::frame_at(double t) const {
  const Segment* now = &segments_.front();
  for (const Segment& s : segments_) {
    if (s.start <= t) now = &s;
  }
  int k = now->first_frame;
  if (now->playing) k += static_cast<int>(std::floor((t - now->start) * fps_));
  return std::clamp(k, 0, frames_ - 1);
}

double PlayerClock::next_change(double t) const {
  double next = HUGE_VAL;
  const Segment* now = &segments_.front();
  for (const Segment& s : segments_) {
    if (s.start <= t) now = &s;
    if (s.start > t) next = std::min(next, s.start);
  }
  if (now->playing)
    next = std::min(next, now->start + (std::floor((t - now->start) * fps_) + 1) / fps_);
  return next;
}

std::map<int, double> PlayerClock::shown_during(double a, double b) const {
  std::map<int, double> share;
  if (b <= a) {
    share[frame_at(a)] = 1.0;
    return share;
  }
  for (double t = a; t < b;) {
    const double end = std::min(b, std::max(next_change(t), t + 1e-9));
    share[frame_at(t)] += (end - t) / (b - a);
    t = end;
  }
  return share;
}

double draw_hand(cv::Mat& light, double t, double seconds, const double* corners) {
  // In from the lower right over the first third, resting over the second,
  // out again over the last.
  const double u = t / seconds, reach = u < 1.0 / 3 ? 3 * u : u < 2.0 / 3 ? 1.0 : 3 * (1 - u);
  const double w = light.cols, h = light.rows;
  const cv::Point2d palm(w * (1.05 - 0.35 * reach), h * (1.1 - 0.45 * reach));
  cv::Mat hand(light.size(), CV_8U, cv::Scalar(0));
  const double size = 0.12 * h;
  cv::ellipse(hand, palm, cv::Size(cvRound(size), cvRound(size * 1.3)), -30, 0, 360,
              cv::Scalar(255), -1);
  for (int f = 0; f < 4; ++f) {
    const double angle = (-120 + 18 * f) * CV_PI / 180;
    const cv::Point2d tip = palm + 2.2 * size * cv::Point2d(std::cos(angle), std::sin(angle));
    cv::line(hand, palm, tip, cv::Scalar(255), cvRound(0.32 * size));
  }
  cv::Mat skin(light.size(), CV_32F);
  for (int y = 0; y < light.rows; ++y) {
    float* row = skin.ptr<float>(y);
    for (int x = 0; x < light.cols; ++x)
      row[x] = static_cast<float>(120 + 25 * std::sin(x * 0.01 + y * 0.013));
  }
  skin.copyTo(light, hand);
  cv::Mat screen(light.size(), CV_8U, cv::Scalar(0));
  const cv::Point quad[4] = {{cvRound(corners[0]), cvRound(corners[1])},
                             {cvRound(corners[2]), cvRound(corners[3])},
                             {cvRound(corners[6]), cvRound(corners[7])},
                             {cvRound(corners[4]), cvRound(corners[5])}};
  cv::fillConvexPoly(screen, quad, 4, cv::Scalar(255));
  const double area = cv::countNonZero(screen);
  return area > 0 ? cv::countNonZero(screen & hand) / area : 0.0;
}

double backlight(double start, double exposure, double pwm_hz) {
  if (pwm_hz <= 0) return 1.0;
  constexpr int kSamples = 64;
  double sum = 0.0;
  for (int i = 0; i < kSamples; ++i) {
    const double t = start + exposure * (i + 0.5) / kSamples;
    sum += std::fmod(t * pwm_hz, 1.0) < 0.5 ? 1.0 : 0.4;
  }
  return sum / kSamples;
}

double share_in_view(const double* corners, cv::Size size) {
  // The quadrilateral drawn on a canvas with the capture in its middle.
  const cv::Size canvas(size.width * 3 / 4 + 1, size.height * 3 / 4 + 1);
  auto at = [&](int c) {
    return cv::Point(cvRound((corners[2 * c] + size.width) / 4),
                     cvRound((corners[2 * c + 1] + size.height) / 4));
  };
  cv::Mat all(canvas, CV_8U, cv::Scalar(0));
  const cv::Point quad[4] = {at(0), at(1), at(3), at(2)};
  cv::fillConvexPoly(all, quad, 4, cv::Scalar(255));
  const double whole = cv::countNonZero(all);
  const cv::Rect inside(size.width / 4, size.height / 4, size.width / 4, size.height / 4);
  return whole > 0 ? cv::countNonZero(all(inside & cv::Rect(cv::Point(), canvas))) / whole : 0.0;
}
