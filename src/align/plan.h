// The plan of one alignment: what the request asks for, decided once. Every
// other part of the library asks the plan rather than the request's flags.
#pragma once

#include <string>

#include "framealign/framealign.h"

namespace framealign {

// The four ways an alignment runs.
enum class AlignmentMode {
  FEATURES_ONLY,  // no reference and no corners: only cache the input's features
  CORNERS_GIVEN,  // warp by the given corners, one slot per output variant
  NO_RECTIFY,     // the input as it lies, and its enhanced copy
  SEARCH,         // the rectification search (after the quick path, with fast)
};

// The paths a result reports (its statuses are the public header's).
inline constexpr const char* kQuickPath = "fast";
inline constexpr const char* kFullPath = "full";
inline constexpr const char* kTrackedPath = "tracked";

struct Plan {
  AlignmentMode mode = AlignmentMode::SEARCH;
  // Found frames are refined below a pixel and carry an error estimate.
  bool refine = false;
  // The quick path runs first; the search only when its answer is refused.
  bool quick_first = false;

  // The path a search result reports: with the quick path first, kQuickPath
  // when its answer was taken and kFullPath when the search ran; "" else.
  std::string path(bool quick_taken) const;
  // The status of an alignment of this plan that ended with `score`.
  std::string status(double score) const;
};

// The plan for a request: a reference or none, corners given or none, and
// the no-rectification, refinement and fast requests (fast implies refine).
Plan make_plan(bool has_reference, bool corners_given, bool no_rectify, bool refine, bool fast);

}  // namespace framealign
