#include "align/matching.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <stdexcept>

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/refinement.h"

namespace framealign {

bool by_distance(const cv::DMatch& a, const cv::DMatch& b) { return a.distance < b.distance; }

std::vector<cv::DMatch> ratio_test_matches(const cv::Mat& refDescriptors,
                                           const cv::Mat& inputDescriptors) {
  if (inputDescriptors.empty() && !refDescriptors.empty()) {
    // FLANN cannot index an empty set; say what that means for the user.
    throw std::runtime_error("No features found to match against (a featureless picture?)");
  }
  // A fresh matcher per call: its randomised k-d trees are never shared
  // between threads.
  cv::FlannBasedMatcher matcher(cv::makePtr<cv::flann::KDTreeIndexParams>(4),
                                cv::makePtr<cv::flann::SearchParams>(32, 0.0f, true));
  std::vector<std::vector<cv::DMatch>> knn;
  matcher.knnMatch(refDescriptors, inputDescriptors, knn, 2, cv::noArray(), false);
  std::vector<cv::DMatch> kept;
  for (const std::vector<cv::DMatch>& candidates : knn) {
    if (candidates.size() >= 2 && 0.78f * candidates[1].distance > candidates[0].distance) {
      kept.push_back(candidates[0]);
    }
  }
  return kept;
}

std::vector<cv::DMatch> select_best_matches(const std::vector<cv::DMatch>& matches, float q,
                                            const std::vector<cv::KeyPoint>& refKeypoints,
                                            const std::vector<cv::KeyPoint>& inputKeypoints) {
  if (matches.empty()) return {};
  const size_t n = matches.size();
  std::vector<float> ref_size(n), input_size(n), ref_response(n), input_response(n);
  for (size_t i = 0; i < n; ++i) {
    const cv::KeyPoint& r = refKeypoints[matches[i].queryIdx];
    const cv::KeyPoint& in = inputKeypoints[matches[i].trainIdx];
    ref_size[i] = r.size;
    input_size[i] = in.size;
    ref_response[i] = r.response;
    input_response[i] = in.response;
  }
  const float q_ref_size = calculate_quantile(ref_size, q);
  const float q_input_size = calculate_quantile(input_size, q);
  const float q_ref_response = calculate_quantile(ref_response, q);
  const float q_input_response = calculate_quantile(input_response, q);

  std::vector<cv::DMatch> kept;
  for (size_t i = 0; i < n; ++i) {
    if ((input_size[i] > q_input_size && ref_size[i] > q_ref_size) ||
        (ref_response[i] > q_ref_response && input_response[i] > q_input_response)) {
      kept.push_back(matches[i]);
    }
  }
  return kept;
}

cv::Mat get_homography_pts(const std::vector<cv::DMatch>& matches,
                           const std::vector<cv::KeyPoint>& refKeypoints,
                           const std::vector<cv::KeyPoint>& inputKeypoints,
                           const double* refCorners, double* inputCorners) {
  std::vector<cv::Point2f> ref_points, input_points;
  ref_points.reserve(matches.size());
  input_points.reserve(matches.size());
  for (const cv::DMatch& m : matches) {
    ref_points.push_back(refKeypoints[m.queryIdx].pt);
    input_points.push_back(inputKeypoints[m.trainIdx].pt);
  }
  try {
    cv::Mat input_to_ref =
        cv::findHomography(input_points, ref_points, cv::RHO, 10.0, cv::noArray(), 2000, 0.995);
    // Fitted separately rather than inverted: RHO's answer differs per direction.
    const cv::Mat ref_to_input =
        cv::findHomography(ref_points, input_points, cv::RHO, 10.0, cv::noArray(), 2000, 0.995);
    std::vector<cv::Point2f> projected;
    cv::perspectiveTransform(corner_points(refCorners), projected, ref_to_input);
    for (int i = 0; i < 4; ++i) {
      inputCorners[2 * i] = projected[i].x;
      inputCorners[2 * i + 1] = projected[i].y;
    }
    return input_to_ref;
  } catch (const std::exception&) {
    return cv::Mat();
  }
}

std::vector<cv::DMatch> inspect_matches(const std::vector<cv::DMatch>& matches,
                                        const std::vector<cv::KeyPoint>& refKeypoints,
                                        const std::vector<cv::KeyPoint>& inputKeypoints,
                                        int width, int height, const double* refCorners,
                                        double& score) {
  // Spread the selection over the frame: a 6 x 3 grid, and in each cell the
  // strongest few matches, relaxing the quantile until more than 4 survive.
  const float cell_width = static_cast<float>(width) / 6.0f;
  const float cell_height = static_cast<float>(height) / 3.0f;
  std::vector<cv::DMatch> selection;
  std::vector<cv::DMatch> cell;
  for (int r = 0; r < 3; ++r) {
    const float top = r * cell_height;
    const float bottom = (r + 1) * cell_height;
    for (int c = 0; c < 6; ++c) {
      const float left = c * cell_width;
      const float right = (c + 1) * cell_width;
      cell.clear();
      for (const cv::DMatch& m : matches) {
        const cv::Point2f& p = refKeypoints[m.queryIdx].pt;
        if (p.x > left && p.x < right && p.y > top && p.y < bottom) cell.push_back(m);
      }
      std::vector<cv::DMatch> chosen;
      float q = 0.95f;
      for (int attempt = 0; attempt < 14; ++attempt) {
        chosen = select_best_matches(cell, q, refKeypoints, inputKeypoints);
        if (chosen.size() > 4) break;
        q -= 0.05f;
      }
      selection.insert(selection.end(), chosen.begin(), chosen.end());
    }
  }
  // RHO samples the best-ranked matches first.
  std::sort(selection.begin(), selection.end(), by_distance);

  double projected[8] = {};
  cv::Mat to_reference;
  try {
    get_homography_pts(selection, refKeypoints, inputKeypoints, refCorners, projected);
    to_reference = cv::getPerspectiveTransform(corner_points(projected),
                                               corner_points(refCorners), cv::DECOMP_LU);
  } catch (const std::exception&) {
    return {};
  }

  std::vector<cv::Point2f> input_points;
  input_points.reserve(selection.size());
  for (const cv::DMatch& m : selection) input_points.push_back(inputKeypoints[m.trainIdx].pt);
  std::vector<cv::Point2f> mapped;
  if (!input_points.empty()) cv::perspectiveTransform(input_points, mapped, to_reference);

  std::vector<cv::DMatch> inliers;
  std::vector<cv::Point2f> hull_points;
  for (size_t i = 0; i < selection.size(); ++i) {
    const cv::Point2f& ref = refKeypoints[selection[i].queryIdx].pt;
    const float dx = mapped[i].x - ref.x;
    const float dy = mapped[i].y - ref.y;
    const double d = std::sqrt(static_cast<double>(dx) * dx + static_cast<double>(dy) * dy);
    if (d < 100.0) {
      inliers.push_back(selection[i]);
      hull_points.push_back(input_points[i]);
    }
  }
  const double area = calculateConvexHullArea(hull_points);
  score = match_term(static_cast<double>(inliers.size()) * area);
  return inliers;
}

std::vector<cv::DMatch> calculateMatches(
    const cv::Mat& inputImage, const cv::Mat& /*secondImage*/, int width, int height, int type,
    const double (&refCorners)[8], const char* /*name*/, const cv::Mat& refDescriptors,
    const std::vector<cv::KeyPoint>& refKeypoints, cv::Mat& inputDescriptors,
    std::vector<cv::KeyPoint>& inputKeypoints, const FeatureLoadCallback& load,
    const FeatureSaveCallback& save, double& score, bool affine) {
  get_keypoints_descriptors_cpy(inputImage, inputKeypoints, inputDescriptors,
                                static_cast<PreprocessingType>(type), load, save, affine);
  return match_features(width, height, refCorners, refDescriptors, refKeypoints,
                        inputDescriptors, inputKeypoints, score);
}

std::vector<cv::DMatch> match_features(int width, int height, const double* refCorners,
                                       const cv::Mat& refDescriptors,
                                       const std::vector<cv::KeyPoint>& refKeypoints,
                                       const cv::Mat& inputDescriptors,
                                       const std::vector<cv::KeyPoint>& inputKeypoints,
                                       double& score, std::vector<cv::DMatch>* all) {
  std::vector<cv::DMatch> matches = ratio_test_matches(refDescriptors, inputDescriptors);
  // RHO samples the best-ranked matches first.
  std::sort(matches.begin(), matches.end(), by_distance);
  std::vector<cv::DMatch> selected =
      inspect_matches(matches, refKeypoints, inputKeypoints, width, height, refCorners, score);
  if (all != nullptr) *all = std::move(matches);
  return selected;
}

PointPairs matched_points(const std::vector<cv::DMatch>& matches, const std::vector<cv::KeyPoint>& refKeypoints,
                          const std::vector<cv::KeyPoint>& inputKeypoints) {
  PointPairs pairs;
  pairs.input.reserve(matches.size());
  pairs.reference.reserve(matches.size());
  for (const cv::DMatch& m : matches) {
    pairs.input.emplace_back(inputKeypoints[m.trainIdx].pt);
    pairs.reference.emplace_back(refKeypoints[m.queryIdx].pt);
  }
  return pairs;
}

}  // namespace framealign
