// The rectification search: reference features, the optional advanced
// pre-pass, one match-warp-score attempt per pre-filter, and the successful
// attempts in attempt order.
#include "align/search.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/matching.h"
#include "align/refinement.h"
#include "align/scoring.h"
#include "align/verification.h"
#include "core/parallel_for.h"
#include "core/plane_io.h"
#include "core/stop.h"
#include "framealign/framealign.h"

namespace framealign {

namespace {

constexpr int kAttempts = 3;
constexpr PreprocessingType kAttemptTypes[kAttempts] = {GAUSSIAN_BLUR, ORIGINAL,
                                                        MORPHOLOGICAL_OPENING};
const char* const kAttemptNames[kAttempts] = {"blurred", "original", "opened"};

// FLANN's randomised k-d trees draw from OpenCV's per-thread generator.
// Starting every attempt, and the advanced pre-pass, from a fresh generator
// makes their results independent of which thread runs them, and of what
// ran before.
void reset_thread_rng() { cv::theRNG() = cv::RNG(); }

SearchSchedule g_schedule = SearchSchedule::AUTOMATIC;

// With few cores, concurrent attempts mostly contend: OpenCV runs a parallel
// loop serially while another thread is inside one, so three attempts on two
// cores hold three SIFT pyramids (3.4 GB each for a 12 MP input) and finish
// later than the pipeline (bench/RESULTS.md). With six or more usable CPUs,
// attempts side by side can keep cores busy that one extraction's serial
// pyramid building leaves idle (not measured: the project's machine has two
// cores).
SearchSchedule effective_schedule() {
  if (g_schedule != SearchSchedule::AUTOMATIC) return g_schedule;
  return usable_cpu_count() >= 6 ? SearchSchedule::ONE_THREAD_PER_ATTEMPT
                                  : SearchSchedule::PIPELINED;
}

// The attempts of one search. While they run, everything but the per-attempt
// arrays is only read; attempt i writes only index i.
struct Attempts {
  Attempts(const cv::Mat& image, int width, int height, const FeatureLoadCallback& load,
           const FeatureSaveCallback& save)
      : work(image),
        width(width),
        height(height),
        sanity_width(image.cols),
        sanity_height(image.rows),
        load(load),
        save(save) {
    frame_corners(width, height, ref_corners);
    for (Slot& slot : slots) slot = Slot::blank(width, height);
  }

  cv::Mat work;  // the input, mirrored when the pre-pass says so
  int width, height;
  int sanity_width, sanity_height;  // the input as passed in
  double ref_corners[8];
  std::vector<cv::KeyPoint> ref_keypoints;
  cv::Mat ref_descriptors;
  bool affine = false;
  const FeatureLoadCallback& load;
  const FeatureSaveCallback& save;
  Slot slots[kAttempts];
  AttemptStory stories[kAttempts];
  std::vector<cv::KeyPoint> keypoints[kAttempts];
  cv::Mat descriptors[kAttempts];
  bool refine = false;
  const std::atomic<bool>* stop = nullptr;

  // The input features of attempt i, from the cache or SIFT. Draws no
  // random numbers.
  void extract(int i) {
    stop_if_asked(stop);
    get_keypoints_descriptors_cpy(work, keypoints[i], descriptors[i], kAttemptTypes[i], load,
                                  save, affine);
  }

  // Matching, warp and score of attempt i.
  void finish(int i) {
    stop_if_asked(stop);
    reset_thread_rng();
    Slot& slot = slots[i];
    AttemptStory& story = stories[i];
    double match_score = 1.0;
    std::vector<cv::DMatch> all_matches;
    // Not caught: a failure to match at all ends the search.
    const std::vector<cv::DMatch> matches =
        match_features(width, height, ref_corners, ref_descriptors, ref_keypoints, descriptors[i],
                       keypoints[i], match_score, &all_matches);
    tell(story, i, all_matches.size(), matches);
    if (matches.size() <= 3) {
      story.gave_up = "more than 3 kept matches are needed";
      return;
    }
    try {
      align_frame(matches, ref_keypoints, keypoints[i], work, width, height, ref_corners,
                  slot.frame.data, slot.corners.data(), slot.polygon.data());
      const RectifiedMatches rectified =
          match_rectified(slot.frame.data, ref_descriptors, width, height);
      // The product of both scores, deliberately: residual displacement
      // weighted by how many matches agreed and how much they covered.
      const double score = rectification_score(rectified, ref_keypoints) * match_score;
      if (!affine && score > 100.0) {
        story.gave_up = sanity_failure(slot.corners.data(), sanity_width, sanity_height);
        if (!story.gave_up.empty()) throw std::runtime_error("bad ref pts");
      }
      slot.score = score;
      if (!(score < kFailedScore)) story.gave_up = unmatched(rectified.matches.size(), score);
      if (refine) refine_attempt(slot, all_matches, rectified, i);
      record_evidence(slot, matched_points(matches, ref_keypoints, keypoints[i]));
    } catch (const std::exception& e) {
      // The attempt failed; its slot keeps whatever was written.
      if (story.gave_up.empty()) story.gave_up = e.what();
    }
  }

