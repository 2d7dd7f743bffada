// What a result keeps beyond its public fields, for save() and to_bytes().
#pragma once

#include <array>
#include <optional>
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

// The result of `slots`, filled for `input` (what align() returns).
AlignResult result_of(const AlignmentSlots& slots, const cv::Mat& input, int width, int height,
                      const AlignOptions& options);

// A frame of a filmed screen aligned by tracking from `seed` (see
// tracked_rectified_img) against the groups' reference frames: a result as
// the quick path gives it, with path "tracked"; none when not verified.
std::optional<AlignResult> track(const cv::Mat& capture, const std::vector<TrackGroup>& groups,
                                 const std::array<double, 8>& seed, const AlignOptions& options,
                                 const TrackTerms& terms = TrackTerms());

// What a search that found nothing gives for `capture` against a width x
// height reference.
AlignResult not_found_result(const cv::Mat& capture, int width, int height,
                             const AlignOptions& options);

}  // namespace framealign
