// Which frame a screen found from scratch shows, when the reference video
// moves (a pan). A search against frame j of a capture showing frame k
// finds the screen where frame j's content lies: shifted by the video's
// motion from j to k. Inside the screen every such answer looks right;
// only the screen's edges tell, where the shifted answer takes in the
// bezel or the room beside it.
#pragma once

#include <array>
#include <optional>
#include <vector>

#include <opencv2/core.hpp>

namespace framealign {

// The corners the screen has if it shows frame `to`, given the corners
// `found` against frame `from` (its planes and `from`'s track points):
// moved by the video's own motion between the two frames. None when that
// motion cannot be followed.
std::optional<std::array<double, 8>> moved_corners(const cv::Mat& from, const cv::Mat& to,
                                                   const std::vector<cv::Point2f>& from_points,
                                                   const std::array<double, 8>& found);

// How well the capture, warped by `corners`, matches `plane` along the
// frame's edges (a band a few percent wide on each side): the
// correlation, 1 at best.
double edge_agreement(const cv::Mat& capture, const std::array<double, 8>& corners,
                      const cv::Mat& plane);

}  // namespace framealign
