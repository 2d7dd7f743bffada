// The rectification search's schedule and its advanced pre-pass.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/align.h"
#include "align/slots.h"

namespace framealign {

// How the advanced pre-pass says the full-size attempts should match.
struct MatchingMode {
  bool affine = false;                // affine-simulating SIFT
  bool mirror = false;                // on the input mirrored left-right
  std::size_t trial_matches[3] = {};  // inliers of the plain, affine and mirrored trial
};

// The advanced pre-pass: plain, affine and mirrored trials, one after another
// on the calling thread, on copies of both pictures scaled to a height of 360
// (less for small references). A later trial wins with more than 10 matches
// and more than twice the kept trial's.
MatchingMode choose_matching_mode(const cv::Mat& image, const cv::Mat& reference);

// How the search runs its attempts. Results are byte-identical either way.
enum class SearchSchedule {
  // Pipelined with fewer than 6 usable CPUs (the affinity mask), else one
  // thread per attempt.
  AUTOMATIC,
  // Every attempt on a thread of its own, all at once: three SIFT pyramids
  // of the input in memory together.
  ONE_THREAD_PER_ATTEMPT,
  // One thread extracts the attempts' input features one after another,
  // using OpenCV's own parallelism, while the calling thread matches, warps
  // and scores each attempt as soon as its features are there: one large
  // pyramid at a time, both cores busy.
  PIPELINED,
};

// Chooses the schedule of later searches; not to be called while one runs.
void set_search_schedule(SearchSchedule schedule);

// How one search runs beyond its pictures and caches.
struct SearchTerms {
  bool advanced = false;  // the advanced pre-pass first
  // Refine each successful attempt's geometry below a pixel before its
  // frame is warped (the scores stay the search's), and estimate its error.
  bool refine = false;
  const std::atomic<bool>* stop = nullptr;  // see stop_if_asked
};

// What one attempt saw before it ended, for the reason a search gives when
// no attempt succeeded.
struct AttemptStory {
  std::size_t features = 0;  // the capture's features under the attempt's pre-filter
  std::size_t matches = 0;   // those that passed the ratio test with the reference's
  std::size_t kept = 0;      // kept by the per-cell selection
  double spread = 0.0;       // share of the reference the kept ones span
  std::vector<MatchPoint> where;  // the kept ones' reference points
  std::string gave_up;       // the step that ended it, with its figure; empty on success
};

// Why no attempt succeeded, attempt by attempt (`names` are the pre-filters').
std::string search_reason(const AttemptStory* stories, const char* const* names, int count);

// What a search found: its successful attempts in attempt order, and the
// lowest of their scores (kFailedScore when none succeeded), with the reason
// and the kept matches of the attempt that kept the most when none did.
struct Found {
  std::vector<Slot> results;
  double best_score = kFailedScore;
  std::string reason;
  std::vector<MatchPoint> evidence;
};

// The rectification search of `image` for the width x height `reference`
// (CV_8UC1, only read): reference features through `load` and `save`, the
// advanced pre-pass when asked, one match-warp-score attempt per pre-filter.
Found search_slots(const cv::Mat& image, const cv::Mat& reference, const FeatureLoadCallback& load,
                   const FeatureSaveCallback& save, const SearchTerms& terms);

}  // namespace framealign
