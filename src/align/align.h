// The alignment pipeline's stages under the names framealign's design gives
// them: finds a known reference frame inside a captured picture and warps the
// capture back onto the frame. Internal; the public API is framealign.h.
//
// Conventions used throughout:
//  - A luma buffer is width x height bytes, one 8-bit sample per pixel, rows
//    top to bottom, no padding; it is passed as a byte pointer with separate
//    int width and height.
//  - Pixel coordinates have x to the right and y downwards.
//  - A corner array is 8 doubles x1 y1 x2 y2 x3 y3 x4 y4: the reference
//    frame's top-left, top-right, bottom-left and bottom-right corners (a Z
//    order, not a ring), in the pixels of the picture they are seen in.
//  - Matchers are always queried with the reference descriptors, so a
//    match's queryIdx indexes reference keypoints and trainIdx the input's;
//    functions taking two keypoint lists take the reference list first.
//  - Scores are lower-is-better; kFailedScore marks a failed attempt.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "core/plane_io.h"
#include "framealign/framealign.h"

namespace framealign {

// ---- Shared types ---------------------------------------------------------

// Lower is better; this value marks an attempt that did not succeed.
constexpr double kFailedScore = 999999.0;

// Reads a cached feature set. `name` is the preprocessing entry name for the
// input picture's features, or null for the reference features. Returns true
// when the entry was found and read.
using FeatureLoadCallback = std::function<bool(
    std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors, const char* name)>;

// Stores a feature set under the same naming as FeatureLoadCallback.
using FeatureSaveCallback = std::function<void(
    const std::vector<cv::KeyPoint>& keypoints, const cv::Mat& descriptors,
    const char* name)>;

// Filter applied to a picture before SIFT extraction. Other values are legal:
// they filter like ORIGINAL and are named "UNKNOWN".
enum PreprocessingType : int {
  GAUSSIAN_BLUR = 0,          // 5x5 Gaussian, sigma 1
  ORIGINAL = 1,               // no filter
  MORPHOLOGICAL_OPENING = 2,  // opening with a 3x3 ellipse
};

// ---- Preprocessing --------------------------------------------------------

// Name under which features of `type` are cached ("UNKNOWN" for other values).
std::string get_preprocessing_name(PreprocessingType type);

// The caller's buffer as a CV_8UC1 matrix, without copying. (Not called by
// framealign; a utility for callers of the library.)
cv::Mat decode_raw_buffer(unsigned char* data, int width, int height);

// A filtered copy of `image`; the input is never changed.
cv::Mat apply_preprocessing(const cv::Mat& image, PreprocessingType type);

// CLAHE (Zuiderveld, "Contrast limited adaptive histogram equalization",
// Graphics Gems IV, 1994) of a packed 8-bit plane, in place. The output
// variants' settings (clip limit, tiles across x down) are 1: 40, 12x8;
// 2: 20, 32x32; 3: 18, 40x64; 4: 20, 80x45: fine tile grids, so that a
// camera's uneven lighting and vignetting are evened out locally before the
// extraction step thresholds the frame.
void adaptive_histogram_equalization(unsigned char* buffer, int width, int height,
                                     float clipLimit, int tilesX, int tilesY);

// ---- SIFT features --------------------------------------------------------

// SIFT keypoints and descriptors (Lowe, "Distinctive image features from
// scale-invariant keypoints", IJCV 2004) with a tuned setting: no feature
// limit, 4 layers per octave, contrast threshold 0.0005 (OpenCV's default is
// 0.04), edge threshold 10, sigma 2.6 (default 1.6). The very low threshold
// keeps nearly every extremum, so that flat, dim or blurred captures still
// give features everywhere; the large sigma favours coarse structure that
// survives a camera's blur and moire. `affine` wraps the detector in
// OpenCV's affine simulation (ASIFT: tilts up to 5 in steps of sqrt 2,
// rotation steps of 72 degrees / tilt): many times slower, for steep views.
void SIFTdetectAndCompute(const cv::Mat& image, std::vector<cv::KeyPoint>& keypoints,
                          cv::Mat& descriptors, bool affine);

// Reference features: from `load` (null name) when it hits, else computed and
// handed to `save`. The search takes the reference's features through it.
void get_keypoints_descriptors_ref(const cv::Mat& image, std::vector<cv::KeyPoint>& keypoints,
                                   cv::Mat& descriptors, const FeatureLoadCallback& load,
                                   const FeatureSaveCallback& save);

// Input features for one preprocessing type: cached under the type's name, or
// computed on the filtered picture and handed to `save`.
void get_keypoints_descriptors_cpy(const cv::Mat& image, std::vector<cv::KeyPoint>& keypoints,
                                   cv::Mat& descriptors, PreprocessingType type,
                                   const FeatureLoadCallback& load,
                                   const FeatureSaveCallback& save, bool affine);

// Fills the cache with the input's features for type values 0..5 in turn.
void generate_copy_features(const cv::Mat& image, const FeatureLoadCallback& load,
                            const FeatureSaveCallback& save);

// ---- Statistics and geometry ----------------------------------------------

// Linear-interpolated q-quantile in single precision; `data` is not changed.
// Throws std::invalid_argument on empty data; q must lie in [0, 1].
float calculate_quantile(const std::vector<float>& data, float q);

// Linear-interpolated q-quantile in double precision; sorts `data` in place.
// Throws std::invalid_argument on empty data or q outside [0, 1].
double quantile(std::vector<double>& data, double q);

// Signed angle at b from ray b->a to ray b->c, degrees in [-180, 180];
// clockwise on screen (y down) is positive.
double get_angle(const cv::Point2f& a, const cv::Point2f& b, const cv::Point2f& c);

// Unsigned angle at b between rays b->a and b->c, degrees in [0, 180]. (Not
// called by framealign; the earlier form of get_angle.)
double get_angle_old(const cv::Point2f& a, const cv::Point2f& b, const cv::Point2f& c);

// Whether a corner array is a plausible view of a width x height frame: every
// side at least a twentieth of the frame, every corner angle in [45, 135]
// degrees with the frame's turning direction (a mirrored view fails).
bool check_ref_pts_sanity(const double* pts, int width, int height);
// The first of those checks that fails, in words with its figure; empty
// when the corners pass.
std::string sanity_failure(const double* pts, int width, int height);

// Area of the convex hull of the points rounded to pixels; 1.0 for fewer than 3.
double calculateConvexHullArea(const std::vector<cv::Point2f>& pts);

// The match term of a score, for `pairs_by_area`: the number of agreeing
// pairs times the area they cover (hull area, pixels). 100 / (pairs x
// area)^0.333; the exponent is deliberately 0.333, not an exact cube root.
double match_term(double pairs_by_area);

// ---- Matching and scoring -------------------------------------------------

// Matches whose two keypoints are both larger than the q-quantile of their
// side's sizes, or else both stronger than the q-quantile of the responses.
// Large, strong keypoints are the ones a camera's blur and moire leave in place.
std::vector<cv::DMatch> select_best_matches(const std::vector<cv::DMatch>& matches, float q,
                                            const std::vector<cv::KeyPoint>& refKeypoints,
                                            const std::vector<cv::KeyPoint>& inputKeypoints);

// Fits homographies both ways with RHO (Bazargani, Bilaniuk and Laganiere,
// "A fast and robust homography scheme for real-time planar target
// detection", J. Real-Time Image Processing, 2015): PROSAC-style sampling of
// the best-ranked matches first, so callers pass them sorted by distance.
// Reprojection threshold 10 px (loose, for the grid-selected sample that
// inspect_matches checks again at 100 px), at most 2000 iterations, confidence
// 0.995. Projects `refCorners` into the input (`inputCorners`, 8 values) and
// returns the input-to-reference homography. On failure: an empty matrix,
// `inputCorners` untouched.
cv::Mat get_homography_pts(const std::vector<cv::DMatch>& matches,
                           const std::vector<cv::KeyPoint>& refKeypoints,
                           const std::vector<cv::KeyPoint>& inputKeypoints,
                           const double* refCorners, double* inputCorners);

// Grid-selected matches that agree within 100 px with the located corners,
// ascending by distance. The 6 x 3 grid over the reference (the frame's 16:9
// cut into nearly square cells) keeps the strongest few matches of every
// cell, relaxing the quantile from 0.95 until more than 4 survive, so that
// the fit sees the whole frame and not only its most textured part.
// `score` = 100 / (inliers * hull area)^0.333, +inf for no inliers,
// untouched when the corner fit throws (result then empty).
std::vector<cv::DMatch> inspect_matches(const std::vector<cv::DMatch>& matches,
                                        const std::vector<cv::KeyPoint>& refKeypoints,
                                        const std::vector<cv::KeyPoint>& inputKeypoints,
                                        int width, int height, const double* refCorners,
                                        double& score);

// Input features for `type` (cache or SIFT), then FLANN matching (Muja and
// Lowe, 2009: 4 randomised k-d trees, 32 checks) of every reference
// descriptor against them with Lowe's ratio test at 0.78 (his paper's 0.8,
// a little stricter against a screen's repeated patterns), then
// inspect_matches. `secondImage` and `name` are accepted and not read.
std::vector<cv::DMatch> calculateMatches(
    const cv::Mat& inputImage, const cv::Mat& secondImage, int width, int height, int type,
    const double (&refCorners)[8], const char* name, const cv::Mat& refDescriptors,
    const std::vector<cv::KeyPoint>& refKeypoints, cv::Mat& inputDescriptors,
    std::vector<cv::KeyPoint>& inputKeypoints, const FeatureLoadCallback& load,
    const FeatureSaveCallback& save, double& score, bool affine);

// Mean displacement in pixels of the better half of fresh SIFT matches between
// an aligned plane and the reference; kFailedScore for fewer than 10 matches
// or when nothing lies below the median (a perfect copy included).
double get_rectification_score(const unsigned char* rectified,
                               const std::vector<cv::KeyPoint>& refKeypoints,
                               const cv::Mat& refDescriptors, int width, int height);

// ---- Warps ----------------------------------------------------------------

// Warps `image` so that the corners `pts` land on a (width - pad_x) x
// (height - pad_y) frame, then pads black right and below to width x height;
// `content_pts` gets that unpadded frame's outline (first 8 values). Throws
// std::invalid_argument for corners that are not finite or of which three
// lie on one line.
void align_by_pts(const cv::Mat& image, int width, int height, int pad_x, int pad_y,
                  const double* pts, unsigned char* aligned, double* content_pts);

// Outline (up to 10 points, as x y pairs from value 1 on) of where `image`
// lands in the width x height frame under `transform`; the frame's own
// outline when nothing lands there.
void get_content_area(const cv::Mat& transform, const cv::Mat& image, int width, int height,
                      double* content_pts);

// Locates the reference corners from matches (into `pts`) and warps `image`
// onto the width x height frame. Leaves all outputs alone when no homography
// can be fitted.
void align_frame(const std::vector<cv::DMatch>& matches,
                 const std::vector<cv::KeyPoint>& refKeypoints,
                 const std::vector<cv::KeyPoint>& inputKeypoints, const cv::Mat& image,
                 int width, int height, const double* refCorners, unsigned char* aligned,
                 double* pts, double* content_pts);

// ---- Search and driver ----------------------------------------------------
//
// framealign's per-slot arrays: six frame buffers of width x height bytes,
// six corner rows and six content polygons (unwritten values -1). A search
// fills slots 0..k-1 with its k successful attempts and k..2k-1 with their
// enhanced copies; corner rows of the copies are not written (the writer
// reads row i mod k). These functions are the program's adapters over the
// slot records of slots.h, which the library passes among its stages.

// Runs the three preprocessing attempts in parallel (after the optional
// advanced pre-pass), compacts the successful ones to the front and stores
// the lowest score (kFailedScore when none succeeded). Returns their count k.
int get_rectified_imgs(const cv::Mat& image, int width, int height, const char* result_folder,
                       const unsigned char* reference, unsigned char** aligned, double (*pts)[8],
                       double (*content_pts)[20], double* best_score,
                       const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                       bool advanced);

// Fills the slots of the two modes that have a reference and no corners:
// no rectification (the input as it lies, one slot) or the search; each
// result gets its enhanced copy behind the results. Returns the number of
// filled slots (0 when the search found nothing). The alignment driver
// handles the other modes itself: given corners (pts_in[7] != 0) or a null
// reference are refused with std::invalid_argument.
int generate_extraction_input(const char* result_folder, const cv::Mat& image,
                              const unsigned char* reference, int width, int height, int no_rectify,
                              const double* pts_in, unsigned char** aligned, double (*pts)[8],
                              double (*content_pts)[20], double* best_score,
                              const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                              bool advanced);

// The whole alignment, as framealign runs it. Without reference and corners
// it only caches the input's features (returns -1). With corners
// (pts[7] != 0) it writes one slot per output variant (default 3, 0), padded
// to the crop aspect, and returns 0. Otherwise it searches (or, with
// no_rectify, copies) and returns the best score. Writes the result folder
// when one is given. Exceptions from any stage, worker threads' included,
// reach the caller.
double align_frame(const unsigned char* input, const unsigned char* reference, int width,
                   int height, int input_width, int input_height, int crop_width,
                   int crop_height, int no_rectify, const double* pts, const char* result_folder,
                   const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                   bool advanced, const std::vector<int>& outputs, bool jpeg_output);

// ---- Results --------------------------------------------------------------

// Writes per slot i: aligned_i__WxxH.yuv (raw luma), pts_i.txt, content_pts_i.txt
// and, with `jpeg_output`, in_i.jpg (input with the corners outlined) and
// aligned_i.jpg; then best_result.txt. One thread per slot.
void save_alignment_results(const char* result_folder, const unsigned char* input,
                            unsigned char* const* aligned, const double (*pts)[8],
                            const double (*content_pts)[20], int count, int width, int height,
                            int input_width, int input_height, double best_score,
                            bool jpeg_output);

// Where the library's one diagnostic line goes (draw_matches_combined's
// "Failed to save image"): nowhere until a program sets a sink, since the
// library itself never prints. framealign's sink prints it on standard output.
using DiagnosticSink = std::function<void(const std::string& line)>;
void set_diagnostic_sink(DiagnosticSink sink);

// Diagnostic picture: both images side by side in an 800 x 600 box with the
// matches drawn, written as JPEG ("Failed to save image" to the diagnostic
// sink when it cannot be).
// (Not called by framealign; for looking at a match set by eye.)
void draw_matches_combined(const cv::Mat& image1, const cv::Mat& image2,
                           const std::vector<cv::DMatch>& matches,
                           const std::vector<cv::KeyPoint>& keypoints1,
                           const std::vector<cv::KeyPoint>& keypoints2,
                           const std::string& file_name);

}  // namespace framealign
