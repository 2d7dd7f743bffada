#include "sim/video.h"

#include <algorithm>
#include <cmath>
#include <map>

#include <opencv2/imgproc.hpp>

#include "core/plane_io.h"
#include "sim/filming.h"

namespace {

// The hand-held camera's small smooth wander at time t: a shift and a turn
// about the capture's centre.
cv::Matx33d wander(double t, const CaptureSettings& c, const VideoSettings& v, const double (&phases)[3]) {
  if (v.drift <= 0 && v.pan == 0) return cv::Matx33d::eye();
  const double dx = v.drift * std::sin(0.9 * t + phases[0]), dy = v.drift * std::sin(1.3 * t + phases[1]);
  const double turn = v.drift / std::hypot(c.capture_width, c.capture_height) * std::sin(0.7 * t + phases[2]);
  const double cx = c.capture_width / 2.0, cy = c.capture_height / 2.0, co = std::cos(turn), si = std::sin(turn);
  // A camera turning to the right moves the scene to the left.
  const double pan = -v.pan * t;
  return {co, -si, cx - co * cx + si * cy + dx + pan, si, co, cy - si * cx - co * cy + dy, 0, 0, 1};
}

// The truth's tear rows (see FrameTruth) of a frame whose capture rows
// show `row_shares` of the frames, the screen on rows first to last.
std::vector<double> tears_of(const std::vector<std::map<int, double>>& row_shares,
                             const std::vector<int>& shown, const Capture& shot, cv::Size frame, int first,
                             int last) {
  std::vector<double> rows;
  for (std::size_t k = 0; k + 1 < shown.size(); ++k) {
    auto later = [&](int y) {
      double share = 0.0;
      for (const auto& [f, s] : row_shares[y]) share += f > shown[k] ? s : 0.0;
      return share;
    };
    for (int y = first; y < last; ++y) {
      const double a = later(y), b = later(y + 1);
      if (a >= 0.5 || b < 0.5) continue;
      const double crossing = y + (0.5 - a) / (b - a);
      // The reference row at the middle column that the capture shows there.
      double low = -frame.height, high = 2.0 * frame.height;
      for (int i = 0; i < 60; ++i) {
        const double mid = (low + high) / 2;
        (shot.seen_at({frame.width / 2.0, mid}).y < crossing ? low : high) = mid;
      }
      rows.push_back((low + high) / 2);
      break;
    }
  }
  return rows;
}

}  // namespace

std::vector<cv::Mat> make_reference_video(int width, int height, std::uint64_t seed, int count, double motion,
                                          const std::string& content, int letterbox) {
  const bool small = content == "small";
  const int wide = width + (small ? 0 : static_cast<int>(std::ceil(motion * std::max(count - 1, 0)))) + 1;
  const cv::Mat canvas = make_reference_frame(wide, height, seed);
  std::vector<cv::Mat> frames;
  for (int k = 0; k < count; ++k) {
    const cv::Mat shift = (cv::Mat_<double>(2, 3) << 1, 0, small ? 0.0 : -motion * k, 0, 1, 0);
    cv::Mat frame;
    cv::warpAffine(canvas, frame, shift, cv::Size(width, height), cv::INTER_LINEAR, cv::BORDER_REFLECT);
    if (small) {
      // A cursor a fortieth of the frame wide crossing it, a few pixels a frame.
      const int size = std::max(4, width / 40), step = std::max(2, width / 160);
      const cv::Point at(width / 8 + (k * step) % (3 * width / 4), height / 3 + (k * step / 3) % (height / 3));
      cv::rectangle(frame, cv::Rect(at, cv::Size(size, size)), cv::Scalar(250), -1);
      cv::rectangle(frame, cv::Rect(at, cv::Size(size, size)), cv::Scalar(10), 2);
    }
    if (letterbox > 0) {
      frame.rowRange(0, std::min(letterbox, height)) = cv::Scalar(16);
      frame.rowRange(std::max(0, height - letterbox), height) = cv::Scalar(16);
    }
    frames.push_back(frame);
  }
  return frames;
}

