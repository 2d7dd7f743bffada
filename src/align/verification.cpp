#include "align/verification.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "align/align.h"
#include "align/mapping.h"
#include "align/warps.h"

namespace framealign {

namespace {

// The capture warped by the refined geometry into `slot`, which takes on
// its corners and mapping.
void warp_refined(const cv::Mat& image, const RefinedCorners& refined, Slot& slot) {
  const int width = slot.frame.cols, height = slot.frame.rows;
  slot.mapping = refined.mapping;
  slot.refined = true;
  std::copy(refined.corners, refined.corners + 8, slot.corners.begin());
  warp_to_frame(image, width, height, refined.corners, slot.frame.data, slot.polygon.data());
  if (refined.mapping.has_lens()) {
    warp_through_mapping(image, refined.mapping, width, height, slot.frame.data);
  }
}

}  // namespace

double coverage(const std::vector<cv::Point2f>& points, int width, int height) {
  return calculateConvexHullArea(points) / (double(width) * height);
}

std::string figures(const char* pattern, double a, double b) {
  char text[200];
  std::snprintf(text, sizeof(text), pattern, a, b);
  return text;
}

std::string refusal(const RefinedCorners& refined, std::size_t offered,
                    const Acceptance& acceptance) {
  char text[160];
  if (acceptance.moved && !refined.accepted) {
    return "the refinement found no better geometry (its corrections did not agree, or moved a "
           "corner too far)";
  }
  if (refined.frame_pairs < acceptance.least_pairs || refined.frame_pairs < 0.5 * offered) {
    std::snprintf(text, sizeof(text),
                  "the refined geometry kept %d of %zu matched pairs (at least %d and half are "
                  "needed)",
                  refined.frame_pairs, offered, acceptance.least_pairs);
    return text;
  }
  if (!(refined.est_error_px <= acceptance.most_error)) {
    std::snprintf(text, sizeof(text),
                  "the refined geometry's estimated error is %.2f px (at most %.2f is taken)",
                  refined.est_error_px, acceptance.most_error);
    return text;
  }
  return "";
}

std::optional<Slot> verified_slot(const cv::Mat& image, const RefinedCorners& refined,
                                  std::size_t offered, const Acceptance& acceptance, double score,
                                  int width, int height) {
  if (!refusal(refined, offered, acceptance).empty()) return std::nullopt;
  Slot slot = Slot::blank(width, height);
  warp_refined(image, refined, slot);
  slot.score = score;
  slot.est_error_px = refined.est_error_px;
  return slot;
}

void record_evidence(Slot& slot, const PointPairs& pairs) {
  const bool refined = slot.est_error_px.has_value() && slot.mapping.has_value();
  const std::vector<cv::Point2d> back =
      refined ? slot.mapping->to_reference(pairs.input) : std::vector<cv::Point2d>();
  slot.evidence.clear();
  for (std::size_t i = 0; i < pairs.reference.size(); ++i) {
    MatchPoint point;
    point.x = pairs.reference[i].x;
    point.y = pairs.reference[i].y;
    if (refined) point.residual = cv::norm(back[i] - pairs.reference[i]);
    slot.evidence.push_back(point);
  }
}

void apply_refinement(Slot& slot, const cv::Mat& image, const RefinedCorners& refined) {
  slot.est_error_px = refined.est_error_px;
  if (refined.accepted) {
    warp_refined(image, refined, slot);
  } else {
    slot.mapping =
        corners_mapping(slot.corners.data(), slot.frame.cols, slot.frame.rows, image.size());
  }
}

}  // namespace framealign
