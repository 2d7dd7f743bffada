// Result slots as records: one aligned frame with what it is known by, and
// the set of them that one alignment hands to its caller and its writer.
#pragma once

#include <array>
#include <cmath>
#include <optional>
#include <vector>

#include <opencv2/core.hpp>

#include "align/align.h"
#include "framealign/framealign.h"

namespace framealign {

// The most slots an alignment fills: three search results and their
// enhanced copies, or one per output variant (five).
constexpr int kSlots = 6;

// One aligned frame: the capture warped onto the reference frame by
// `corners`, and what the alignment knows of it.
struct Slot {
  cv::Mat frame;                    // CV_8UC1, the reference's size, continuous
  std::array<double, 8> corners{};  // capture pixels; zeros until located
  std::array<double, 20> polygon;   // content polygon; -1 where unwritten
  double score = kFailedScore;      // lower is better
  // With refinement: the estimated largest error over the frame, reference
  // pixels (+inf when the matches were too few to tell), whether the refined
  // geometry replaced the search's, and the mapping the frame was warped by.
  std::optional<double> est_error_px;
  bool refined = false;
  std::optional<Mapping> mapping;
  // The matches that located it, with their residuals under `mapping` when
  // refined (record_evidence).
  std::vector<MatchPoint> evidence;

  // A black frame of the given size, no corners, no polygon.
  static Slot blank(int width, int height);
};

// The slots of one alignment, in the order they are written. Owns the
// layout: the results first, then whatever copies a mode adds, each copy
// carrying the corners, polygon and mapping of the result it was made from.
class SlotSet {
 public:
  SlotSet() = default;
  // The slots as they are, each with its own corners and polygon, all
  // results.
  explicit SlotSet(std::vector<Slot> slots) : slots_(std::move(slots)), results_(size()) {}

  // k results followed by their enhanced copies (output variant 2), so that
  // slot k + j is the enhanced frame of slot j.
  static SlotSet with_enhanced_copies(std::vector<Slot> results);
  // One slot per output variant code, each `plain` finished as its variant.
  // One thread per variant.
  static SlotSet variants(const Slot& plain, const std::vector<int>& codes);
  // framealign's per-slot arrays as its writer reads them: frame i with
  // point rows i modulo half the count (row 0 for a count of 1).
  static SlotSet from_rows(int count, unsigned char* const* aligned, const double (*pts)[8],
                           const double (*content_pts)[20], int width, int height);

  int size() const { return static_cast<int>(slots_.size()); }
  // How many slots, from the first, are results rather than copies of them.
  int results() const { return results_; }
  bool empty() const { return slots_.empty(); }
  const Slot& operator[](int i) const { return slots_.at(static_cast<std::size_t>(i)); }
  const std::vector<Slot>& slots() const { return slots_; }

 private:
  std::vector<Slot> slots_;
  int results_ = 0;
};

}  // namespace framealign
