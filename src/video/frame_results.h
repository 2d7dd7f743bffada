// Results of a filmed screen's frames made without a search: tracked from
// the frame before, or nothing shown of the reference frames given.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/tracking.h"
#include "framealign/framealign.h"

namespace framealign {

// A frame of a filmed screen aligned by tracking from `seed` (see
// tracked_rectified_img) against the groups' reference frames: a result as
// the quick path gives it, with path "tracked"; none when not verified.
std::optional<AlignResult> track(const cv::Mat& capture, const std::vector<TrackGroup>& groups,
                                 const std::array<double, 8>& seed, const AlignOptions& options,
                                 const TrackTerms& terms = TrackTerms());

// What a search that found nothing gives for `capture` against a width x
// height reference, with the reason.
AlignResult not_found_result(const cv::Mat& capture, int width, int height,
                             const AlignOptions& options, const std::string& reason);

}  // namespace framealign
