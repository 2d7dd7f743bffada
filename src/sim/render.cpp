#include "sim/render.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "align/align.h"

namespace {

cv::Mat perspective_from_frame(int width, int height, const cv::Point2f (&to)[4]) {
  double corners[8];
  framealign::frame_corners(width, height, corners);
  return cv::getPerspectiveTransform(framealign::corner_points(corners).data(), to);
}

// Smooth random ground: low-resolution noise scaled up.
cv::Mat cloudy(int width, int height, cv::RNG& rng, double lo, double hi) {
  cv::Mat small(std::max(2, height / 64), std::max(2, width / 64), CV_32F);
  rng.fill(small, cv::RNG::UNIFORM, lo, hi);
  cv::Mat out;
  cv::resize(small, out, cv::Size(width, height), 0, 0, cv::INTER_CUBIC);
  return out;
}

}  // namespace

cv::Mat make_reference_frame(int width, int height, std::uint64_t seed) {
  return make_reference_frame(width, height, seed, 0);
}

cv::Mat make_reference_frame(int width, int height, std::uint64_t seed, std::uint64_t shapes_seed) {
  cv::RNG rng(seed);
  cv::Mat ground = cloudy(width, height, rng, 40, 200);
  if (shapes_seed != 0) rng = cv::RNG(shapes_seed);
  for (int y = 0; y < height; ++y) {
    float* row = ground.ptr<float>(y);
    for (int x = 0; x < width; ++x) row[x] = 0.6f * row[x] + 60.0f * x / width + 20.0f * y / height;
  }
  cv::Mat frame;
  ground.convertTo(frame, CV_8U);

  const int scale = std::max(1, std::min(width, height) / 100);
  const int shapes = std::max(40, width * height / 2500);
  for (int i = 0; i < shapes; ++i) {
    const cv::Point c(rng.uniform(0, width), rng.uniform(0, height));
    const cv::Scalar colour(rng.uniform(0, 256));
    const int size = rng.uniform(scale, 8 * scale + 2);
    switch (rng.uniform(0, 6)) {
      case 0:
        cv::circle(frame, c, size, colour, rng.uniform(0, 2) ? -1 : std::max(1, scale / 2),
                   cv::LINE_AA);
        break;
      case 1:
        cv::rectangle(frame, cv::Rect(c.x, c.y, size, rng.uniform(scale, 8 * scale + 2)), colour,
                      -1);
        break;
      case 2:
        cv::line(frame, c,
                 c + cv::Point(rng.uniform(-4 * size, 4 * size), rng.uniform(-4 * size, 4 * size)),
                 colour, rng.uniform(1, scale + 2), cv::LINE_AA);
        break;
      case 3:
        cv::ellipse(frame, c, cv::Size(size, size / 3 + 1), rng.uniform(0, 180), 0, 360, colour,
                    -1, cv::LINE_AA);
        break;
      case 4: {
        std::vector<cv::Point> polygon;
        for (int k = 0; k < 5; ++k) {
          polygon.push_back(c + cv::Point(rng.uniform(-size, size), rng.uniform(-size, size)));
        }
        cv::fillPoly(frame, std::vector<std::vector<cv::Point>>{polygon}, colour, cv::LINE_AA);
        break;
      }
      default: {
        static const char* const kWords[] = {"FRAME", "align", "2026", "capture", "ref",
                                             "#42",   "scan",  "luma", "QX7",     "zeta"};
        const std::string text = std::string(kWords[rng.uniform(0, 10)]) +
                                 std::to_string(rng.uniform(0, 1000));
        cv::putText(frame, text, c, cv::FONT_HERSHEY_SIMPLEX, 0.15 * size / scale + 0.3, colour,
                    std::max(1, scale / 2), cv::LINE_AA);
      }
    }
  }
  cv::GaussianBlur(frame, frame, cv::Size(3, 3), 0.6);
  return frame;
}

