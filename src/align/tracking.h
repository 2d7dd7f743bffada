// Tracking: a frame of a filmed screen aligned from where the screen lay in
// the frame before, verified as the quick path is.
#pragma once

#include <optional>
#include <vector>

#include <opencv2/core.hpp>

#include "align/refinement.h"
#include "align/slots.h"
#include "align/verification.h"

namespace framealign {

// Points of `reference` (CV_8UC1) that tracking follows: corners spread over
// the frame.
std::vector<cv::Point2f> track_points(const cv::Mat& reference);

// Points of a reference frame to follow into a frame of a filmed screen.
// A frame read while the screen changed shows different reference frames
// in different bands; each band's points are followed against its own.
struct TrackGroup {
  cv::Mat reference;  // CV_8UC1, the frame's size
  std::vector<cv::Point2f> points;
};

// What a tracked frame must show to be taken (pairs followed and kept by
// the refinement, the refinement's estimate of its error over the whole
// frame in pixels), and pairs known besides those it follows (`anchors`,
// in the frame the seed warps to, as the followed pairs are).
struct TrackTerms {
  Acceptance acceptance;
  PointPairs anchors;
};

// A frame of a filmed screen aligned from `seed`, the corners of the frame
// before: the capture warped by them, each group's points followed into it
// by Lucas-Kanade against the group's reference, the refinement over all
// the pairs that come back. The first group's reference sets the exposure.
// The slot only when verified as the quick path's is (verified_slot, within
// `terms`); none otherwise.
std::optional<Slot> tracked_rectified_img(const cv::Mat& image,
                                          const std::vector<TrackGroup>& groups, const double* seed,
                                          const TrackTerms& terms);

}  // namespace framealign
