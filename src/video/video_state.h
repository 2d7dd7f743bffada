// What a framealign::VideoAligner keeps between frames: the capture video,
// the reference video's frames as they are needed, and where the screen and
// the screen's clock were last seen.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/videoio.hpp>

#include "align/tracking.h"
#include "framealign/video.h"
#include "io/readers.h"
#include "video/identify.h"

namespace framealign {

// A band at most this far (1 - correlation) from its frame, or twice as far
// as the cleanest band, shows that frame alone.
constexpr double kCleanBand = 0.01;
// The screen's clock is fitted to this many frames lately shown, once at
// least kClockLeast of them span as many captured frames.
constexpr std::size_t kClockFrames = 48;
constexpr std::size_t kClockLeast = 6;
// A screen found from scratch may have been pulled by up to this many
// frames of the video's motion.
constexpr int kSettle = 3;
// Corners found from the content and from the screen's edges agree within
// this many pixels, or the content pulled the geometry.
constexpr double kEdgeAgreement = 0.5;
// Pairs followed that a frame tracked from the edges' geometry needs (the
// clean bands of a mixed frame may hold few points; the edges' points,
// fitted with them, hold the rest of the frame).
constexpr int kEdgeTrackedPairs = 40;

// Reference pixels per capture pixel along the top edge of a screen at
// `corners`, at least 1. A capture with fewer pixels than the reference
// cannot place the frame closer than about one of its own pixels: its
// tracked answers are taken up to that (and flagged when over a reference
// pixel), as a search would do no better.
inline double capture_pixel(const std::array<double, 8>& corners, int width) {
  const double across = std::hypot(corners[2] - corners[0], corners[3] - corners[1]);
  return std::max(1.0, width / std::max(across, 1.0));
}

// Adds the seconds of its life to `total`: a stage's time.
class Spent {
 public:
  explicit Spent(double& total) : total_(total) {}
  ~Spent() { total_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }
  Spent(const Spent&) = delete;
  Spent& operator=(const Spent&) = delete;

