// The screen's edges: where the frame's content meets the bezel around it.
// They stay where they are while the video's content moves, so they tell
// where the screen lies when its content cannot: a frame read while the
// screen changed shows two frames of a pan, and a geometry fitted to its
// content shears to fit both.
#pragma once

#include <array>
#include <optional>

#include <opencv2/core.hpp>

#include "align/refinement.h"
#include "align/tracking.h"

namespace framealign {

struct ScreenEdges {
  // The corners of the frame (as AlignResult::corners orders them) whose
  // outline lies on the four edges.
  std::array<double, 8> corners;
  // The edges' points as pairs: where each lies in the frame the capture
  // warped by `corners` gives, and the point of the outline it shows
  // (tracked_rectified_img's pairs, for a frame tracked from `corners`).
  PointPairs anchors;
};

// The screen's edges seen in `capture` (CV_8UC1) within a few pixels of the
// screen at `near`, for a width x height frame. None when an edge is not
// seen along enough of its length: content as dark as the bezel, a screen
// partly outside the capture, or no bezel at all.
std::optional<ScreenEdges> screen_edges(const cv::Mat& capture, const std::array<double, 8>& near,
                                        int width, int height);

// The largest distance, in pixels, between two sets of corners.
double corners_apart(const std::array<double, 8>& a, const std::array<double, 8>& b);

}  // namespace framealign
