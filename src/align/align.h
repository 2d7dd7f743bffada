// Public interface of the alignment library: finds a known reference frame
// inside a captured picture and warps the capture back onto the frame.
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

#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

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

// CLAHE setting of an output variant.
struct ClaheSetting {
  float clip_limit;
  int tiles_x;  // tiles across
  int tiles_y;  // tiles down
};

// Output variants: 0 is the raw aligned plane (clip limit 0 here means "no
// CLAHE"), 1..4 are CLAHE settings. Codes outside 0..4 are left raw too.
constexpr ClaheSetting kOutputVariants[5] = {
    {0.0f, 0, 0}, {40.0f, 12, 8}, {20.0f, 32, 32}, {18.0f, 40, 64}, {20.0f, 80, 45}};

// The variant used for the enhanced copy of every search result.
constexpr int kEnhancedCopyVariant = 2;

// ---- Preprocessing --------------------------------------------------------

// Name under which features of `type` are cached ("UNKNOWN" for other values).
std::string get_preprocessing_name(PreprocessingType type);

// The caller's buffer as a CV_8UC1 matrix, without copying.
cv::Mat decode_raw_buffer(unsigned char* data, int width, int height);

// A filtered copy of `image`; the input is never changed.
cv::Mat apply_preprocessing(const cv::Mat& image, PreprocessingType type);

// CLAHE of a packed 8-bit plane, in place.
void adaptive_histogram_equalization(unsigned char* buffer, int width, int height,
                                     float clipLimit, int tilesX, int tilesY);

// Finishes a plane as output variant `code` (0 and unknown codes: unchanged).
void apply_output_variant(unsigned char* buffer, int width, int height, int code);

// ---- SIFT features --------------------------------------------------------

// SIFT keypoints and descriptors with the tuned setting (0, 4, 0.0005, 10, 2.6);
// `affine` wraps the detector in affine simulation (many times slower).
void SIFTdetectAndCompute(const cv::Mat& image, std::vector<cv::KeyPoint>& keypoints,
                          cv::Mat& descriptors, bool affine);

// Reference features: from `load` (null name) when it hits, else computed and
// handed to `save`.
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

// Unsigned angle at b between rays b->a and b->c, degrees in [0, 180].
double get_angle_old(const cv::Point2f& a, const cv::Point2f& b, const cv::Point2f& c);

// Whether a corner array is a plausible view of a width x height frame: every
// side at least a twentieth of the frame, every corner angle in [45, 135]
// degrees with the frame's turning direction (a mirrored view fails).
bool check_ref_pts_sanity(const double* pts, int width, int height);

// Area of the convex hull of the points rounded to pixels; 1.0 for fewer than 3.
double calculateConvexHullArea(const std::vector<cv::Point2f>& pts);

// ---- Matching and scoring -------------------------------------------------

// FLANN k-d tree (4 trees, 32 checks) nearest two input descriptors for every
// reference descriptor; keeps the nearest where 0.78 * second > first, in
// reference order. Throws std::runtime_error when there is no input
// descriptor to match against.
std::vector<cv::DMatch> ratio_test_matches(const cv::Mat& refDescriptors,
                                           const cv::Mat& inputDescriptors);

// Matches whose two keypoints are both larger than the q-quantile of their
// side's sizes, or else both stronger than the q-quantile of the responses.
std::vector<cv::DMatch> select_best_matches(const std::vector<cv::DMatch>& matches, float q,
                                            const std::vector<cv::KeyPoint>& refKeypoints,
                                            const std::vector<cv::KeyPoint>& inputKeypoints);

// Fits RHO homographies both ways, projects `refCorners` into the input
// (`inputCorners`, 8 values) and returns the input-to-reference homography.
// On failure: an empty matrix, `inputCorners` untouched.
cv::Mat get_homography_pts(const std::vector<cv::DMatch>& matches,
                           const std::vector<cv::KeyPoint>& refKeypoints,
                           const std::vector<cv::KeyPoint>& inputKeypoints,
                           const double* refCorners, double* inputCorners);

// Grid-selected matches that agree within 100 px with the located corners,
// ascending by distance; `score` = 100 / (inliers * hull area)^0.333, +inf
// for no inliers, untouched when the corner fit throws (result then empty).
std::vector<cv::DMatch> inspect_matches(const std::vector<cv::DMatch>& matches,
                                        const std::vector<cv::KeyPoint>& refKeypoints,
                                        const std::vector<cv::KeyPoint>& inputKeypoints,
                                        int width, int height, const double* refCorners,
                                        double& score);

