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
  HINTED,         // rough corners given as a start: matched there, refined, verified
};

// The paths a result reports (its statuses are the public header's).
inline constexpr const char* kQuickPath = "fast";
inline constexpr const char* kFullPath = "full";
inline constexpr const char* kTrackedPath = "tracked";
inline constexpr const char* kHintPath = "hint";

struct Plan {
  AlignmentMode mode = AlignmentMode::SEARCH;
  // Found frames are refined below a pixel and carry an error estimate.
  bool refine = false;
  // The quick path runs first; the search only when its answer is refused.
  bool quick_first = false;

  // The path a search result reports: with the quick path first, kQuickPath
  // when its answer was taken and kFullPath when the search ran; kHintPath
  // for a hinted alignment; "" else.
  std::string path(bool quick_taken) const;
  // The status of an alignment of this plan that ended with `score`.
  std::string status(double score) const;
};

// What a request asks for, as make_plan reads it.
struct Request {
  bool has_reference = true;
  bool corners_given = false;
  bool hinted = false;  // rough corners given as the search's start
  bool no_rectify = false;
  bool refine = false;
  bool fast = false;  // implies refine
};

// The plan for a request. Given corners come first; a hint with a reference
// is refined and verified (so it implies refine); fast implies refine.
Plan make_plan(const Request& request);

}  // namespace framealign
