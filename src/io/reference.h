// What a framealign::Reference holds: a reference frame made ready for many
// alignments, its plane and its features taken once.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/align.h"
#include "align/quick_path.h"
#include "framealign/framealign.h"

struct framealign::Reference::Data {
  cv::Mat plane;  // CV_8UC1, height x width; zeros when only features are known
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;

  // The quick path's features of the plane, computed by the first caller.
  const QuickFeatures& quick() const;

 private:
  mutable std::once_flag quick_once_;
  mutable QuickFeatures quick_;
};

namespace framealign {

// Loads the features of a width x height reference from the feature cache
// file `cache` into `data`. False when there is no cache; throws Error when
// it is damaged, or when it cannot belong to the frame: keypoints outside
// it, or none beyond 60% of its width or height (made for another size).
bool load_reference_features(const std::string& cache, int width, int height,
                             Reference::Data& data);

// A load callback that answers the reference's entry (null name) with its
// features and hands named entries (the capture's) to `captures`, if any.
FeatureLoadCallback reference_loader(const Reference::Data& reference,
                                     const FeatureLoadCallback& captures);

}  // namespace framealign