  // What attempt i's matching found.
  void tell(AttemptStory& story, int i, std::size_t matched, const std::vector<cv::DMatch>& kept) {
    story.features = keypoints[i].size();
    story.matches = matched;
    story.kept = kept.size();
    std::vector<cv::Point2f> points;
    for (const cv::DMatch& m : kept) {
      points.push_back(ref_keypoints[m.queryIdx].pt);
      story.where.push_back(MatchPoint{points.back().x, points.back().y});
    }
    if (points.size() >= 3) story.spread = coverage(points, width, height);
  }

  static std::string unmatched(std::size_t matched, double score) {
    char text[200];
    std::snprintf(text, sizeof(text),
                  "the frame warped by its geometry matched %zu of the reference's features and "
                  "scored %.0f (at least 10 matches and a score under 999999 are needed)",
                  matched, score);
    return text;
  }

  // Finishes attempt i's slot by the refinement; the score stays the one
  // the search measured. A refinement that fails leaves the attempt as the
  // search made it, with no estimate (+inf).
  void refine_attempt(Slot& slot, const std::vector<cv::DMatch>& all_matches,
                      const RectifiedMatches& rectified, int i) {
    RefinedCorners refined;  // not accepted, no estimate, unless the refinement ends
    try {
      refined =
          refine_corners(matched_points(all_matches, ref_keypoints, keypoints[i]),
                         matched_points(rectified.matches, ref_keypoints, rectified.keypoints),
                         slot.corners.data(), width, height, work.size());
    } catch (const cv::Exception&) {
    }
    apply_refinement(slot, work, refined);
  }

  // The successful attempts, in attempt order, and the lowest score.
  Found found() {
    Found found;
    for (Slot& slot : slots) {
      if (!(slot.score < kFailedScore)) continue;
      found.best_score = std::min(found.best_score, slot.score);
      found.results.push_back(std::move(slot));
    }
    if (found.results.empty()) {
      found.reason = search_reason(stories, kAttemptNames, kAttempts);
      const AttemptStory* most = &stories[0];
      for (const AttemptStory& story : stories) {
        if (story.kept > most->kept) most = &story;
      }
      found.evidence = most->where;
    }
    return found;
  }
};

}  // namespace

void set_search_schedule(SearchSchedule schedule) { g_schedule = schedule; }

Found search_slots(const cv::Mat& image, const cv::Mat& ref, const FeatureLoadCallback& load,
                   const FeatureSaveCallback& save, const SearchTerms& terms) {
  const int width = ref.cols, height = ref.rows;
  Attempts attempts(image, width, height, load, save);
  attempts.refine = terms.refine;
  attempts.stop = terms.stop;
  stop_if_asked(terms.stop);

  auto reference_features = [&] {
    get_keypoints_descriptors_ref(ref, attempts.ref_keypoints, attempts.ref_descriptors, load,
                                  save);
  };
  const SearchSchedule schedule = effective_schedule();
  // The pipeline computes them while the first input features are extracted.
  if (schedule != SearchSchedule::PIPELINED) reference_features();

  if (terms.advanced) {
    const MatchingMode mode = choose_matching_mode(image, ref);
    attempts.affine = mode.affine;
    // Into a picture of its own: `image` is the caller's buffer, which the
    // results writer outlines unmirrored.
    if (mode.mirror) {
      cv::Mat mirrored;
      cv::flip(image, mirrored, 1);
      attempts.work = mirrored;
    }
  }

  if (schedule == SearchSchedule::PIPELINED) {
    // Extraction of attempt i + 1 overlaps the matching of attempt i: the
    // extraction's long serial stretches (building the Gaussian pyramid)
    // leave a core free for it, and only one large pyramid is alive at a time.
    run_pipelined(
        kAttempts, [&](int i) { attempts.extract(i); }, [&](int i) { attempts.finish(i); },
        reference_features);
  } else {
    parallel_for(
        0, kAttempts,
        [&](int i) {
          attempts.extract(i);
          attempts.finish(i);
        },
        kAttempts);
  }
  return attempts.found();
}

int get_rectified_imgs(const cv::Mat& image, int width, int height, const char* result_folder,
                       const unsigned char* reference, unsigned char** aligned, double (*pts)[8],
                       double (*content_pts)[20], double* best_score,
                       const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                       bool advanced) {
  (void)result_folder;  // read by nothing the search calls
  // Only read: the matrix wraps the caller's plane.
  const cv::Mat ref(height, width, CV_8UC1, const_cast<unsigned char*>(reference));
  SearchTerms terms;
  terms.advanced = advanced;
  const Found found = search_slots(image, ref, load, save, terms);
  const int k = static_cast<int>(found.results.size());
  for (int i = 0; i < k; ++i) {
    const Slot& slot = found.results[i];
    std::memcpy(aligned[i], slot.frame.data, luma_plane_size(width, height));
    std::copy(slot.corners.begin(), slot.corners.end(), pts[i]);
    std::copy(slot.polygon.begin(), slot.polygon.end(), content_pts[i]);
  }
  *best_score = found.best_score;
  return k;
}

}  // namespace framealign
