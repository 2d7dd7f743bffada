// Matching: ratio-test matches of two feature sets, the matching half of
// calculateMatches.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

namespace framealign {

// The nearest two input descriptors of every reference descriptor (FLANN,
// 4 randomised k-d trees, 32 checks); keeps the nearest where
// 0.78 * second > first, in reference order. FLANN draws its trees from
// cv::theRNG() of the calling thread. Throws std::runtime_error when there
// is no input descriptor to match against.
std::vector<cv::DMatch> ratio_test_matches(const cv::Mat& refDescriptors,
                                           const cv::Mat& inputDescriptors);

// Orders matches by descriptor distance, best first.
bool by_distance(const cv::DMatch& a, const cv::DMatch& b);

// The matching half of calculateMatches, on features already extracted.
// `all`, when given, receives every ratio-test match, best first.
std::vector<cv::DMatch> match_features(int width, int height, const double* refCorners,
                                       const cv::Mat& refDescriptors,
                                       const std::vector<cv::KeyPoint>& refKeypoints,
                                       const cv::Mat& inputDescriptors,
                                       const std::vector<cv::KeyPoint>& inputKeypoints,
                                       double& score, std::vector<cv::DMatch>* all = nullptr);

}  // namespace framealign
