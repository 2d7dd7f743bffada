// What a result keeps beyond its public fields, for save() and to_bytes().
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "align/internal.h"
#include "framealign/framealign.h"

namespace framealign {

struct AlignResult::Files {
  cv::Mat capture;  // the capture as aligned, for the previews
  std::vector<cv::Mat> frames;
  double pts[kSlots][8];
  double content_pts[kSlots][20];
  int width = 0;
  int height = 0;
  bool jpeg_output = false;
  std::vector<Mapping> mappings;  // with refine: slot i's is mappings[i % k]
};

}  // namespace framealign
