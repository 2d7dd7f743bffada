// How well an aligned frame lines up with the reference.
#include "align/scoring.h"

#include <algorithm>
#include <cmath>

#include "align/align.h"
#include "align/matching.h"

namespace framealign {

RectifiedMatches match_rectified(const unsigned char* rectified, const cv::Mat& refDescriptors,
                                 int width, int height) {
  const cv::Mat plane(height, width, CV_8UC1, const_cast<unsigned char*>(rectified));
  RectifiedMatches out;
  cv::Mat descriptors;
  SIFTdetectAndCompute(plane, out.keypoints, descriptors, false);
  out.matches = ratio_test_matches(refDescriptors, descriptors);
  std::sort(out.matches.begin(), out.matches.end(), by_distance);
  return out;
}

double rectification_score(const RectifiedMatches& rectified,
                           const std::vector<cv::KeyPoint>& refKeypoints) {
  const std::vector<cv::DMatch>& matches = rectified.matches;
  if (matches.size() <= 9) return kFailedScore;
  std::vector<double> displacements;
  displacements.reserve(matches.size());
  for (const cv::DMatch& m : matches) {
    const float dx = rectified.keypoints[m.trainIdx].pt.x - refKeypoints[m.queryIdx].pt.x;
    const float dy = rectified.keypoints[m.trainIdx].pt.y - refKeypoints[m.queryIdx].pt.y;
    displacements.push_back(std::sqrt(dx * dx + dy * dy));
  }
  const double median = quantile(displacements, 0.5);  // sorts ascending
  double sum = 0.0;
  int count = 0;
  for (double d : displacements) {
    if (d >= median) break;
    sum += d;
    ++count;
  }
  // A perfect copy has median 0 and so nothing below it: it scores as a failure.
  if (count == 0) return kFailedScore;
  return sum / count;
}

double get_rectification_score(const unsigned char* rectified,
                               const std::vector<cv::KeyPoint>& refKeypoints,
                               const cv::Mat& refDescriptors, int width, int height) {
  return rectification_score(match_rectified(rectified, refDescriptors, width, height),
                             refKeypoints);
}

}  // namespace framealign