// The camera's effects on the scene `img` (CV_32F, capture size), in this
// order: moire over the screen, vignette, brightness, gamma, blur, noise.
void camera_effects(cv::Mat& img, const CaptureSettings& s, cv::RNG& rng, cv::Size screen,
                    const cv::Mat& screen_to_capture) {
  const int cw = img.cols, ch = img.rows;
  if (s.moire > 0) {
    // Beating between the screen's pixel grid and the sensor's: a slanted
    // fringe pattern over the screen area.
    cv::Mat mask(screen, CV_8UC1, cv::Scalar(255));
    cv::Mat screen_mask;
    cv::warpPerspective(mask, screen_mask, screen_to_capture, img.size(), cv::INTER_LINEAR);
    const double angle = rng.uniform(0.0, CV_PI);
    const double period = rng.uniform(6.0, 14.0);
    const double fx = std::cos(angle) * 2 * CV_PI / period, fy = std::sin(angle) * 2 * CV_PI / period;
    for (int y = 0; y < ch; ++y) {
      float* row = img.ptr<float>(y);
      const unsigned char* m = screen_mask.ptr<unsigned char>(y);
      for (int x = 0; x < cw; ++x) {
        const double fringe = 1.0 + s.moire * std::sin(fx * x + fy * y) * (m[x] / 255.0);
        row[x] = static_cast<float>(row[x] * fringe);
      }
    }
  }
  if (s.vignette > 0) {
    const double r_max = std::hypot(cw / 2.0, ch / 2.0);
    for (int y = 0; y < ch; ++y) {
      float* row = img.ptr<float>(y);
      for (int x = 0; x < cw; ++x) {
        const double r = std::hypot(x - cw / 2.0, y - ch / 2.0) / r_max;
        row[x] = static_cast<float>(row[x] * (1.0 - s.vignette * r * r));
      }
    }
  }
  img *= s.brightness;
  if (s.gamma != 1.0) {
    cv::max(img, 0.0, img);
    cv::pow(img / 255.0, s.gamma, img);
    img *= 255.0;
  }
  if (s.blur > 0) cv::GaussianBlur(img, img, cv::Size(0, 0), s.blur);
  if (s.noise > 0) {
    cv::Mat noise(img.size(), CV_32F);
    rng.fill(noise, cv::RNG::NORMAL, 0.0, s.noise);
    img += noise;
  }
}

namespace {

double half_diagonal(const CaptureSettings& s) {
  return 0.5 * std::hypot(s.capture_width, s.capture_height);
}

// The scene through the lens: each capture pixel shows the scene point
// lens_undistort gives for it.
cv::Mat through_lens(const cv::Mat& scene, const CaptureSettings& s) {
  if (s.barrel == 0.0) return scene;
  cv::Mat map_x(scene.size(), CV_32FC1), map_y(scene.size(), CV_32FC1);
  for (int y = 0; y < scene.rows; ++y) {
    for (int x = 0; x < scene.cols; ++x) {
      const cv::Point2d u = lens_undistort(s, {double(x), double(y)});
      map_x.at<float>(y, x) = static_cast<float>(u.x);
      map_y.at<float>(y, x) = static_cast<float>(u.y);
    }
  }
  cv::Mat out;
  cv::remap(scene, out, map_x, map_y, cv::INTER_CUBIC, cv::BORDER_REFLECT);
  return out;
}

}  // namespace

cv::Point2d lens_undistort(const CaptureSettings& s, const cv::Point2d& captured) {
  const cv::Point2d c(s.capture_width / 2.0, s.capture_height / 2.0);
  const cv::Point2d offset = captured - c;
  const double r2 = offset.dot(offset) / std::pow(half_diagonal(s), 2);
  return c + offset * (1.0 / (1.0 - s.barrel * r2));
}

cv::Point2d lens_distort(const CaptureSettings& s, const cv::Point2d& scene) {
  const cv::Point2d c(s.capture_width / 2.0, s.capture_height / 2.0);
  const cv::Point2d offset = scene - c;
  const double ru = std::hypot(offset.x, offset.y) / half_diagonal(s);
  if (s.barrel == 0.0 || ru == 0.0) return scene;
  // The distorted radius r solves barrel * ru * r^2 + r - ru = 0.
  const double r = (std::sqrt(1.0 + 4.0 * s.barrel * ru * ru) - 1.0) / (2.0 * s.barrel * ru);
  return c + offset * (r / ru);
}

cv::Point2d Capture::seen_at(const cv::Point2d& p) const {
  const cv::Vec3d v = frame_to_scene * cv::Vec3d(p.x, p.y, 1.0);
  return lens_distort(settings, {v[0] / v[2], v[1] / v[2]});
}

