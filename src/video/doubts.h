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

// The reasons, "; "-separated; empty when there are none. `aligned` is the
// frame's aligned picture, `frame.shown` what it should show.
std::string doubts(const VideoFrame& frame, const cv::Mat& aligned, const Identity& identity);

}  // namespace framealign
