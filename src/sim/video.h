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
  // The player: paused at pause_at seconds for pause_for seconds (then on
  // from the frame it showed); at seek_at seconds sought to frame seek_to.
  // Negative times: never.
  double pause_at = -1.0, pause_for = 0.0;
  double seek_at = -1.0;
  int seek_to = 0;
  // The reference video: "pan" (the whole picture pans by `motion`), or
  // "small" (a still picture, only a small cursor moves: a fixed camera's
  // street, a slide).
  std::string content = "pan";
  int letterbox = 0;            // dark rows at the top and bottom of every reference frame
  bool hand = false;            // a hand passes in front of the screen
  double pan = 0.0;             // the camera turns, capture pixels per second to the right
  double exposure_drift = 0.0;  // auto exposure: the gain wanders by up to this share
  double pwm_hz = 0.0;          // a PWM-dimmed backlight's frequency; 0: steady
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
  double occluded = 0.0;  // share of the screen behind something in front of it
  double in_view = 1.0;   // share of the screen inside the capture
  bool mixed() const { return ref_frames.size() > 1; }
};

// The reference video: `count` frames of a slow pan over one wide picture
// (or, `content` "small", one picture with a moving cursor), with
// `letterbox` dark rows top and bottom.
std::vector<cv::Mat> make_reference_video(int width, int height, std::uint64_t seed, int count, double motion,
                                          const std::string& content = "pan", int letterbox = 0);

// Films `reference` (its frames as the screen shows them) and hands each
// captured frame (8-bit grey, capture size) with its truth to `take`.
void film(const std::vector<cv::Mat>& reference, const CaptureSettings& camera, const VideoSettings& video,
          const std::function<void(const cv::Mat&, const FrameTruth&)>& take);
