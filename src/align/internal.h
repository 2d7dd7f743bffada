// What the alignment library's source files share with each other (and with
// its tests), but not with its users: not installed.
#pragma once

#include <cstddef>
#include <vector>

#include <opencv2/core.hpp>

#include "align/align.h"

// ---- Output variants -------------------------------------------------------

// CLAHE setting of an output variant.
struct ClaheSetting {
  float clip_limit;
  int tiles_x;  // tiles across
  int tiles_y;  // tiles down
};

// Output variants: 0 is the raw aligned plane (clip limit 0 here means "no
// CLAHE"), 1..4 are CLAHE settings (see adaptive_histogram_equalization).
// Codes outside 0..4 are left raw too.
constexpr ClaheSetting kOutputVariants[5] = {
    {0.0f, 0, 0}, {40.0f, 12, 8}, {20.0f, 32, 32}, {18.0f, 40, 64}, {20.0f, 80, 45}};

// The variant of the enhanced copy of every search result.
constexpr int kEnhancedCopyVariant = 2;

// Finishes a plane as output variant `code` (0 and unknown codes: unchanged).
void apply_output_variant(unsigned char* buffer, int width, int height, int code);

// ---- Matching ---------------------------------------------------------------

// The nearest two input descriptors of every reference descriptor (FLANN,
// 4 randomised k-d trees, 32 checks); keeps the nearest where
// 0.78 * second > first, in reference order. FLANN draws its trees from
// cv::theRNG() of the calling thread. Throws std::runtime_error when there
// is no input descriptor to match against.
std::vector<cv::DMatch> ratio_test_matches(const cv::Mat& refDescriptors,
                                           const cv::Mat& inputDescriptors);

// Orders matches by descriptor distance, best first.
bool by_distance(const cv::DMatch& a, const cv::DMatch& b);

// The matching half of calculateMatches, on features already extracted.
std::vector<cv::DMatch> match_features(int width, int height, const double* refCorners,
                                       const cv::Mat& refDescriptors,
                                       const std::vector<cv::KeyPoint>& refKeypoints,
                                       const cv::Mat& inputDescriptors,
                                       const std::vector<cv::KeyPoint>& inputKeypoints,
                                       double& score);

// ---- Warps ------------------------------------------------------------------

// The frame's own outline (0,0) (0,H) (W,H) (W,0) as the first 8 polygon values.
void write_frame_polygon(int width, int height, double* content_pts);

// ---- Search -----------------------------------------------------------------

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
MatchingMode choose_matching_mode(const cv::Mat& image, const cv::Mat& reference,
                                  const char* result_folder);

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
