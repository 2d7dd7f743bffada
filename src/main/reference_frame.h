// A reference frame made ready for many alignments: its plane and its
// features, taken once. Used by the programs that align more than one
// capture against the same frame.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/align.h"

struct PreparedReference {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> plane;  // zeros when the file does not exist, as framealign has it
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;
  std::string error;  // not empty: no alignment can run against it, and why
};

// Reads frame `frame_number` of the raw file `path` when it exists and takes
// the features from its feature cache, or computes them and stores the
// cache, as framealign does. A cache whose keypoints lie outside the frame
// was made for another size: an error, as is a missing file without a cache.
PreparedReference prepare_reference(const std::string& path, int width, int height,
                                    int frame_number);

// Loads the features of `reference` (its width and height set) from the
// feature cache file `cache`. False when there is no readable cache; true
// with `error` set when the keypoints lie outside the frame.
bool load_reference_features(const std::string& cache, PreparedReference& reference);

// A load callback that answers the reference's entry (null name) with its
// features and hands named entries (the capture's) to `captures`, if any.
FeatureLoadCallback reference_loader(const PreparedReference& reference,
                                     const FeatureLoadCallback& captures);
