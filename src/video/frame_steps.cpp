// A filmed screen's frame, step by step: told which reference frame it
// shows from where the screen was, tracked from the frame before, searched
// from scratch when it cannot be, settled along the screen's edges.
#include <utility>

#include "align/tracking.h"
#include "align/verification.h"
#include "video/frame_results.h"
#include "video/screen_edges.h"
#include "video/settle.h"
#include "video/video_state.h"

namespace framealign {

// The frame's result against reference frame `shown`, and what it shows
// told on the aligned frame itself with `shown` expected: the same
// whichever frames came before (a shard's frames tell what one run's do).
void VideoAligner::State::finish(VideoFrame& frame, AlignResult result, int shown) {
  const double expected = shown;
  const Identity identity = index->identify(result.frames[result.best_slot.value_or(0)], &expected);
  // Frames alike but for a small part share their geometry: the part tells.
  frame.ref_frame = identity.by_differences ? identity.ref_frame : shown;
  frame.ref_frames = identity.ref_frames;
  frame.mixed = identity.ref_frames.size() > 1;
  frame.sync_score = identity.sync_score;
  frame.result = std::move(result);
  told = identity;
}

// The points to follow on a frame showing `identity`: each band that shows
// one frame alone gives that frame's points in it, the middle frame's
// first. Bands whose rows were exposed while the screen changed show a
// blend of two frames, moved against each other by the video's own
// motion; they match any one frame worse than the clean ones.
std::vector<TrackGroup> VideoAligner::State::groups_of(const Identity& identity) {
  const std::size_t bands = identity.band_frames.size();
  double cleanest = 1.0;
  for (double cost : identity.band_costs) {
    if (cost >= 0.0) cleanest = std::min(cleanest, cost);
  }
  const double clean = std::max(kCleanBand, 2.0 * cleanest);
  std::vector<int> frames = {identity.ref_frame};
  for (int f : identity.ref_frames) {
    if (f != identity.ref_frame) frames.push_back(f);
  }
  std::vector<TrackGroup> groups;
  for (int f : frames) {
    TrackGroup group{plane(f), {}};
    for (const cv::Point2f& p : points_of(f)) {
      const std::size_t b = std::min(bands - 1, static_cast<std::size_t>(p.y * bands / height));
      if (identity.band_frames[b] == f && identity.band_costs[b] <= clean) {
        group.points.push_back(p);
      }
    }
    if (!group.points.empty()) groups.push_back(std::move(group));
  }
  return groups;
}

std::optional<Identity> VideoAligner::State::seeded_identity(const cv::Mat& capture) {
  if (!tracking) return std::nullopt;
  const Identity identity = index->identify(warp_by_corners(capture, corners, width, height),
                                            clock ? &*clock : nullptr);
  if (!identity.found) return std::nullopt;
  return identity;
}

const std::vector<cv::Point2f>& VideoAligner::State::points_of(int n) {
  auto it = points.find(n);
  if (it == points.end()) {
    keep_latest(points, 16);
    it = points.emplace(n, track_points(plane(n))).first;
  }
  return it->second;
}

int VideoAligner::State::settled(const cv::Mat& capture, const AlignResult& result, int searched,
                                 int told, int reach) {
  int best = searched;
  double best_agreement = edge_agreement(capture, *result.corners, plane(searched));
  for (int c = std::max(index->first(), told - reach); c <= std::min(index->last(), told + reach); ++c) {
    if (c == searched) continue;
    const auto moved = moved_corners(plane(searched), plane(c), points_of(searched), *result.corners);
    if (!moved) continue;
    const double agreement = edge_agreement(capture, *moved, plane(c));
    if (agreement > best_agreement) {
      best_agreement = agreement;
      best = c;
    }
  }
  return best;
}

bool VideoAligner::State::track_frame(VideoFrame& frame, const Identity& identity) {
  TrackTerms terms;
  terms.acceptance.most_error = kQuickMaxError * capture_pixel(corners, width);
  std::optional<AlignResult> result =
      track(frame.capture, groups_of(identity), corners, options.align, terms);
  if (!result) return false;
  // A seed a little off, where the video pans slowly, tells a neighbour
  // of the frame shown, and tracking then follows that frame's content:
  // the screen's edges tell.
  const int shown = settled(frame.capture, *result, identity.ref_frame, identity.ref_frame, 1);
  if (shown != identity.ref_frame) {
    const auto moved = moved_corners(plane(identity.ref_frame), plane(shown),
                                     points_of(identity.ref_frame), *result->corners);
    std::optional<AlignResult> again =
        moved ? track(frame.capture, {TrackGroup{plane(shown), points_of(shown)}}, *moved,
                      options.align, terms)
              : std::nullopt;
    if (again) {
      finish(frame, std::move(*again), shown);
      return true;
    }
  }
  finish(frame, std::move(*result), identity.ref_frame);
  return true;
}

void VideoAligner::State::true_to_edges(VideoFrame& frame) {
  if (!frame.result.corners) return;
  const std::optional<ScreenEdges> edges =
      screen_edges(frame.capture, *frame.result.corners, width, height);
  if (!edges || corners_apart(edges->corners, *frame.result.corners) <= kEdgeAgreement) return;
  // Told with the clock's frame expected, or else the frame found.
  const double found = frame.ref_frame;
  const double* expected = clock ? &*clock : frame.ref_frame >= 0 ? &found : nullptr;
  const Identity identity =
      index->identify(warp_by_corners(frame.capture, edges->corners, width, height), expected);
  if (!identity.found) return;
  const TrackTerms terms{{kEdgeTrackedPairs, kQuickMaxError * capture_pixel(edges->corners, width)},
                         edges->anchors};
  std::optional<AlignResult> result =
      track(frame.capture, groups_of(identity), edges->corners, options.align, terms);
  if (!result || corners_apart(*result->corners, edges->corners) > kEdgeAgreement) return;
  finish(frame, std::move(*result), identity.ref_frame);
}

void VideoAligner::State::search_frame(VideoFrame& frame, const std::optional<Identity>& seeded) {
  if (seeded) {
    AlignResult result = align(frame.capture, reference(seeded->ref_frame), options.align);
    if (result.status == kAligned) {
      finish(frame, std::move(result), seeded->ref_frame);
      return;
    }
  }
  // No telling from where the screen was: found against the frame the
  // clock expects, told on what was found and along the screen's edges,
  // and searched again against the frame told when it differs.
  std::map<int, std::pair<AlignResult, Identity>> tried;
  int next = predicted(frame.capture_frame);
  const int middle = (index->first() + index->last()) / 2;
  for (int attempt = 0; attempt < 3 && next >= 0 && tried.count(next) == 0; ++attempt) {
    AlignResult result = align(frame.capture, reference(next), options.align);
    if (result.status != kAligned) {
      tried.emplace(next, std::make_pair(std::move(result), Identity()));
      // Elsewhere in the reference: its first frame, then its middle.
      next = tried.count(index->first()) == 0 ? index->first() : tried.count(middle) == 0 ? middle : -1;
      continue;
    }
    const Identity identity = index->identify(result.frames[*result.best_slot], clock ? &*clock : nullptr);
    const int searched = next;
    next = identity.found ? settled(frame.capture, result, searched, identity.ref_frame) : -1;
    tried.emplace(searched, std::make_pair(std::move(result), identity));
    const auto shown = tried.find(next);
    if (shown != tried.end() && shown->second.second.found) {
      finish(frame, std::move(shown->second.first), next);
      return;
    }
  }
  // Why, frame by frame of the reference tried.
  std::string reason;
  for (const auto& [ref_frame, outcome] : tried) {
    reason +=
        (reason.empty() ? "reference frame " : "; reference frame ") + std::to_string(ref_frame) +
        ": " +
        (outcome.first.status != kAligned ? outcome.first.reason
                                          : std::string("found, but not told as the frame shown"));
  }
  frame.result = not_found_result(frame.capture, width, height, options.align, reason);
}

}  // namespace framealign