 private:
  double& total_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Keeps at most `most` entries, dropping the smallest keys first (a video
// moves forward through its reference).
template <typename T>
void keep_latest(std::map<int, T>& entries, std::size_t most) {
  while (entries.size() > most) entries.erase(entries.begin());
}

struct VideoAligner::State {
  cv::VideoCapture video;
  int announced = 0;   // frames the capture video says it holds
  int length = -1;     // frames it was found to hold, once its end was met
  int unreadable = 0;  // frames in a row the decoder could not give
  cv::Size size;       // of the first frame read
  // Seconds spent in each stage of next().
  double decode_seconds = 0, identify_seconds = 0, track_seconds = 0, search_seconds = 0,
         edges_seconds = 0, rows_seconds = 0;
  std::string reference_path;
  int width = 0, height = 0;
  VideoOptions options;
  int next_index = 0;
  std::unique_ptr<FrameIndex> index;
  std::map<int, cv::Mat> planes;
  std::map<int, std::vector<cv::Point2f>> points;
  std::map<int, Reference> references;
  // Where the screen was last seen, and the reference frames lately shown
  // by captured frame, the screen's clock.
  bool tracking = false;
  std::array<double, 8> corners{};
  std::deque<std::pair<int, int>> shown;
  double rate = 1.0;
  std::optional<double> clock;  // the frame the clock expects now
  Identity told;  // what the frame at hand was last told to show
  bool corners_in_doubt = false;  // the frame at hand's corners are not to be followed

  cv::Mat plane(int n) {
    auto it = planes.find(n);
    if (it != planes.end()) return it->second;
    cv::Mat frame(height, width, CV_8UC1);
    extract_frame_from_yuv420_file(reference_path, frame.data, width, height, n);
    keep_latest(planes, 16);
    return planes[n] = frame;
  }

  const Reference& reference(int n) {
    auto it = references.find(n);
    if (it != references.end()) return it->second;
    keep_latest(references, 2);
    return references.emplace(n, Reference::from_yuv(reference_path, width, height, n)).first->second;
  }

  // The clock: reference frame = offset + rate x captured frame, fitted by
  // least squares to the frames lately shown, once they span enough frames.
  void read_clock(int capture_frame) {
    clock.reset();
    if (shown.size() < kClockLeast || shown.back().first - shown.front().first < int(kClockLeast)) return;
    double mean_k = 0.0, mean_r = 0.0, kk = 0.0, kr = 0.0;
    for (const auto& [k, r] : shown) {
      mean_k += k;
      mean_r += r;
    }
    mean_k /= shown.size();
    mean_r /= shown.size();
    for (const auto& [k, r] : shown) {
      kk += (k - mean_k) * (k - mean_k);
      kr += (k - mean_k) * (r - mean_r);
    }
    rate = kr / kk;
    std::vector<double> offsets;
    for (const auto& [k, r] : shown) offsets.push_back(r - rate * k);
    std::nth_element(offsets.begin(), offsets.begin() + offsets.size() / 2, offsets.end());
    clock = offsets[offsets.size() / 2] + rate * capture_frame;
  }

  int predicted(int capture_frame) const {
    const int first = index->first(), last = index->last();
    if (shown.empty()) return first;
    const auto [last_index, last_ref] = shown.back();
    const int guess = clock ? static_cast<int>(std::lround(*clock))
                            : last_ref + static_cast<int>(std::lround(rate * (capture_frame - last_index)));
    return std::clamp(guess, first, last);
  }

  void remember(const VideoFrame& frame) {
    if (frame.ref_frame < 0 || !frame.result.corners) {
      tracking = false;
      return;
    }
    seen(frame.capture_frame, frame.ref_frame, *frame.result.corners);
    if (corners_in_doubt) tracking = false;
  }

  // The screen seen at `corners` on captured frame `capture_frame`, showing
  // reference frame `ref_frame`.
  void seen(int capture_frame, int ref_frame, const std::array<double, 8>& at) {
    shown.emplace_back(capture_frame, ref_frame);
    if (shown.size() > kClockFrames) shown.pop_front();
    tracking = true;
    corners = at;
  }

  // Reading the capture video (reading.cpp). A frame is decoded, passed
  // over (no picture asked), damaged (announced, but the decoder cannot
  // give it) or past the end.
  enum class Read { frame, damaged, end };
  Read read_frame(int n, cv::Mat* picture);
  std::string damaged(int n) const;
  // Frame n's picture, decoded, as framealign reads it stored as a PNG
  // (grey, every non-zero sample raised by 16). Throws Error for a frame
  // whose size is not the first frame's.
  cv::Mat grey_capture(int n, const cv::Mat& picture);
  // Frame `capture_frame` as a caller kept it: followed as if just aligned.
  void recall(int capture_frame, const KeptFrame& kept);

  // What a frame shows, told on the capture warped by where the screen was
  // last seen: the screen moves little from frame to frame, while a
  // geometry found on the frame itself is pulled by the video's own motion
  // (a pan) towards whichever frame it was found against.
  std::optional<Identity> seeded_identity(const cv::Mat& capture);
  const std::vector<cv::Point2f>& points_of(int n);
  // The frame shown, of those near `told`, for a screen found against frame
  // `searched` (see settle.h).
  int settled(const cv::Mat& capture, const AlignResult& result, int searched, int told,
              int reach = kSettle);
  std::vector<TrackGroup> groups_of(const Identity& identity);
  bool track_frame(VideoFrame& frame, const Identity& identity);
  // A geometry fitted to the content of a frame that shows two frames of a
  // pan shears to fit both, and the frame then reads as one: the screen's
  // edges, which the video does not move, tell. Where they disagree, the
  // frame is told on the edges' geometry and tracked from there, each band
  // against its own frame.
  void true_to_edges(VideoFrame& frame);
  void finish(VideoFrame& frame, AlignResult result, int shown);
  // Each row of the frame's answer told: its tears, bands and the picture
  // it shows (shown.cpp).
  void tell_rows(VideoFrame& frame);
  void search_frame(VideoFrame& frame, const std::optional<Identity>& seeded);
};

}  // namespace framealign
