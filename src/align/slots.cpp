#include "align/slots.h"

#include <algorithm>

#include "align/output_variants.h"
#include "core/parallel_for.h"
#include "core/plane_io.h"

namespace framealign {

namespace {

// `from` with its frame finished as output variant `code` in a buffer of
// its own.
Slot finished_copy(const Slot& from, int code) {
  Slot copy = from;
  copy.frame = from.frame.clone();
  apply_output_variant(copy.frame.data, copy.frame.cols, copy.frame.rows, code);
  return copy;
}

}  // namespace

Slot Slot::blank(int width, int height) {
  luma_plane_size(width, height);  // refuses sizes a plane cannot have
  Slot slot;
  // Zeroed rather than left undefined, so that a slot an attempt failed to
  // fill never carries stray memory into a score or a file.
  slot.frame = cv::Mat::zeros(height, width, CV_8UC1);
  slot.polygon.fill(-1.0);
  return slot;
}

SlotSet SlotSet::with_enhanced_copies(std::vector<Slot> results) {
  const std::size_t k = results.size();
  for (std::size_t j = 0; j < k; ++j) {
    results.push_back(finished_copy(results[j], kEnhancedCopyVariant));
  }
  SlotSet set(std::move(results));
  set.results_ = static_cast<int>(k);
  return set;
}

SlotSet SlotSet::variants(const Slot& plain, const std::vector<int>& codes) {
  const int n = static_cast<int>(codes.size());
  std::vector<Slot> slots(codes.size());
  parallel_for(
      0, n, [&](int i) { slots[i] = finished_copy(plain, codes[i]); }, n);
  return SlotSet(std::move(slots));
}

SlotSet SlotSet::from_rows(int count, unsigned char* const* aligned, const double (*pts)[8],
                           const double (*content_pts)[20], int width, int height) {
  std::vector<Slot> slots;
  for (int i = 0; i < count; ++i) {
    // The enhanced copies in the back half share their originals' rows.
    const int row = count <= 1 ? 0 : i % (count / 2);
    Slot slot;
    slot.frame = cv::Mat(height, width, CV_8UC1, aligned[i]);
    std::copy(pts[row], pts[row] + 8, slot.corners.begin());
    std::copy(content_pts[row], content_pts[row] + 20, slot.polygon.begin());
    slots.push_back(std::move(slot));
  }
  SlotSet set(std::move(slots));
  set.results_ = count <= 1 ? count : count / 2;
  return set;
}

}  // namespace framealign
