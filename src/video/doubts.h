// Why a filmed screen's answer may be wrong although it was found: the
// screen partly outside the capture, something in front of it, frames it
// cannot tell apart, corners whose estimate is over a pixel. A frame with
// any of these is flagged unsure with the reasons, its answer kept.
#pragma once

#include <string>

#include <opencv2/core.hpp>

#include "framealign/video.h"
#include "video/identify.h"

namespace framealign {

// The reason that starts every doubt about the corners themselves.
constexpr const char* kCornersUncertain = "corners uncertain";

struct Doubts {
  std::string reasons;  // "; "-separated; empty when there are none
  // The corners themselves are in doubt: the next frame is not tracked
  // from them (a tracked frame would carry their error on, and verify it).
  bool corners = false;
};

// Why `frame` may be wrong. `aligned` is its aligned picture, `frame.shown`
// what it should show, `pixel` the capture's pixel in reference pixels (an
// estimate up to it is as good as the capture allows: said, still followed).
Doubts doubts(const VideoFrame& frame, const cv::Mat& aligned, const Identity& identity,
              double pixel);

// Whether `reasons` (Doubts::reasons) put the corners in doubt.
bool corners_in_doubt(const std::string& reasons);

}  // namespace framealign
