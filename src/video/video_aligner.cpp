// framealign::VideoAligner: a capture video read frame by frame, each frame
// aligned (tracked from the frame before when it can be, searched when it
// cannot) and told which reference frames it shows.
#include <algorithm>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>

#include "api/result_files.h"
#include "core/as_error.h"
#include "video/video_state.h"

namespace framealign {

namespace {

// Frames of a width x height 4:2:0 file of `bytes` bytes (the last frame
// needs only its luma).
int frames_in(std::uintmax_t bytes, int width, int height) {
  const std::int64_t luma = std::int64_t(width) * height;
  if (static_cast<std::int64_t>(bytes) < luma) return 0;
  return static_cast<int>((static_cast<std::int64_t>(bytes) - luma) / yuv420_frame_size(width, height) + 1);
}

}  // namespace

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
  // The video reader takes a picture for a video of one frame.
  if (cv::haveImageReader(capture_video)) {
    throw Error(capture_video + " is a picture, not a video: give it as a capture");
  }
  s.announced = static_cast<int>(std::clamp(s.video.get(cv::CAP_PROP_FRAME_COUNT), 0.0, 1e9));
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

int VideoAligner::length() const { return state_->length; }

std::vector<std::pair<std::string, double>> VideoAligner::stage_seconds() const {
  const State& s = *state_;
  return {{"decode", s.decode_seconds}, {"identify", s.identify_seconds}, {"track", s.track_seconds},
          {"search", s.search_seconds}, {"edges", s.edges_seconds},       {"rows", s.rows_seconds}};
}

int VideoAligner::last_read() const { return state_->next_index - 1; }

void VideoAligner::seed(int capture_frame, int ref_frame, const std::array<double, 8>& corners) {
  state_->seen(capture_frame, ref_frame, corners);
}

bool VideoAligner::next(VideoFrame& frame) {
  State& s = *state_;
  const VideoOptions& o = s.options;
  for (;;) {
    if (o.last_frame >= 0 && s.next_index > o.last_frame) return false;
    if (s.length >= 0) return false;
    const int n = s.next_index++;
    const bool wanted = n >= o.first_frame && (n - o.first_frame) % o.step == 0;
    const std::optional<KeptFrame> kept = wanted && o.kept ? o.kept(n) : std::nullopt;
    cv::Mat picture;
    State::Read read;
    {
      const Spent spent(s.decode_seconds);
      read = s.read_frame(n, wanted && !kept ? &picture : nullptr);
    }
    if (read == State::Read::end) return false;
    if (!wanted) continue;
    if (kept) {
      s.recall(n, *kept);
      continue;
    }
    if (read == State::Read::damaged) throw Error(s.damaged(n));
    frame = VideoFrame();
    frame.capture_frame = n;
    {
      const Spent spent(s.decode_seconds);
      frame.capture = s.grey_capture(n, picture);
    }
    s.read_clock(n);
    // Tracking and the edges' check give quick answers: only where the
    // plan takes the quick path first.
    const bool quick = plan_of(o.align).quick_first;
    s.told = Identity();
    s.corners_in_doubt = false;
    as_error([&] {
      std::optional<Identity> seeded;
      {
        const Spent spent(s.identify_seconds);
        seeded = s.seeded_identity(frame.capture);
      }
      bool tracked = false;
      if (quick && seeded) {
        const Spent spent(s.track_seconds);
        tracked = s.track_frame(frame, *seeded);
      }
      if (!tracked) {
        const Spent spent(s.search_seconds);
        s.search_frame(frame, seeded);
      }
      if (quick) {
        const Spent spent(s.edges_seconds);
        s.true_to_edges(frame);
      }
      const Spent spent(s.rows_seconds);
      s.tell_rows(frame);
      return 0;
    });
    s.remember(frame);
    if (frame.ref_frame >= 0) frame.reference = s.plane(frame.ref_frame);
    return true;
  }
}

}  // namespace framealign
