// Rough corners as a start: a hint (clicked by hand, a few percent of the
// screen's size off) says where the screen is; the features are matched
// there only, the geometry is refined below a pixel and verified as the
// quick path's answer is.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/slots.h"
#include "align/verification.h"

namespace framealign {

// Where the reference (with its tuned features `ref_keypoints`,
// `ref_descriptors`) lies in `image`, started from `hint` (corners in the
// capture, Z order). The capture is warped by the hint, the warped frame
// matched with the reference, the hint corrected by what the matches say
// (twice), and the correction refined and verified.
VerifiedAttempt hinted_slot(const cv::Mat& image, const std::array<double, 8>& hint,
                            const cv::Mat& reference,
                            const std::vector<cv::KeyPoint>& ref_keypoints,
                            const cv::Mat& ref_descriptors);

// The slot of a hint that was not verified: the capture warped by the
// hint's corners as given, scored as a failed attempt.
Slot unverified_hint_slot(const cv::Mat& image, const std::array<double, 8>& hint, int width,
                          int height);

}  // namespace framealign