void film(const std::vector<cv::Mat>& reference, const CaptureSettings& camera, const VideoSettings& video,
          const std::function<void(const cv::Mat&, const FrameTruth&)>& take) {
  VideoSettings v = video;
  v.reference_frames = static_cast<int>(reference.size());
  const PlayerClock player(v);
  cv::RNG rng(camera.seed * 7919 + 17);
  const cv::Size frame_size = reference.at(0).size();
  const Stage stage = make_stage(frame_size, camera, rng);
  const double phases[3] = {rng.uniform(0.0, 6.3), rng.uniform(0.0, 6.3), rng.uniform(0.0, 6.3)};
  const int rows = camera.capture_height;
  const double frame_time = 1.0 / v.camera_fps, readout = v.readout * frame_time, exposure = v.exposure * frame_time;
  const int count = static_cast<int>(std::floor(v.seconds * v.camera_fps));
  for (int i = 0; i < count; ++i) {
    const double start = i * frame_time;
    const cv::Matx33d drift = wander(start, camera, v, phases);
    // Each row's share of every reference frame shown while it was exposed.
    std::vector<std::map<int, double>> row_shares(rows);
    std::map<int, cv::Mat> optical;
    for (int y = 0; y < rows; ++y) {
      const double a = start + readout * y / rows;
      row_shares[y] = player.shown_during(a, a + exposure);
      for (const auto& [k, share] : row_shares[y]) {
        if (!optical.count(k)) optical[k] = optical_image(reference[k], stage, drift, camera);
      }
    }
    cv::Mat light(rows, camera.capture_width, CV_32F, cv::Scalar(0));
    for (int y = 0; y < rows; ++y) {
      const double a = start + readout * y / rows;
      const double lit = backlight(a, exposure, v.pwm_hz);
      for (const auto& [k, share] : row_shares[y]) {
        cv::Mat row;
        optical[k].row(y).convertTo(row, CV_32F, share * lit);
        light.row(y) += row;
      }
    }
    FrameTruth truth;
    if (v.hand || v.exposure_drift > 0) {
      // The hand is drawn in front of where the screen is.
      const Capture where = placed(frame_size, stage, drift, camera);
      if (v.hand) truth.occluded = draw_hand(light, start, v.seconds, where.corners);
      light *= 1.0 + v.exposure_drift * std::sin(2 * CV_PI * start / 3.0 + phases[0]);
    }
    const Capture shot = develop(light, frame_size, stage, drift, camera, rng);
    truth.in_view = share_in_view(shot.corners, light.size());
    truth.capture_frame = i;
    std::copy(shot.corners, shot.corners + 8, truth.corners);
    double top = HUGE_VAL, bottom = -HUGE_VAL;
    for (int c = 0; c < 4; ++c) top = std::min(top, shot.corners[2 * c + 1]), bottom = std::max(bottom, shot.corners[2 * c + 1]);
    const int first = std::clamp(static_cast<int>(top), 0, rows - 1), last = std::clamp(static_cast<int>(bottom), 0, rows - 1);
    // A frame counts as shown when it covers at least 5% of the screen's
    // rows (a sliver of a row or two at a tilted edge does not).
    std::map<int, double> covered;
    for (int y = first; y <= last; ++y) {
      for (const auto& [k, share] : row_shares[y]) covered[k] += share;
    }
    for (const auto& [k, rows_covered] : covered) {
      if (rows_covered >= 0.05 * (last - first + 1)) truth.ref_frames.push_back(k);
    }
    std::sort(truth.ref_frames.begin(), truth.ref_frames.end());
    truth.tear_rows = tears_of(row_shares, truth.ref_frames, shot, frame_size, first, last);
    const cv::Point2d middle = shot.seen_at({frame_size.width / 2.0, frame_size.height / 2.0});
    const auto& at_middle = row_shares[std::clamp(static_cast<int>(middle.y), 0, rows - 1)];
    truth.ref_frame = std::max_element(at_middle.begin(), at_middle.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; })->first;
    take(shot.picture, truth);
  }
}
