// Scoring: an aligned frame matched afresh with the reference, and the
// rectification score of those matches.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

namespace framealign {

// Fresh SIFT features of an aligned plane and their ratio-test matches with
// the reference's, best first.
struct RectifiedMatches {
  std::vector<cv::KeyPoint> keypoints;
  std::vector<cv::DMatch> matches;
};
RectifiedMatches match_rectified(const unsigned char* rectified, const cv::Mat& refDescriptors,
                                 int width, int height);

// get_rectification_score's result from matches already made.
double rectification_score(const RectifiedMatches& rectified,
                           const std::vector<cv::KeyPoint>& refKeypoints);

}  // namespace framealign
