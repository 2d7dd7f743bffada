// framealign for filmed screens: every frame of a capture video aligned,
// and the reference frame it shows told.
//
//   framealign::VideoOptions options;
//   options.align.fast = true;  // track the screen from frame to frame
//   framealign::VideoAligner video("film.mp4", "reference.yuv", 1280, 720, options);
//   for (framealign::VideoFrame frame; video.next(frame);) {
//     if (frame.result.status == "aligned") frame.result.save(folder_of(frame.capture_frame));
//   }
//
// A camera filming a playing video films some reference frames twice and
// others never (its frame rate is not the screen's), and its rolling shutter
// reads the rows at different moments, so that one captured frame can show
// the upper part of one reference frame and the lower part of the next: a
// mixed frame. Each VideoFrame says which reference frames it shows.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "framealign/framealign.h"

namespace framealign {

// What a caller kept of an aligned frame, as VideoFrame gave it.
struct KeptFrame {
  int ref_frame = -1;
  // result.corners, exactly as they were: the screen is followed on from
  // them (corners a little off give answers a little off after them).
  std::optional<std::array<double, 8>> corners;
  std::string unsure;
};

struct VideoOptions {
  // How each frame is aligned. With `fast`, the screen is tracked: the
  // corners found on one frame seed the next, verified as the quick path
  // is (result.path "tracked"), and a frame that fails verification gets
  // the quick path and then the full search as align() runs them (a cut, a
  // pan, a lost screen). Without it, every frame gets the full search, as
  // framealign would run it on that frame.
  AlignOptions align;
  // The reference frames the capture may show, both included; -1: to the
  // last frame of the reference file.
  int first_reference = 0;
  int last_reference = -1;
  // The captured frames to align, both included; -1: to the end. Frames
  // before `first_frame` are decoded and passed over.
  int first_frame = 0;
  int last_frame = -1;
  // Align only every `step`-th frame from `first_frame` (for spreading one
  // video over several processes); at least 1.
  int step = 1;
  // When given, frames for which it gives an answer are decoded and passed
  // over, and the next frames are aligned from that answer as if the frame
  // had just been aligned (a caller resuming a video gives back what it
  // kept of each frame, and the frames after come out as in one run).
  std::function<std::optional<KeptFrame>(int capture_frame)> kept;
};

// A band of an aligned frame's rows, told at its middle column: the
// reference frames its rows show and each one's share of the light (to a
// twentieth; rows exposed while the screen changed show two).
struct ShownRows {
  int first_row = 0, last_row = 0;  // both included
  std::vector<int> frames;
  std::vector<double> weights;
};

// One captured frame and what became of it.
struct VideoFrame {
  int capture_frame = 0;  // its index in the capture video, from 0
  // CV_8UC1: the frame as framealign reads it stored as a PNG (grey, every
  // non-zero sample raised by 16).
  cv::Mat capture;
  // The reference frame shown at the middle of the screen; -1 when none of
  // the given reference frames is shown (result.status is then "not_found").
  int ref_frame = -1;
  // Every reference frame seen on the screen, top row to bottom row.
  std::vector<int> ref_frames;
  bool mixed = false;  // more than one reference frame on the screen
  // Where the picture changes from one reference frame to the next: rows of
  // the aligned frame at its middle column, top to bottom (the change lies
  // along a capture row, so across the aligned frame it is tilted as the
  // camera was). Empty unless mixed.
  std::vector<double> tear_rows;
  // Every row of the aligned frame told, top to bottom.
  std::vector<ShownRows> shown_rows;
  // CV_8UC1, the reference's size: the reference as the camera saw it, each
  // pixel the blend of the frames its capture row shows (reference frame
  // ref_frame itself on a frame that is not mixed); empty when none.
  cv::Mat shown;
  // Empty when the answer is sure; else why it may be wrong although found,
  // "; "-separated, each starting with one of "out of view", "occluded",
  // "unsure which frame", "corners uncertain" (the next frame is not
  // tracked from them) or "coarse capture" (result.status stays).
  std::string unsure;
  // How well the frames told match the aligned frame: the mean over bands
  // of the screen of 1 - their correlation; 0 is a perfect match.
  double sync_score = 1.0;
  AlignResult result;  // as align() gives it, against ref_frame
  cv::Mat reference;   // CV_8UC1: reference frame ref_frame; empty when none
};

// Writes what `frame` shows into `folder` (its result's folder), named
// after the result's best slot i: shown_i.txt, a line "first last
// frame:weight ..." per band of rows, and, for a mixed frame, the picture
// shown as shown_i__WxxH.yuv (luma, as the aligned frames). Nothing for a
// frame without an answer. Throws Error when a file cannot be written.
FRAMEALIGN_API void save_shown(const VideoFrame& frame, const std::string& folder);

// Reads a capture video (any file OpenCV's FFmpeg reader takes, or a
// printf-style picture sequence such as frames/%06d.png) frame by frame and
// aligns each against a headerless 4:2:0 reference video of width x height.
// Throws Error when a file cannot be read or the options cannot be met.
class FRAMEALIGN_API VideoAligner {
 public:
  VideoAligner(const std::string& capture_video, const std::string& reference_yuv, int width,
               int height, const VideoOptions& options = {});
  ~VideoAligner();
  VideoAligner(const VideoAligner&) = delete;
  VideoAligner& operator=(const VideoAligner&) = delete;

  // The next captured frame in range, aligned; false at the end. Throws
  // Error for a frame that cannot be aligned or that the video announces
  // but cannot decode (the next call goes on with the frame after it).
  bool next(VideoFrame& frame);
  // Frames the capture video says it holds (an estimate for some files).
  int frame_count() const;
  // Frames the video was found to hold, once next() has met its end; -1
  // before.
  int length() const;
  // Seconds spent so far in each stage of next(), in the order they run:
  // decode, identify (what the frame shows, on the capture warped by where
  // the screen was), track, search (the quick path and the full search),
  // edges (the screen's edges' check), rows (tears, shown picture, doubts).
  std::vector<std::pair<std::string, double>> stage_seconds() const;
  // The index of the frame read last (-1 before the first): the frame a
  // failed next() was aligning.
  int last_read() const;
  // Where the screen lay in an earlier frame, for tracking to start from
  // (a caller resuming a video gives the corners of the last frame it kept).
  void seed(int capture_frame, int ref_frame, const std::array<double, 8>& corners);

  struct State;  // the library's own

 private:
  std::unique_ptr<State> state_;
};

}  // namespace framealign