Stage make_stage(cv::Size frame, const CaptureSettings& s, cv::RNG& rng) {
  const int cw = s.capture_width;
  const int ch = s.capture_height;
  Stage stage;
  // The screen: the frame inside a dark bezel.
  stage.bezel = s.bezel ? std::max(2, frame.width / 40) : 0;
  stage.side = stage.bezel + s.bars;
  stage.screen = cv::Size(frame.width + 2 * stage.side, frame.height + 2 * stage.bezel);

  // Its place in the capture: centred, scaled, moved and tilted at random.
  const double screen_w = s.screen_scale * cw;
  const double screen_h = screen_w * stage.screen.height / stage.screen.width;
  const double fit = std::min(1.0, 0.95 * ch / screen_h);
  const double w = screen_w * fit, h = screen_h * fit;
  const double cx = cw / 2.0 + rng.uniform(-0.5, 0.5) * (cw - w) * 0.5;
  const double cy = ch / 2.0 + rng.uniform(-0.5, 0.5) * (ch - h) * 0.5;
  const double jitter = s.perspective * std::min(w, h);
  cv::Point2f quad[4] = {{static_cast<float>(cx - w / 2), static_cast<float>(cy - h / 2)},
                         {static_cast<float>(cx + w / 2), static_cast<float>(cy - h / 2)},
                         {static_cast<float>(cx - w / 2), static_cast<float>(cy + h / 2)},
                         {static_cast<float>(cx + w / 2), static_cast<float>(cy + h / 2)}};
  for (cv::Point2f& p : quad) {
    p.x += static_cast<float>(rng.uniform(-jitter, jitter));
    p.y += static_cast<float>(rng.uniform(-jitter, jitter));
  }
  stage.screen_to_capture = perspective_from_frame(stage.screen.width, stage.screen.height, quad);

  // The scene behind the screen.
  cv::Mat scene_f = cloudy(cw, ch, rng, 30, 120);
  scene_f.convertTo(stage.scene, CV_8U);
  for (int i = 0; i < 40; ++i) {
    const cv::Point a(rng.uniform(0, cw), rng.uniform(0, ch));
    cv::rectangle(stage.scene, cv::Rect(a.x, a.y, rng.uniform(20, cw / 6 + 21), rng.uniform(20, ch / 6 + 21)),
                  cv::Scalar(rng.uniform(20, 140)), -1);
  }
  return stage;
}

cv::Mat optical_image(const cv::Mat& frame, const Stage& stage, const cv::Matx33d& drift, const CaptureSettings& s) {
  cv::Mat screen(stage.screen, CV_8UC1, cv::Scalar(s.bezel_grey));
  frame.copyTo(screen(cv::Rect(stage.side, stage.bezel, frame.cols, frame.rows)));
  cv::Mat scene = stage.scene.clone();
  cv::warpPerspective(screen, scene, cv::Mat(drift * stage.screen_to_capture), scene.size(), cv::INTER_CUBIC,
                      cv::BORDER_TRANSPARENT);
  return through_lens(scene, s);
}

Capture placed(cv::Size frame, const Stage& stage, const cv::Matx33d& drift, const CaptureSettings& s) {
  Capture capture;
  capture.settings = s;
  capture.frame_to_scene = drift * stage.screen_to_capture * stage.frame_in_screen();
  double corners[8];
  framealign::frame_corners(frame.width, frame.height, corners);
  for (int i = 0; i < 4; ++i) {
    const cv::Point2d p = capture.seen_at({corners[2 * i], corners[2 * i + 1]});
    capture.corners[2 * i] = p.x;
    capture.corners[2 * i + 1] = p.y;
  }
  return capture;
}

Capture develop(const cv::Mat& optical, cv::Size frame, const Stage& stage, const cv::Matx33d& drift,
                const CaptureSettings& s, cv::RNG& rng) {
  Capture capture = placed(frame, stage, drift, s);
  // Camera effects, in floating point.
  cv::Mat img;
  optical.convertTo(img, CV_32F);
  camera_effects(img, s, rng, stage.screen, cv::Mat(drift * stage.screen_to_capture));
  img.convertTo(capture.picture, CV_8U);
  if (s.mirror) cv::flip(capture.picture, capture.picture, 1);
  return capture;
}

Capture render_capture(const cv::Mat& frame, const CaptureSettings& s) {
  cv::RNG rng(s.seed * 7919 + 17);
  const Stage stage = make_stage(frame.size(), s, rng);
  const cv::Matx33d still = cv::Matx33d::eye();
  return develop(optical_image(frame, stage, still, s), frame.size(), stage, still, s, rng);
}

CornerError corner_error(const double* truth, const double* found, int width, int height) {
  cv::Point2f to[4];
  for (int i = 0; i < 4; ++i) {
    to[i] = cv::Point2f(static_cast<float>(truth[2 * i]), static_cast<float>(truth[2 * i + 1]));
  }
  const cv::Mat capture_to_frame = perspective_from_frame(width, height, to).inv();
  std::vector<cv::Point2f> mapped;
  cv::perspectiveTransform(framealign::corner_points(found), mapped, capture_to_frame);
  double corners[8];
  framealign::frame_corners(width, height, corners);
  const std::vector<cv::Point2f> frame = framealign::corner_points(corners);
  CornerError error{0, 0};
  for (int i = 0; i < 4; ++i) {
    const double d = std::hypot(mapped[i].x - frame[i].x, mapped[i].y - frame[i].y);
    error.mean += d / 4;
    error.max = std::max(error.max, d);
  }
  return error;
}

bool write_yuv420(const std::string& path, const cv::Mat& luma) {
  std::vector<unsigned char> bytes(luma.datastart, luma.dataend);
  bytes.resize(bytes.size() + 2 * static_cast<size_t>((luma.cols + 1) / 2) * ((luma.rows + 1) / 2),
               128);
  return framealign::replace_file(path, bytes.data(), bytes.size());
}
