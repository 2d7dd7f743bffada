// What a result keeps beyond its public fields, for save() and to_bytes().
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "align/alignment_driver.h"
#include "align/slots.h"
#include "framealign/framealign.h"

namespace framealign {

struct AlignResult::Files {
  cv::Mat capture;  // the capture as aligned, for the previews
  SlotSet slots;
  int width = 0;
  int height = 0;
  bool jpeg_output = false;
};

// The plan align() follows for `options` (a reference is always there).
Plan plan_of(const AlignOptions& options);

// The result of `alignment`, filled for `input` (what align() returns).
AlignResult result_of(const Alignment& alignment, const cv::Mat& input, int width, int height,
                      const AlignOptions& options);

}  // namespace framealign
