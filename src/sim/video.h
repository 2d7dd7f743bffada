// Synthetic filmed screens: a camera filming a screen that plays a
// reference video, with the truth for every captured frame.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "sim/render.h"

struct VideoSettings {
  int reference_frames = 48;  // frames of the reference video
  double motion = 4.0;        // the reference video's pan, reference pixels per frame
  double display_fps = 24.0;  // the screen's frame rate
  double camera_fps = 30.0;   // the camera's
  double seconds = 1.0;       // length of the capture video
  double phase = 0.0;         // when the screen starts reference frame 0, seconds after the first capture
  double readout = 0.5;       // rolling shutter: first to last row, share of a camera frame
  double exposure = 0.25;     // each row's exposure, share of a camera frame
  double drift = 0.0;         // hand-held: the camera wanders up to this many capture pixels
};

// What a captured frame shows.
struct FrameTruth {
  int capture_frame = 0;
  int ref_frame = 0;             // shown at the screen's middle row
  std::vector<int> ref_frames;   // shown on at least 5% of the screen's rows, in order
  double corners[8] = {};        // where the frame's corners lie in this captured frame
  // Where the picture changes from each frame of ref_frames to the next:
  // reference rows at the middle column whose capture row shows the two
  // frames half and half.
  std::vector<double> tear_rows;
  bool mixed() const { return ref_frames.size() > 1; }
};

// The reference video: `count` frames of a slow pan over one wide picture.
std::vector<cv::Mat> make_reference_video(int width, int height, std::uint64_t seed, int count, double motion);

// Films `reference` (its frames as the screen shows them) and hands each
// captured frame (8-bit grey, capture size) with its truth to `take`.
void film(const std::vector<cv::Mat>& reference, const CaptureSettings& camera, const VideoSettings& video,
          const std::function<void(const cv::Mat&, const FrameTruth&)>& take);
