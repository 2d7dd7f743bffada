// The rectification search: reference features, the optional advanced
// pre-pass, one match-warp-score attempt per pre-filter, and the compaction
// of the successful attempts to the front of the result slots.
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/internal.h"
#include "align/parallel_for.h"
#include "framealign/framealign.h"

namespace framealign {

namespace {

constexpr int kAttempts = 3;
constexpr PreprocessingType kAttemptTypes[kAttempts] = {GAUSSIAN_BLUR, ORIGINAL,
                                                        MORPHOLOGICAL_OPENING};

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
// arrays and result slots is only read; attempt i writes only index i.
struct Attempts {
  Attempts(const cv::Mat& image, int width, int height, const FeatureLoadCallback& load,
           const FeatureSaveCallback& save, unsigned char** aligned, double (*pts)[8],
           double (*content_pts)[20])
      : work(image), width(width), height(height), sanity_width(image.cols),
        sanity_height(image.rows), load(load), save(save), aligned(aligned), pts(pts),
        content_pts(content_pts) {
    frame_corners(width, height, ref_corners);
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
  unsigned char** aligned;
  double (*pts)[8];
  double (*content_pts)[20];
  std::vector<cv::KeyPoint> keypoints[kAttempts];
  cv::Mat descriptors[kAttempts];
  double scores[kAttempts] = {kFailedScore, kFailedScore, kFailedScore};
  bool refine = false;
  const std::atomic<bool>* stop = nullptr;
  RefinedCorners refinements[kAttempts];

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
    double match_score = 1.0;
    std::vector<cv::DMatch> all_matches;
    // Not caught: a failure to match at all ends the search.
    const std::vector<cv::DMatch> matches =
        match_features(width, height, ref_corners, ref_descriptors, ref_keypoints, descriptors[i],
                       keypoints[i], match_score, refine ? &all_matches : nullptr);
    if (matches.size() <= 3) return;
    try {
      align_frame(matches, ref_keypoints, keypoints[i], work, width, height, ref_corners,
                  aligned[i], pts[i], content_pts[i]);
      const RectifiedMatches rectified =
          match_rectified(aligned[i], ref_descriptors, width, height);
      // The product of both scores, deliberately: residual displacement
      // weighted by how many matches agreed and how much they covered.
      const double score = rectification_score(rectified, ref_keypoints) * match_score;
      if (!affine && score > 100.0 &&
          !check_ref_pts_sanity(pts[i], sanity_width, sanity_height)) {
        throw std::runtime_error("bad ref pts");
      }
      scores[i] = score;
      if (refine) refine_attempt(i, all_matches, rectified);
    } catch (const std::exception&) {
      // The attempt failed; its slot keeps whatever was written.
    }
  }

  // Replaces attempt i's geometry by the refined one, when it is accepted,
  // and re-warps its slot; the score stays the one the search measured. A
  // refinement that fails leaves the attempt as the search made it.
  void refine_attempt(int i, const std::vector<cv::DMatch>& all_matches,
                      const RectifiedMatches& rectified) {
    try {
      refinements[i] = refine_corners(matched_points(all_matches, ref_keypoints, keypoints[i]),
                                      matched_points(rectified.matches, ref_keypoints,
                                                     rectified.keypoints),
                                      pts[i], width, height, work.size());
    } catch (const cv::Exception&) {
      return;  // no estimate either: it stays +inf
    }
    if (!refinements[i].accepted) return;
    std::copy(refinements[i].corners, refinements[i].corners + 8, pts[i]);
    warp_to_frame(work, width, height, pts[i], aligned[i], content_pts[i]);
    const Mapping& mapping = refinements[i].mapping;
    if (mapping.has_lens()) warp_through_mapping(work, mapping, width, height, aligned[i]);
  }

