#include "align/plan.h"

#include "align/align.h"

namespace framealign {

Plan make_plan(const Request& request) {
  Plan plan;
  if (request.corners_given) {
    plan.mode = AlignmentMode::CORNERS_GIVEN;
  } else if (!request.has_reference) {
    plan.mode = AlignmentMode::FEATURES_ONLY;
  } else if (request.no_rectify) {
    plan.mode = AlignmentMode::NO_RECTIFY;
  } else {
    plan.mode = request.hinted ? AlignmentMode::HINTED : AlignmentMode::SEARCH;
  }
  const bool searches = plan.mode == AlignmentMode::SEARCH;
  plan.quick_first = searches && request.fast;
  plan.refine =
      plan.mode == AlignmentMode::HINTED || (searches && (request.refine || request.fast));
  return plan;
}

std::string Plan::path(bool quick_taken) const {
  if (mode == AlignmentMode::HINTED) return kHintPath;
  if (!quick_first) return "";
  return quick_taken ? kQuickPath : kFullPath;
}

std::string Plan::status(double score) const {
  switch (mode) {
    case AlignmentMode::CORNERS_GIVEN:
      return kAligned;
    case AlignmentMode::NO_RECTIFY:
      return kUnrectified;
    case AlignmentMode::HINTED:
      return score < kFailedScore ? kAligned : kHintUnverified;
    default:
      return score < kFailedScore ? kAligned : kNotFound;
  }
}

}  // namespace framealign
