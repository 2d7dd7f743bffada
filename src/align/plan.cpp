#include "align/plan.h"

#include "align/align.h"

namespace framealign {

Plan make_plan(bool has_reference, bool corners_given, bool no_rectify, bool refine, bool fast) {
  Plan plan;
  if (corners_given) {
    plan.mode = AlignmentMode::CORNERS_GIVEN;
  } else if (!has_reference) {
    plan.mode = AlignmentMode::FEATURES_ONLY;
  } else {
    plan.mode = no_rectify ? AlignmentMode::NO_RECTIFY : AlignmentMode::SEARCH;
  }
  const bool searches = plan.mode == AlignmentMode::SEARCH;
  plan.quick_first = searches && fast;
  plan.refine = searches && (refine || fast);
  return plan;
}

std::string Plan::path(bool quick_taken) const {
  if (!quick_first) return "";
  return quick_taken ? kQuickPath : kFullPath;
}

std::string Plan::status(double score) const {
  switch (mode) {
    case AlignmentMode::CORNERS_GIVEN:
      return kAligned;
    case AlignmentMode::NO_RECTIFY:
      return kUnrectified;
    default:
      return score < kFailedScore ? kAligned : kNotFound;
  }
}

}  // namespace framealign