  // Moves the successful attempts to the front, in attempt order, swapping
  // slots (frames by pointer); returns their count and the lowest score.
  int compact(double* best_score, SearchReport* report) {
    double best = kFailedScore;
    int k = 0;
    for (int i = 0; i < kAttempts; ++i) {
      if (!(scores[i] < kFailedScore)) continue;
      best = std::min(best, scores[i]);
      if (report != nullptr) {
        report->scores.push_back(scores[i]);
        if (refine) {
          report->est_error_px.push_back(refinements[i].est_error_px);
          report->refined.push_back(refinements[i].accepted);
          report->mappings.push_back(refinements[i].accepted
                                         ? refinements[i].mapping
                                         : corners_mapping(pts[i], width, height, work.size()));
        }
      }
      if (k != i) {
        std::swap(aligned[k], aligned[i]);
        std::swap_ranges(pts[k], pts[k] + 8, pts[i]);
        std::swap_ranges(content_pts[k], content_pts[k] + 20, content_pts[i]);
      }
      ++k;
    }
    *best_score = best;
    return k;
  }
};


}  // namespace

void set_search_schedule(SearchSchedule schedule) { g_schedule = schedule; }

void stop_if_asked(const std::atomic<bool>* stop) {
  if (stop != nullptr && stop->load()) throw Cancelled("the alignment was stopped");
}

MatchingMode choose_matching_mode(const cv::Mat& image, const cv::Mat& reference,
                                  const char* result_folder) {
  // On small copies of both pictures, try plain SIFT, affine SIFT and plain
  // SIFT on the mirrored input; a trial that finds far more matches than the
  // kept one decides how the full-size attempts run.
  const int width = reference.cols;
  const int height = reference.rows;
  if (height <= 0) throw std::invalid_argument("reference height must be positive");
  const int small_height = 3 * height < 720 ? (3 * height) / 2 : 360;
  const int small_width = static_cast<int>(static_cast<long long>(width) * small_height / height);
  cv::Mat small_ref, small_input;
  cv::resize(reference, small_ref, cv::Size(small_width, small_height), 0, 0, cv::INTER_LINEAR);
  cv::resize(image, small_input, cv::Size(small_width, small_height), 0, 0, cv::INTER_LINEAR);
  std::vector<cv::KeyPoint> small_ref_keypoints;
  cv::Mat small_ref_descriptors;
  SIFTdetectAndCompute(small_ref, small_ref_keypoints, small_ref_descriptors, false);
  double small_corners[8];
  frame_corners(small_width, small_height, small_corners);

  MatchingMode mode;
  std::size_t kept = 0;
  // The trials run one after another on this thread, so trials 1 and 2
  // continue the generator sequence that trial 0 left, as FLANN draws it.
  reset_thread_rng();
  for (int trial = 0; trial < 3; ++trial) {
    if (trial == 2) cv::flip(small_input, small_input, 1);
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
    double ignored_score = 1.0;
    const std::size_t found =
        calculateMatches(small_input, small_ref, small_width, small_height, GAUSSIAN_BLUR,
                         small_corners, result_folder, small_ref_descriptors,
                         small_ref_keypoints, descriptors, keypoints, nullptr, nullptr,
                         ignored_score, trial == 1)
            .size();
    mode.trial_matches[trial] = found;
    if (trial == 0) {
      kept = found;
    } else if (found > 10 && found > 2 * kept) {
      kept = found;
      mode.affine = trial == 1;
      mode.mirror = trial == 2;
    }
  }
  return mode;
}

int get_rectified_imgs(const cv::Mat& image, int width, int height, const char* result_folder,
                       const unsigned char* reference, unsigned char** aligned,
                       double (*pts)[8], double (*content_pts)[20], double* best_score,
                       const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                       bool advanced, const SearchRequest& request, SearchReport* report) {
  // Only read: the matrix wraps the caller's plane.
  const cv::Mat ref(height, width, CV_8UC1, const_cast<unsigned char*>(reference));
  Attempts attempts(image, width, height, load, save, aligned, pts, content_pts);
  attempts.refine = request.refine || request.fast;
  attempts.stop = request.stop;
  stop_if_asked(request.stop);

  auto reference_features = [&] {
    get_keypoints_descriptors_ref(ref, attempts.ref_keypoints, attempts.ref_descriptors, load,
                                  save);
  };
  const SearchSchedule schedule = effective_schedule();
  // The pipeline computes them while the first input features are extracted.
  if (schedule != SearchSchedule::PIPELINED) reference_features();

  if (advanced) {
    const MatchingMode mode = choose_matching_mode(image, ref, result_folder);
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
  return attempts.compact(best_score, report);
}

}  // namespace framealign
