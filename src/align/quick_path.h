// The quick path: one cheap feature pass over a reduced copy of the capture,
// verified before it is taken; the search runs when it is not.
#pragma once

#include <optional>
#include <vector>

#include <opencv2/core.hpp>

#include "align/slots.h"
#include "align/verification.h"

namespace framealign {

// Features of OpenCV's plain SIFT (default settings), for the quick path.
struct QuickFeatures {
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;
};
QuickFeatures quick_features(const cv::Mat& picture);

// The quick path on one capture (the caller's picture, not changed): plain
// SIFT of a copy reduced to about the reference's width, ratio-test matches
// with the reference's quick features, RANSAC, the frame warped by the
// corners, the aligned frame matched with the reference's tuned features
// (`ref_keypoints`, `ref_descriptors`), refinement. The slot (frame,
// corners, content polygon, score, estimate, the mapping it was warped by)
// only when the answer is verified (verified_slot); otherwise the reason.
VerifiedAttempt quick_rectified_img(const cv::Mat& image, const cv::Mat& reference,
                                    const QuickFeatures& reference_quick,
                                    const std::vector<cv::KeyPoint>& ref_keypoints,
                                    const cv::Mat& ref_descriptors);

}  // namespace framealign
