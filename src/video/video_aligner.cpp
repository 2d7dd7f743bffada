// framealign::VideoAligner: a capture video read frame by frame, each frame
// aligned (tracked from the frame before when it can be, searched when it
// cannot) and told which reference frames it shows.
#include <algorithm>
#include <cmath>
#include <deque>
#include <optional>
#include <filesystem>
#include <map>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "align/internal.h"
#include "api/as_error.h"
#include "api/result_files.h"
#include "framealign/video.h"
#include "io/readers.h"
#include "video/identify.h"
#include "video/settle.h"

namespace framealign {

namespace {

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

// Frames of a width x height 4:2:0 file of `bytes` bytes (the last frame
// needs only its luma).
int frames_in(std::uintmax_t bytes, int width, int height) {
  const std::int64_t luma = std::int64_t(width) * height;
  if (static_cast<std::int64_t>(bytes) < luma) return 0;
  return static_cast<int>((static_cast<std::int64_t>(bytes) - luma) / yuv420_frame_size(width, height) + 1);
}

// Keeps at most `most` entries, dropping the smallest keys first (a video
// moves forward through its reference).
template <typename T>
void keep_latest(std::map<int, T>& entries, std::size_t most) {
  while (entries.size() > most) entries.erase(entries.begin());
}

}  // namespace

struct VideoAligner::State {
  cv::VideoCapture video;
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
  int last_index = -1, last_ref = -1;
  std::deque<std::pair<int, int>> shown;
  double rate = 1.0;
  std::optional<double> clock;  // the frame the clock expects now

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
    if (last_ref < 0) return first;
    const int guess = clock ? static_cast<int>(std::lround(*clock))
                            : last_ref + static_cast<int>(std::lround(rate * (capture_frame - last_index)));
    return std::clamp(guess, first, last);
  }

  void remember(const VideoFrame& frame) {
    if (frame.ref_frame < 0 || !frame.result.corners) {
      tracking = false;
      return;
    }
    shown.emplace_back(frame.capture_frame, frame.ref_frame);
    if (shown.size() > kClockFrames) shown.pop_front();
    tracking = true;
    corners = *frame.result.corners;
    last_index = frame.capture_frame;
    last_ref = frame.ref_frame;
  }

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
  bool track_frame(VideoFrame& frame, const Identity& identity);
  void finish(VideoFrame& frame, AlignResult result, int shown);
  void search_frame(VideoFrame& frame, const std::optional<Identity>& seeded);
};

// The frame's result against reference frame `shown`, and what it shows
// told on the aligned frame itself with `shown` expected: the same
// whichever frames came before (a shard's frames tell what one run's do).
void VideoAligner::State::finish(VideoFrame& frame, AlignResult result, int shown) {
  const double expected = shown;
  const Identity identity = index->identify(result.frames[result.best_slot.value_or(0)], &expected);
  frame.ref_frame = shown;
  frame.ref_frames = identity.ref_frames;
  frame.mixed = identity.ref_frames.size() > 1;
  frame.sync_score = identity.sync_score;
  frame.result = std::move(result);
}

namespace {

// The points to follow on a frame showing `identity`: those in the bands
// that show its middle frame alone. Bands whose rows were exposed while the
// screen changed show a blend of two frames, moved against each other by
// the video's own motion; they match their frame worse than the clean ones.
std::vector<cv::Point2f> points_in_frame(const std::vector<cv::Point2f>& points,
                                         const Identity& identity, int height) {
  const std::size_t bands = identity.band_frames.size();
  double cleanest = 1.0;
  for (std::size_t b = 0; b < bands; ++b) {
    if (identity.band_frames[b] == identity.ref_frame && identity.band_costs[b] >= 0.0) {
      cleanest = std::min(cleanest, identity.band_costs[b]);
    }
  }
  const double clean = std::max(kCleanBand, 2.0 * cleanest);
  std::vector<cv::Point2f> kept;
  for (const cv::Point2f& p : points) {
    const std::size_t b = std::min(bands - 1, static_cast<std::size_t>(p.y * bands / height));
    if (identity.band_frames[b] == identity.ref_frame && identity.band_costs[b] <= clean) {
      kept.push_back(p);
    }
  }
  return kept;
}

}  // namespace

