// What a search is asked for beyond its attempts, and what it reports.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "framealign/framealign.h"

namespace framealign {

// Features of OpenCV's plain SIFT (default settings), for the quick path.
struct QuickFeatures {
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;
};
QuickFeatures quick_features(const cv::Mat& picture);

// What a search is asked for beyond its attempts.
struct SearchRequest {
  // Refine each successful attempt's geometry below a pixel before its slot
  // is warped (the scores stay the search's), and estimate its error.
  bool refine = false;
  // Try the quick path first (implies `refine`): one plain SIFT pass over a
  // reduced copy of the input, verified (strong, spread, consistent matches,
  // a plausible view, an estimated error of at most 1 px) or else replaced
  // by the search, which then runs exactly as with `refine` alone. A
  // verified quick answer fills slot 0 and its enhanced copy.
  bool fast = false;
  // The reference's quick features, when the caller keeps them; computed per
  // call otherwise.
  const QuickFeatures* quick_reference = nullptr;
  // Set by another thread to stop the search: it is checked before every
  // stage, which then throws Cancelled.
  const std::atomic<bool>* stop = nullptr;
};

// Throws Cancelled when `stop` is set.
void stop_if_asked(const std::atomic<bool>* stop);

// What a search found beyond its slots.
struct SearchReport {
  std::string path;            // with `fast`: "fast" or "full"
  std::vector<double> scores;  // the successful attempts, slots 0..k-1, lower is better
  // With `refine`: per slot 0..k-1, the estimated largest corner error in
  // reference pixels (+inf when the matches were too few to tell), and
  // whether the refined geometry replaced the search's.
  std::vector<double> est_error_px;
  std::vector<bool> refined;
  // With `refine`: per slot 0..k-1, the mapping its frame was warped by.
  std::vector<Mapping> mappings;
};

}  // namespace framealign