// Input features for `type` (cache or SIFT), FLANN matching against the
// reference with the 0.78 ratio test, then inspect_matches. `secondImage` and
// `name` are accepted and not read.
std::vector<cv::DMatch> calculateMatches(
    const cv::Mat& inputImage, const cv::Mat& secondImage, int width, int height, int type,
    const double (&refCorners)[8], const char* name, const cv::Mat& refDescriptors,
    const std::vector<cv::KeyPoint>& refKeypoints, cv::Mat& inputDescriptors,
    std::vector<cv::KeyPoint>& inputKeypoints, const FeatureLoadCallback& load,
    const FeatureSaveCallback& save, double& score, bool affine);

// The matching half of calculateMatches, on features already extracted.
std::vector<cv::DMatch> match_features(int width, int height, const double* refCorners,
                                       const cv::Mat& refDescriptors,
                                       const std::vector<cv::KeyPoint>& refKeypoints,
                                       const cv::Mat& inputDescriptors,
                                       const std::vector<cv::KeyPoint>& inputKeypoints,
                                       double& score);

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
// Result slots: six frame buffers of width x height bytes, six corner rows
// and six content polygons (unwritten values -1). A search fills slots
// 0..k-1 with its k successful attempts and k..2k-1 with their enhanced
// copies; corner rows of the copies are not written (the writer reads row
// i mod k).

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

// How the advanced pre-pass says the full-size attempts should match.
struct MatchingMode {
  bool affine = false;  // affine-simulating SIFT
  bool mirror = false;  // on the input mirrored left-right
  std::size_t trial_matches[3] = {};  // inliers of the plain, affine and mirrored trial
};

// The advanced pre-pass: plain, affine and mirrored trials on copies of both
// pictures scaled to a height of 360 (less for small references); a trial
// wins with more than 10 matches and more than twice the kept trial's.
MatchingMode choose_matching_mode(const cv::Mat& image, const cv::Mat& reference,
                                  const char* result_folder);

// Runs the three preprocessing attempts in parallel (after the optional
// advanced pre-pass), compacts the successful ones to the front and stores
// the lowest score (kFailedScore when none succeeded). Returns their count k.
int get_rectified_imgs(const cv::Mat& image, int width, int height, const char* result_folder,
                       unsigned char* reference, unsigned char** aligned, double (*pts)[8],
                       double (*content_pts)[20], double* best_score,
                       const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                       bool advanced);

// Fills the slots for given corners (pts_in[7] != 0), no reference, no
// rectification, or a search; returns the number of filled slots (0 when the
// search found nothing).
int generate_extraction_input(const char* result_folder, const cv::Mat& image,
                              unsigned char* reference, int width, int height, int no_rectify,
                              const double* pts_in, unsigned char** aligned, double (*pts)[8],
                              double (*content_pts)[20], double* best_score,
                              const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                              bool advanced);

// The whole alignment. Without reference and corners it only caches the
// input's features (returns -1). With corners (pts[7] != 0) it writes one slot
// per output variant (default 3, 0), padded to the crop aspect, and returns
// 0. Otherwise it searches and returns the best score. Writes the result
// folder when one is given.
double align_frame(unsigned char* input, unsigned char* reference, int width, int height,
                   int input_width, int input_height, int crop_width, int crop_height,
                   int no_rectify, const double* pts, const char* result_folder,
                   const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                   bool advanced, const std::vector<int>& outputs, bool jpeg_output);

// ---- Results --------------------------------------------------------------

// Writes `size` bytes to `path` through a temporary name renamed into place.
// Throws std::runtime_error when it cannot.
void write_result_file(const std::string& path, const void* data, std::size_t size);

// Writes per slot i: aligned_i__WxxH.yuv (raw luma), pts_i.txt, content_pts_i.txt
// and, with `jpeg_output`, in_i.jpg (input with the corners outlined) and
// aligned_i.jpg; then best_result.txt. One thread per slot.
void save_alignment_results(const char* result_folder, const unsigned char* input,
                            unsigned char* const* aligned, const double (*pts)[8],
                            const double (*content_pts)[20], int count, int width, int height,
                            int input_width, int input_height, double best_score,
                            bool jpeg_output);

// Diagnostic picture: both images side by side in an 800 x 600 box with the
// matches drawn, written as JPEG ("Failed to save image" when it cannot be).
void draw_matches_combined(const cv::Mat& image1, const cv::Mat& image2,
                           const std::vector<cv::DMatch>& matches,
                           const std::vector<cv::KeyPoint>& keypoints1,
                           const std::vector<cv::KeyPoint>& keypoints2,
                           const std::string& file_name);