std::optional<Identity> VideoAligner::State::seeded_identity(const cv::Mat& capture) {
  if (!tracking) return std::nullopt;
  const Identity identity = index->identify(warp_by_corners(capture, corners, width, height),
                                            clock ? &*clock : nullptr);
  if (!identity.found) return std::nullopt;
  return identity;
}

const std::vector<cv::Point2f>& VideoAligner::State::points_of(int n) {
  auto it = points.find(n);
  if (it == points.end()) {
    keep_latest(points, 16);
    it = points.emplace(n, track_points(plane(n))).first;
  }
  return it->second;
}

int VideoAligner::State::settled(const cv::Mat& capture, const AlignResult& result, int searched,
                                 int told, int reach) {
  int best = searched;
  double best_agreement = edge_agreement(capture, *result.corners, plane(searched));
  for (int c = std::max(index->first(), told - reach); c <= std::min(index->last(), told + reach); ++c) {
    if (c == searched) continue;
    const auto moved = moved_corners(plane(searched), plane(c), points_of(searched), *result.corners);
    if (!moved) continue;
    const double agreement = edge_agreement(capture, *moved, plane(c));
    if (agreement > best_agreement) {
      best_agreement = agreement;
      best = c;
    }
  }
  return best;
}

bool VideoAligner::State::track_frame(VideoFrame& frame, const Identity& identity) {
  std::optional<AlignResult> result =
      track(frame.capture, plane(identity.ref_frame),
            points_in_frame(points_of(identity.ref_frame), identity, height), corners, options.align);
  if (!result) return false;
  // A seed a little off, where the video pans slowly, tells a neighbour
  // of the frame shown, and tracking then follows that frame's content:
  // the screen's edges tell.
  const int shown = settled(frame.capture, *result, identity.ref_frame, identity.ref_frame, 1);
  if (shown != identity.ref_frame) {
    const auto moved = moved_corners(plane(identity.ref_frame), plane(shown),
                                     points_of(identity.ref_frame), *result->corners);
    std::optional<AlignResult> again =
        moved ? track(frame.capture, plane(shown), points_of(shown), *moved, options.align) : std::nullopt;
    if (again) {
      finish(frame, std::move(*again), shown);
      return true;
    }
  }
  finish(frame, std::move(*result), identity.ref_frame);
  return true;
}

void VideoAligner::State::search_frame(VideoFrame& frame, const std::optional<Identity>& seeded) {
  if (seeded) {
    AlignResult result = align(frame.capture, reference(seeded->ref_frame), options.align);
    if (result.status == "aligned") {
      finish(frame, std::move(result), seeded->ref_frame);
      return;
    }
  }
  // No telling from where the screen was: found against the frame the
  // clock expects, told on what was found and along the screen's edges,
  // and searched again against the frame told when it differs.
  std::map<int, std::pair<AlignResult, Identity>> tried;
  int next = predicted(frame.capture_frame);
  const int middle = (index->first() + index->last()) / 2;
  for (int attempt = 0; attempt < 3 && next >= 0 && tried.count(next) == 0; ++attempt) {
    AlignResult result = align(frame.capture, reference(next), options.align);
    if (result.status != "aligned") {
      tried.emplace(next, std::make_pair(std::move(result), Identity()));
      // Elsewhere in the reference: its first frame, then its middle.
      next = tried.count(index->first()) == 0 ? index->first() : tried.count(middle) == 0 ? middle : -1;
      continue;
    }
    const Identity identity = index->identify(result.frames[*result.best_slot], clock ? &*clock : nullptr);
    const int searched = next;
    next = identity.found ? settled(frame.capture, result, searched, identity.ref_frame) : -1;
    tried.emplace(searched, std::make_pair(std::move(result), identity));
    const auto shown = tried.find(next);
    if (shown != tried.end() && shown->second.second.found) {
      finish(frame, std::move(shown->second.first), next);
      return;
    }
  }
  frame.result = not_found_result(frame.capture, width, height, options.align);
}

