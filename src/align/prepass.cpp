// The advanced pre-pass: plain, affine and mirrored trials on small copies
// of both pictures decide how the search's full-size attempts match.
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/matching.h"
#include "align/search.h"

namespace framealign {

MatchingMode choose_matching_mode(const cv::Mat& image, const cv::Mat& reference) {
  // On small copies of both pictures, try plain SIFT, affine SIFT and plain
  // SIFT on the mirrored input; a trial that finds far more matches than the
  // kept one decides how the full-size attempts run.
  const int width = reference.cols;
  const int height = reference.rows;
  if (height <= 0) throw std::invalid_argument("reference height must be positive");
  const int small_height = 3 * height < 720 ? (3 * height) / 2 : 360;
  const int small_width = static_cast<int>(static_cast<long long>(width) * small_height / height);
  cv::Mat small_ref, small_input;
  cv::resize(reference, small_ref, cv::Size(small_width, small_height), 0, 0, cv::INTER_LINEAR);
  cv::resize(image, small_input, cv::Size(small_width, small_height), 0, 0, cv::INTER_LINEAR);
  std::vector<cv::KeyPoint> small_ref_keypoints;
  cv::Mat small_ref_descriptors;
  SIFTdetectAndCompute(small_ref, small_ref_keypoints, small_ref_descriptors, false);
  double small_corners[8];
  frame_corners(small_width, small_height, small_corners);

  MatchingMode mode;
  std::size_t kept = 0;
  // The trials run one after another on this thread, so trials 1 and 2
  // continue the generator sequence that trial 0 left, as FLANN draws it.
  cv::theRNG() = cv::RNG();  // a fresh generator, as every search attempt starts from
  for (int trial = 0; trial < 3; ++trial) {
    if (trial == 2) cv::flip(small_input, small_input, 1);
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
    double ignored_score = 1.0;
    const std::size_t found =
        calculateMatches(small_input, small_ref, small_width, small_height, GAUSSIAN_BLUR,
                         small_corners, nullptr, small_ref_descriptors, small_ref_keypoints,
                         descriptors, keypoints, nullptr, nullptr, ignored_score, trial == 1)
            .size();
    mode.trial_matches[trial] = found;
    if (trial == 0) {
      kept = found;
    } else if (found > 10 && found > 2 * kept) {
      kept = found;
      mode.affine = trial == 1;
      mode.mirror = trial == 2;
    }
  }
  return mode;
}

}  // namespace framealign
