// Results of a filmed screen's frames made without a search: tracked from
// the frame before, or nothing shown of the reference frames given.
#include <cstring>

#include "align/internal.h"
#include "api/as_error.h"
#include "api/result_files.h"

namespace framealign {

namespace {

AlignmentSlots empty_slots(int width, int height, int count) {
  AlignmentSlots slots;
  slots.mode = AlignmentMode::SEARCH;
  std::fill(&slots.content_pts[0][0], &slots.content_pts[0][0] + kSlots * 20, -1.0);
  for (int i = 0; i < count; ++i) {
    slots.storage.push_back(cv::Mat::zeros(height, width, CV_8UC1));
    slots.aligned[i] = slots.storage.back().data;
  }
  return slots;
}

}  // namespace

std::optional<AlignResult> track(const cv::Mat& capture, const std::vector<TrackGroup>& groups,
                                 const std::array<double, 8>& seed, const AlignOptions& options,
                                 const TrackTerms& terms) {
  if (groups.empty()) return std::nullopt;
  const int width = groups[0].reference.cols, height = groups[0].reference.rows;
  const cv::Mat input = capture.isContinuous() ? capture : capture.clone();
  AlignmentSlots slots = empty_slots(width, height, 2);
  double estimate = 0.0;
  Mapping mapping;
  const bool verified = as_error([&] {
    return tracked_rectified_img(input, groups, seed.data(), terms, slots.aligned[0], slots.pts[0],
                                 slots.content_pts[0], &slots.score, &estimate, &mapping);
  });
  if (!verified) return std::nullopt;
  // The enhanced copy, as every search result has it.
  std::memcpy(slots.aligned[1], slots.aligned[0], luma_plane_size(width, height));
  apply_output_variant(slots.aligned[1], width, height, kEnhancedCopyVariant);
  slots.count = 2;
  slots.report.path = "tracked";
  slots.report.scores = {slots.score};
  slots.report.est_error_px = {estimate};
  slots.report.refined = {true};
  slots.report.mappings = {mapping};
  return result_of(slots, input, width, height, options);
}

AlignResult not_found_result(const cv::Mat& capture, int width, int height,
                             const AlignOptions& options) {
  AlignmentSlots slots = empty_slots(width, height, 0);
  slots.score = kFailedScore;
  if (options.fast) slots.report.path = "full";
  return result_of(slots, capture, width, height, options);
}

}  // namespace framealign