VideoAligner::VideoAligner(const std::string& capture_video, const std::string& reference_yuv,
                           int width, int height, const VideoOptions& options)
    : state_(std::make_unique<State>()) {
  State& s = *state_;
  luma_plane_size(width, height);  // refuses sizes a plane cannot have
  std::error_code error;
  const std::uintmax_t bytes = std::filesystem::file_size(reference_yuv, error);
  if (error) throw Error("Cannot read the reference video " + reference_yuv + ": " + error.message());
  const int frames = frames_in(bytes, width, height);
  const int last = options.last_reference < 0 ? frames - 1 : options.last_reference;
  if (options.first_reference < 0 || options.first_reference > last || last >= frames) {
    throw Error("The reference video " + reference_yuv + " holds frames 0 to " +
                std::to_string(frames - 1) + " at " + std::to_string(width) + "x" +
                std::to_string(height) + ", not " + std::to_string(options.first_reference) + " to " +
                std::to_string(last));
  }
  if (options.step < 1 || options.first_frame < 0) throw Error("frame step and first frame must be positive");
  if (!std::filesystem::exists(capture_video) || !s.video.open(capture_video, cv::CAP_ANY) ||
      !s.video.isOpened()) {
    throw Error("Cannot read the capture video " + capture_video);
  }
  s.reference_path = reference_yuv;
  s.width = width;
  s.height = height;
  s.options = options;
  as_error([&] {
    s.index = std::make_unique<FrameIndex>([&s](int n) { return s.plane(n); },
                                           options.first_reference, last);
    return 0;
  });
}

VideoAligner::~VideoAligner() = default;

int VideoAligner::frame_count() const {
  return static_cast<int>(state_->video.get(cv::CAP_PROP_FRAME_COUNT));
}

int VideoAligner::last_read() const { return state_->next_index - 1; }

void VideoAligner::seed(int capture_frame, int ref_frame, const std::array<double, 8>& corners) {
  State& s = *state_;
  s.tracking = true;
  s.corners = corners;
  s.last_index = capture_frame;
  s.last_ref = ref_frame;
}

bool VideoAligner::next(VideoFrame& frame) {
  State& s = *state_;
  const VideoOptions& o = s.options;
  for (;;) {
    if (o.last_frame >= 0 && s.next_index > o.last_frame) return false;
    const int n = s.next_index++;
    const bool wanted =
        n >= o.first_frame && (n - o.first_frame) % o.step == 0 && !(o.skip && o.skip(n));
    if (!wanted) {
      if (!s.video.grab()) return false;
      continue;
    }
    cv::Mat picture;
    if (!s.video.read(picture) || picture.empty()) return false;
    frame = VideoFrame();
    frame.capture_frame = n;
    if (picture.channels() == 1) {
      frame.capture = picture.clone();
    } else {
      cv::cvtColor(picture, frame.capture, picture.channels() == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
    }
    // As framealign reads the frame stored as a PNG.
    cv::add(frame.capture, cv::Scalar(16), frame.capture, frame.capture != 0);
    s.read_clock(n);
    as_error([&] {
      const std::optional<Identity> seeded = s.seeded_identity(frame.capture);
      if (!(o.align.fast && seeded && s.track_frame(frame, *seeded))) s.search_frame(frame, seeded);
      return 0;
    });
    s.remember(frame);
    if (frame.ref_frame >= 0) frame.reference = s.plane(frame.ref_frame);
    return true;
  }
}

}  // namespace framealign
