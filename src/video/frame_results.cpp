#include "video/frame_results.h"

#include "api/result_files.h"
#include "core/as_error.h"

namespace framealign {

std::optional<AlignResult> track(const cv::Mat& capture, const std::vector<TrackGroup>& groups,
                                 const std::array<double, 8>& seed, const AlignOptions& options,
                                 const TrackTerms& terms) {
  if (groups.empty()) return std::nullopt;
  const int width = groups[0].reference.cols, height = groups[0].reference.rows;
  const cv::Mat input = capture.isContinuous() ? capture : capture.clone();
  std::optional<Slot> slot =
      as_error([&] { return tracked_rectified_img(input, groups, seed.data(), terms); });
  if (!slot) return std::nullopt;
  const double score = slot->score;
  const Alignment alignment{plan_of(options),
                            score,
                            kTrackedPath,
                            SlotSet::with_enhanced_copies({std::move(*slot)}),
                            "",
                            {}};
  return result_of(alignment, input, width, height, options);
}

AlignResult not_found_result(const cv::Mat& capture, int width, int height,
                             const AlignOptions& options, const std::string& reason) {
  const Plan plan = plan_of(options);
  return result_of(Alignment{plan, kFailedScore, plan.path(false), SlotSet(), reason, {}}, capture,
                   width, height, options);
}

}  // namespace framealign
