// The screen's edges: where the frame's content meets the bezel around it.
// They stay where they are while the video's content moves, so they tell
// where the screen lies when its content cannot: a frame read while the
// screen changed shows two frames of a pan, and a geometry fitted to its
// content shears to fit both.
#pragma once

#include <array>
#include <optional>

#include <opencv2/core.hpp>

namespace framealign {

// The corners of a width x height frame (as AlignResult::corners orders
// them) whose outline lies on the four edges seen in `capture` (CV_8UC1)
// within a few pixels of the screen at `near`. None when an edge is not
// seen along enough of its length: content as dark as the bezel, a screen
// partly outside the capture, or no bezel at all.
std::optional<std::array<double, 8>> corners_from_edges(const cv::Mat& capture,
                                                        const std::array<double, 8>& near,
                                                        int width, int height);

// The largest distance, in pixels, between two sets of corners.
double corners_apart(const std::array<double, 8>& a, const std::array<double, 8>& b);

}  // namespace framealign
