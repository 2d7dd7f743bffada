// Synthetic camera captures of a reference frame, for demos, tests and
// benchmarks: the frame on a screen with a bezel, inside a background scene,
// seen through a seeded random perspective, with camera effects.
#pragma once

#include <cstdint>
#include <string>

#include <opencv2/core.hpp>

struct CaptureSettings {
  int capture_width = 3000;
  int capture_height = 2000;
  std::uint64_t seed = 1;
  double screen_scale = 0.7;   // screen width as a share of the capture width
  double perspective = 0.06;   // largest corner displacement, share of the screen size
  double blur = 0.8;           // Gaussian sigma in capture pixels; 0: none
  double noise = 2.0;          // sensor noise sigma in grey levels; 0: none
  double gamma = 1.0;          // output = input^gamma
  double brightness = 1.0;     // gain
  double vignette = 0.25;      // darkening at the corners, 0..1
  double moire = 0.0;          // amplitude of a moire pattern on the screen, 0..1
  bool mirror = false;         // mirror the capture left-right
  // Barrel distortion of the lens, about the capture's centre: a point at
  // distorted radius r (in units of half the capture's diagonal) shows the
  // scene at radius r / (1 - barrel * r^2). 0: an ideal lens.
  double barrel = 0.0;
  // The screen around the frame: a bezel of this grey, a fortieth of the
  // frame's width wide (none with `bezel` false), and `bars` more columns
  // of it left and right (a pillarboxed picture).
  int bezel_grey = 18;
  bool bezel = true;
  int bars = 0;
};

struct Capture {
  cv::Mat picture;   // 8-bit grey, capture_width x capture_height
  double corners[8]; // reference corners TL TR BL BR in the capture before any mirroring
  cv::Matx33d frame_to_scene;  // reference pixels to the capture before the lens bends it
  CaptureSettings settings;

  // Where reference point p lies in the capture (before any mirroring).
  cv::Point2d seen_at(const cv::Point2d& p) const;
};

// The lens: where a scene point lies in the capture, and the scene point a
// capture point shows.
cv::Point2d lens_distort(const CaptureSettings& s, const cv::Point2d& scene);
cv::Point2d lens_undistort(const CaptureSettings& s, const cv::Point2d& captured);

// A built-in reference frame: gradients, shapes, lines and text on a
// textured ground; the same seed gives the same frame. With `shapes_seed`
// the ground is seed's and the shapes come from shapes_seed: another frame
// of the same video, as far as a matcher can tell.
cv::Mat make_reference_frame(int width, int height, std::uint64_t seed);
cv::Mat make_reference_frame(int width, int height, std::uint64_t seed, std::uint64_t shapes_seed);

// Renders `frame` as seen by a camera.
Capture render_capture(const cv::Mat& frame, const CaptureSettings& settings);

// render_capture in its three steps, for captures of a moving picture: the
// fixed stage (where the screen of a frame of `frame` size stands, the
// scene behind it), the light reaching the sensor with the frame on the
// screen and the camera moved by `drift` (a homography of the capture),
// and the picture the camera makes of it. `rng` is drawn from in this order.
struct Stage {
  cv::Mat scene;                  // 8-bit grey, capture size, without the screen
  cv::Matx33d screen_to_capture;  // the screen (frame and bezel) into the capture
  int bezel = 0;                  // above and below the frame
  int side = 0;                   // left and right of it
  cv::Size screen;
  cv::Matx33d frame_in_screen() const { return {1, 0, double(side), 0, 1, double(bezel), 0, 0, 1}; }
};
Stage make_stage(cv::Size frame, const CaptureSettings& s, cv::RNG& rng);
cv::Mat optical_image(const cv::Mat& frame, const Stage& stage, const cv::Matx33d& drift,
                      const CaptureSettings& s);
// Where the frame's corners land in the capture for a screen moved by drift
// (the picture left empty).
Capture placed(cv::Size frame, const Stage& stage, const cv::Matx33d& drift, const CaptureSettings& s);
Capture develop(const cv::Mat& optical, cv::Size frame, const Stage& stage, const cv::Matx33d& drift,
                const CaptureSettings& s, cv::RNG& rng);

// Where four true corners and four found corners differ, in reference
// pixels: the found corners are mapped into the reference frame through the
// true perspective and compared with the frame's corners.
struct CornerError {
  double mean;
  double max;
};
CornerError corner_error(const double* truth, const double* found, int width, int height);

// Writes `luma` (8-bit grey, continuous) as one raw 4:2:0 frame with grey
// chroma, the form framealign reads references in. False when it cannot.
bool write_yuv420(const std::string& path, const cv::Mat& luma);
