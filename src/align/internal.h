// What the alignment library's source files share with each other (and with
// its tests), but not with its users: not installed.
#pragma once

#include <cmath>
#include <cstddef>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/align.h"

namespace framealign {

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
// `all`, when given, receives every ratio-test match, best first.
std::vector<cv::DMatch> match_features(int width, int height, const double* refCorners,
                                       const cv::Mat& refDescriptors,
                                       const std::vector<cv::KeyPoint>& refKeypoints,
                                       const cv::Mat& inputDescriptors,
                                       const std::vector<cv::KeyPoint>& inputKeypoints,
                                       double& score, std::vector<cv::DMatch>* all = nullptr);

// ---- Scoring ----------------------------------------------------------------

// Fresh SIFT features of an aligned plane and their ratio-test matches with
// the reference's, best first.
struct RectifiedMatches {
  std::vector<cv::KeyPoint> keypoints;
  std::vector<cv::DMatch> matches;
};
RectifiedMatches match_rectified(const unsigned char* rectified, const cv::Mat& refDescriptors,
                                 int width, int height);

// get_rectification_score's result from matches already made.
double rectification_score(const RectifiedMatches& rectified,
                           const std::vector<cv::KeyPoint>& refKeypoints);

// ---- Refinement -------------------------------------------------------------

// Where reference points are seen in another picture, pair by pair.
struct PointPairs {
  std::vector<cv::Point2d> input;      // in the other picture
  std::vector<cv::Point2d> reference;  // in the reference frame
};

// The keypoint positions of `matches` (queryIdx: reference, trainIdx: input).
PointPairs matched_points(const std::vector<cv::DMatch>& matches,
                          const std::vector<cv::KeyPoint>& refKeypoints,
                          const std::vector<cv::KeyPoint>& inputKeypoints);

// What refine_corners found.
struct RefinedCorners {
  bool accepted = false;        // `corners` differ from the ones given
  double corners[8] = {};       // the geometry to use, input pixels
  double est_error_px = HUGE_VAL;  // estimated largest error over the frame, reference pixels
  int frame_pairs = 0;          // the aligned frame's pairs in the correction's last fit
  Mapping mapping;              // the whole mapping; lens distortion only when chosen
};

// Re-fits the homography of the frame found at `corners` over `pairs` (all
// ratio-test matches of the attempt) inside tightening gates, then corrects
// it by the residual homography of `rectified`: the aligned frame's matches
// with the reference, at their positions in the frame warped by `corners`.
// Then fits a homography with lens distortion to both sets and keeps it only
// when held-out pairs and the size of its effect say so (fit_lens). The
// estimate comes from the last fit's residuals over a grid of the frame. A
// result that moves a corner too far, or leaves `rectified` further from the
// reference, is not accepted. `capture` is the input's size. Deterministic.
RefinedCorners refine_corners(const PointPairs& pairs, const PointPairs& rectified,
                              const double* corners, int width, int height, cv::Size capture);

// Points over the whole width x height frame, its corners and edges
// included, where errors are estimated.
std::vector<cv::Point2d> frame_grid(int width, int height);

// The lens model is chosen only when held-out pairs fit it with at most this
// share of the homography's loss: on undistorted captures the two stay
// within a few percent (bench/RESULTS.md).
constexpr double kLensHeldOutGain = 0.9;

// The lens model's fit to `evidence` (capture points in `input`), started
// from the capture-to-reference homography `to_reference`.
struct LensFit {
  bool chosen = false;     // the evidence supports it
  Mapping mapping;         // the fit, valid when `pairs` > 0
  int pairs = 0;           // pairs in its last fit
  double deviation = HUGE_VAL;  // std of the worst grid point's position, reference pixels
  double effect = 0.0;     // largest gap over the frame to `to_reference`, reference pixels
  double held_out = 1.0;   // held-out loss, lens over homography
};
LensFit fit_lens(const PointPairs& evidence, const cv::Matx33d& to_reference, cv::Size capture,
                 int width, int height);

// ---- Mapping ------------------------------------------------------------------

// The plain homography `to_capture` (reference to capture) as a Mapping about
// the centre of a capture of size `capture`.
Mapping homography_mapping(const cv::Matx33d& to_capture, cv::Size capture);

// The homography that puts the frame's corners at `corners`, as a Mapping.
Mapping corners_mapping(const double* corners, int width, int height, cv::Size capture);

// The undistorted radius of distorted radius `rd` (both in units of the
// mapping's scale); NaN beyond largest_monotonic_radius's image.
double undistorted_radius(double k1, double k2, double rd);
double largest_monotonic_radius(double k1, double k2);

// Warps `image` onto the width x height frame through `mapping` (cv::remap,
// bilinear, black outside).
void warp_through_mapping(const cv::Mat& image, const Mapping& mapping, int width, int height,
                          unsigned char* aligned);

// The mapping_i.txt file's text.
std::string mapping_text(const Mapping& mapping);

// ---- Quick path ---------------------------------------------------------------

// The quick path's answer is taken only when its estimated error is at most
// this, in reference pixels.
constexpr double kQuickMaxError = 1.0;

// The quick path on one capture (the caller's picture, not changed): plain
// SIFT of a copy reduced to about the reference's width, ratio-test matches
// with the reference's quick features, RANSAC, the frame warped by the
// corners, the aligned frame matched with the reference's tuned features
// (`ref_keypoints`, `ref_descriptors`), refinement. True, with the slot's
// frame, corners, content polygon, score and error estimate written, only
// when the answer is verified (with the mapping it was warped by); false
// leaves the outputs alone.
bool quick_rectified_img(const cv::Mat& image, const cv::Mat& reference,
                         const QuickFeatures& reference_quick,
                         const std::vector<cv::KeyPoint>& ref_keypoints,
                         const cv::Mat& ref_descriptors, unsigned char* aligned, double* pts,
                         double* content_pts, double* score, double* est_error_px,
                         Mapping* mapping);

// ---- Tracking -----------------------------------------------------------------

// Points of `reference` (CV_8UC1) that tracking follows: corners spread over
// the frame.
std::vector<cv::Point2f> track_points(const cv::Mat& reference);

// Points of a reference frame to follow into a frame of a filmed screen.
// A frame read while the screen changed shows different reference frames
// in different bands; each band's points are followed against its own.
struct TrackGroup {
  cv::Mat reference;  // CV_8UC1, the frame's size
  std::vector<cv::Point2f> points;
};

// What a tracked frame must show to be taken (pairs followed and kept by
// the refinement, the refinement's estimate of its error over the whole
// frame in pixels), and pairs known besides those it follows (`anchors`,
// in the frame the seed warps to, as the followed pairs are).
struct TrackTerms {
  int least_pairs = 100;
  double most_error = kQuickMaxError;
  PointPairs anchors;
};

// A frame of a filmed screen aligned from `seed`, the corners of the frame
// before: the capture warped by them, each group's points followed into it
// by Lucas-Kanade against the group's reference, the refinement over all
// the pairs that come back. The first group's reference sets the exposure.
// True, with the outputs written as quick_rectified_img writes them, only
// when verified as the quick path is (within `terms`); false leaves them
// alone.
bool tracked_rectified_img(const cv::Mat& image, const std::vector<TrackGroup>& groups,
                           const double* seed, const TrackTerms& terms, unsigned char* aligned,
                           double* pts, double* content_pts, double* score, double* est_error_px,
                           Mapping* mapping);

// ---- Warps ------------------------------------------------------------------

// Warps `image` so that the corners `pts` land on the width x height frame's
// corners, and outlines where the image lands (align_frame's warp).
void warp_to_frame(const cv::Mat& image, int width, int height, const double* pts,
                   unsigned char* aligned, double* content_pts);

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

// ---- Alignment driver -------------------------------------------------------

constexpr int kSlots = 6;

// The four ways an alignment runs, chosen once by alignment_mode.
enum class AlignmentMode {
  FEATURES_ONLY,  // no reference and no corners: only cache the input's features
  CORNERS_GIVEN,  // warp by the given corners, one slot per output variant
  NO_RECTIFY,     // the input as it lies, and its enhanced copy
  SEARCH,         // the rectification search
};

// The mode for a reference plane (null: none), given corners or none, and
// the no-rectification request.
AlignmentMode alignment_mode(const unsigned char* reference, bool corners_given,
                             bool no_rectify);

// One alignment's inputs.
struct AlignmentJob {
  cv::Mat input;                             // CV_8UC1, rows packed
  const unsigned char* reference = nullptr;  // width x height plane, or null
  int width = 0;
  int height = 0;
  int crop_width = 0;  // with corners: the crop aspect to pad to; 0: none
  int crop_height = 0;
  bool no_rectify = false;
  bool corners_given = false;
  double pts[8] = {};  // the given corners; all 0 otherwise
  FeatureLoadCallback load;
  FeatureSaveCallback save;
  bool advanced = false;
  std::vector<int> outputs;  // with corners: output variants (empty: 3, 0)
  SearchRequest search;
};

// One alignment's result slots (layout above), owning their frames.
struct AlignmentSlots {
  AlignmentMode mode = AlignmentMode::SEARCH;
  int count = 0;       // slots filled
  double score = 0.0;  // align_frame's return value
  std::vector<cv::Mat> storage;  // the frames' buffers; aligned[i] points into one
  unsigned char* aligned[kSlots] = {};
  double pts[kSlots][8] = {};
  double content_pts[kSlots][20];
  SearchReport report;

  // The frame of slot i as a matrix sharing its buffer.
  cv::Mat frame(int i) const;
};

// Runs the alignment of `job` in its mode. Exceptions from any stage, worker
// threads' included, reach the caller.
AlignmentSlots align_slots(const AlignmentJob& job);

// ---- Output variants ----------------------------------------------------------

// Adds the output variants named by one --output value (numbers 0..4 and the
// presets fast, medium, slow, slowest, comma-separated, each once). Returns
// "" or framealign's error line (without a line end); variants appended
// before a bad token stay in the list.
std::string append_output_list(const std::string& value, std::vector<int>& outputs);

}  // namespace framealign
