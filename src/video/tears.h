// Where on a mixed frame each reference frame is seen. A rolling shutter
// reads the capture row after row, so the screen's change from one frame
// to the next lies along a capture row; rows exposed while it changed show
// a blend of both, the later frame's share rising along the rows as a ramp.
// Each change is fitted as such a ramp on the aligned frame, in capture
// rows (the change is a straight line across the aligned frame, tilted as
// the camera was), against the two frames' pictures.
//
// Where the video pans, the next frame is the last one shifted, and a
// blend of the two looks much like a shift: a geometry a tenth of a pixel
// off reads as a share of the next frame several hundredths off. On a
// narrow ramp that moves its middle by a row or so; on a broad one (a short
// readout under a long exposure) by tens of rows (bench/RESULTS.md).
#pragma once

#include <array>
#include <functional>
#include <vector>

#include <opencv2/core.hpp>

#include "framealign/video.h"
#include "video/identify.h"

namespace framealign {

// One change of the screen's picture, in capture rows: the later frame's
// share is one half at `centre` and rises over `width` rows, downwards
// through the capture when `later_below`, upwards otherwise.
struct Tear {
  int earlier = 0, later = 0;
  double centre = 0.0, width = 1.0;
  bool later_below = true;
};

struct ShownModel {
  std::vector<int> frames;                      // in the screen's order, each once
  std::vector<Tear> tears;                      // tears[k] between frames[k] and frames[k + 1]
  cv::Matx33d to_capture = cv::Matx33d::eye();  // aligned-frame pixel to capture point
  int width = 0, height = 0;

  // Each frame's share of the light at capture row `row` (frames' order),
  // into `share` (resized to the frames).
  void shares(double row, std::vector<double>& share) const;
  double capture_row(double x, double y) const;
};

// The tears of a frame showing `identity`, aligned through `corners`;
// `plane(n)` gives reference frame n. A frame showing one frame has none.
ShownModel fit_tears(const cv::Mat& aligned, const Identity& identity,
                     const std::array<double, 8>& corners,
                     const std::function<cv::Mat(int)>& plane);

// The aligned-frame rows, at its middle column, where the picture changes
// from one frame to the next, top to bottom.
std::vector<double> tear_rows(const ShownModel& model);

// The aligned frame's rows in bands that show the same frames in the same
// shares (to a twentieth), at its middle column.
std::vector<ShownRows> shown_rows(const ShownModel& model);

// The reference as the camera saw it: each pixel the blend of the frames
// its capture row shows.
cv::Mat shown_picture(const ShownModel& model, const std::function<cv::Mat(int)>& plane);

}  // namespace framealign
