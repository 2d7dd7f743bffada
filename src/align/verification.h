// One verification for every answer that skips the full search (the quick
// path's, a tracked frame's), and one way of finishing a slot from refined
// geometry, which the search's refined attempts share.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/refinement.h"
#include "align/slots.h"

namespace framealign {

// A quick answer is taken only when its estimated error is at most this, in
// reference pixels.
constexpr double kQuickMaxError = 1.0;

// The pairs that locate a quick answer must cover at least this share of
// the frame (their convex hull in reference pixels).
constexpr double kMinimumCoverage = 0.35;

// An answer that skips the full search, or why there is none.
struct VerifiedAttempt {
  std::optional<Slot> slot;  // the verified answer
  std::string reason;        // why there is none, in words with figures
};

// Share of a width x height frame covered by the convex hull of `points`.
double coverage(const std::vector<cv::Point2f>& points, int width, int height);

// What a refined answer must show to be taken: at least `least_pairs` of
// the aligned frame's pairs kept by the refinement's last fit, and at least
// half of those offered to it, and an estimate of at most `most_error`;
// with `moved`, a refinement that changed the corners (an answer whose
// corners came from a coarser fit is taken only once refined).
struct Acceptance {
  int least_pairs = 100;
  double most_error = kQuickMaxError;
  bool moved = true;
};

// The slot of a refined answer when `refined` passes `acceptance` with
// `offered` pairs given to the refinement: the capture warped by the
// refined geometry (through its lens when it has one), with `score`.
// None when it does not pass.
std::optional<Slot> verified_slot(const cv::Mat& image, const RefinedCorners& refined,
                                  std::size_t offered, const Acceptance& acceptance, double score,
                                  int width, int height);

// A reason's text: `pattern` (printf, at most two doubles) filled in.
std::string figures(const char* pattern, double a, double b = 0.0);

// Why `refined` does not pass `acceptance` with `offered` pairs, in words
// with its figures; "" when it passes.
std::string refusal(const RefinedCorners& refined, std::size_t offered,
                    const Acceptance& acceptance);

// Records in `slot` the pairs that located it (`pairs`: reference points and
// where the capture shows them, in the coordinates of its mapping) and, when
// the slot was refined, how far its mapping puts each capture point from
// its reference point.
void record_evidence(Slot& slot, const PointPairs& pairs);

// A found slot finished by the refinement: its estimate recorded and, when
// the refinement was accepted, its geometry replaced and its frame warped
// again (its polygon rewritten over the old one); otherwise its mapping is
// that of its own corners. `image` is the picture the slot was found in.
void apply_refinement(Slot& slot, const cv::Mat& image, const RefinedCorners& refined);

}  // namespace framealign
