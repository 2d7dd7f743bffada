// framealign: brings a camera capture of a displayed picture back into the
// exact geometry of the known reference frame.
//
//   framealign::Reference reference = framealign::Reference::from_yuv("ref.yuv", 1920, 1080);
//   framealign::AlignOptions options;
//   options.refine = true;
//   const framealign::AlignResult result =
//       framealign::align(framealign::read_capture("shot.jpg"), reference, options);
//   if (result.status == "aligned") result.save("out");  // the files framealign writes
//
// Conventions:
//  - Pictures are cv::Mat of type CV_8UC1 (8-bit grey, one sample per pixel).
//  - Pixel coordinates have x to the right and y downwards; the upper-left
//    pixel's upper-left corner is (0, 0), so a W x H frame spans (0,0)-(W,H).
//  - A corner array is 8 doubles x1 y1 x2 y2 x3 y3 x4 y4: where the reference
//    frame's top-left, top-right, bottom-left and bottom-right corners lie in
//    the capture, in capture pixels (a Z order, not a ring).
//  - Scores are lower-is-better.
//  - Every failure a caller can act on is thrown as framealign::Error, whose
//    what() is the message to show. The library never prints and never exits.
//  - A Reference may be shared by any number of threads aligning at once.
#pragma once

#include <array>
#include <atomic>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "framealign/version.h"

#define FRAMEALIGN_API __attribute__((visibility("default")))

namespace framealign {

// A failure the caller can act on: an unreadable file, a damaged cache, a
// picture of the wrong type, an impossible option.
class FRAMEALIGN_API Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An alignment stopped by its caller (AlignOptions::stop).
class FRAMEALIGN_API Cancelled : public Error {
 public:
  using Error::Error;
};

// The library's version, "MAJOR.MINOR.PATCH".
FRAMEALIGN_API const char* version();

// ---- The reference frame --------------------------------------------------

// A reference frame with its SIFT features, computed once for every
// alignment against it. Cheap to copy (copies share one immutable frame).
class FRAMEALIGN_API Reference {
 public:
  // Frame `frame` of a headerless planar YUV file (4:2:0 for videos, 4:4:4
  // for pictures; only luma is read). Its features come from the feature
  // cache "<folder>/<stem>_<frame>.ftrs" beside it (in the current folder
  // for a path without one) only when the note beside that cache
  // ("<cache>.source") says it was made from this very frame; else they are
  // computed, and the cache and its note written. With the file missing, the
  // cache alone serves, and the frame's pixels are zeros. Throws Error when
  // neither is there, when the file is too short for the frame, or when the
  // cache is damaged or cannot belong to a width x height frame (keypoints
  // outside it, or none beyond 60% of its width or height).
  static Reference from_yuv(const std::string& path, int width, int height, int frame = 0);
  // A grey picture (CV_8UC1, copied); features computed here.
  static Reference from_picture(const cv::Mat& grey);
  // Features from a .ftrs cache file alone; the frame's pixels are zeros.
  static Reference from_ftrs(const std::string& path, int width, int height);
  // A reference restored from what picture(), keypoints() and descriptors()
  // gave (as when it was sent to another process). Throws Error when they do
  // not fit together.
  static Reference from_features(const cv::Mat& picture, std::vector<cv::KeyPoint> keypoints,
                                 const cv::Mat& descriptors);

  int width() const;
  int height() const;
  const cv::Mat& picture() const;  // CV_8UC1, height x width
  const std::vector<cv::KeyPoint>& keypoints() const;
  const cv::Mat& descriptors() const;  // one row per keypoint

  struct Data;  // the library's own
  const Data& data() const { return *data_; }

 private:
  explicit Reference(std::shared_ptr<Data> data);
  std::shared_ptr<Data> data_;
};

// ---- One alignment --------------------------------------------------------

// What align() is asked to do. The defaults are framealign's.
struct AlignOptions {
  // Before the search, try plain, affine and mirrored matching on small
  // copies, and search the way that finds the most matches (mirrored
  // captures, steep views). Slower.
  bool advanced = false;
  // Refine each found frame below a pixel; the result gains est_error_px.
  bool refine = false;
  // A quick path first (implies refine): taken only when verified, else the
  // full search runs exactly as with refine alone. The result says which in
  // `path`.
  bool fast = false;
  // Output variants of the frames when `corners` are given: 0 raw, 1 to 4
  // CLAHE settings, in this order, each once (see parse_outputs).
  std::vector<int> outputs = {3, 0};
  // Whether save() writes JPEG previews (in_i.jpg, aligned_i.jpg).
  bool jpeg_output = false;
  // Corners given by hand: no search; the capture is warped by them.
  std::optional<std::array<double, 8>> corners;
  // With `corners`: pad the frame black at the right or bottom so that its
  // picture has the aspect of a crop_width x crop_height crop; 0 disables.
  int crop_width = 0;
  int crop_height = 0;
  // Rough corners (as `corners`, a few percent of the screen's size off at
  // most, as clicked by hand): the features are matched only where they put
  // the screen, the geometry is refined below a pixel and verified as the
  // quick path's is (implies refine). Verified: status "aligned", path
  // "hint". Not verified: status "hint_unverified", the capture warped by
  // the hint as given, and `reason` says why. Not with `corners` or
  // `no_rectify`.
  std::optional<std::array<double, 8>> hint;
  // No search and no warp: the capture's first width x height bytes as the
  // frame (for captures already in the reference's geometry).
  bool no_rectify = false;
  // The capture's file path, when its features may be cached beside it
  // ("<folder>/<stem>_<filter>.ftrs", read and written); empty: no cache.
  // A cache file is used only when the note written beside it
  // ("<cache>.source") says it was made from this very capture.
  std::string capture_cache;
  // When given, another thread may set it to stop the alignment: it is
  // checked before every stage (the longest, a SIFT extraction of the
  // capture, takes about a second for 12 MP), and align then throws
  // Cancelled.
  const std::atomic<bool>* stop = nullptr;

  // Whether a found frame is refined, and so carries est_error_px: asked
  // for by `refine`, or by `fast`, which implies it.
  bool refines() const;
};

// ---- Where the reference lies in the capture --------------------------------

// A mapping from reference pixels to capture pixels: a homography followed
// by radial lens distortion about `centre`. With u = homography * (x, y) and
// rho = |u - centre| / scale, the capture point is
//   centre + (u - centre) * (1 + k1 * rho^2 + k2 * rho^4).
// k1 = k2 = 0 is a plain homography (a flat screen through an ideal lens);
// barrel distortion has k1 < 0. Pixel coordinates have their origin at the
// top-left corner of the top-left pixel, as the corner files do.
struct FRAMEALIGN_API Mapping {
  cv::Matx33d homography = cv::Matx33d::eye();  // reference to undistorted capture, h22 = 1
  cv::Point2d centre;                           // capture pixels
  double scale = 1.0;                           // capture pixels; half the capture's diagonal
  double k1 = 0.0;
  double k2 = 0.0;

  bool has_lens() const { return k1 != 0.0 || k2 != 0.0; }
  cv::Point2d to_capture(const cv::Point2d& reference_point) const;
  // The inverse; (NaN, NaN) for a point the lens cannot have imaged (beyond
  // the radius where the distortion stops growing) or that the homography
  // sends to infinity.
  cv::Point2d to_reference(const cv::Point2d& capture_point) const;
  std::vector<cv::Point2d> to_capture(const std::vector<cv::Point2d>& points) const;
  std::vector<cv::Point2d> to_reference(const std::vector<cv::Point2d>& points) const;
};

// The statuses of an AlignResult.
inline constexpr const char kAligned[] = "aligned";
inline constexpr const char kNotFound[] = "not_found";
inline constexpr const char kUnrectified[] = "unrectified";
inline constexpr const char kHintUnverified[] = "hint_unverified";

// What align() found.
// One match that located an answer: where it lies on the reference, and how
// far the answer's geometry puts the capture point it was matched with from
// there.
struct MatchPoint {
  double x = 0.0, y = 0.0;  // reference pixels
  // Reference pixels; NaN when the answer was not refined.
  double residual = std::numeric_limits<double>::quiet_NaN();
};

struct FRAMEALIGN_API AlignResult {
  // "aligned" (the frame was found, or corners were given), "not_found" (no
  // attempt succeeded), "unrectified" (no_rectify: the capture as it is), or
  // "hint_unverified" (a hint that could not be refined and verified: the
  // frame is warped by the hint's corners, which are only as good as the
  // clicks that made them).
  std::string status;
  // Why the capture was not found, a hint not verified or the quick path's
  // answer refused, in words with the figures of the step that gave up; ""
  // otherwise.
  std::string reason;
  // The best attempt's score, lower is better; 999999 when not found, 0 with
  // corners given or no_rectify.
  double score = 999999.0;
  // The result slot of the best attempt, and every successful attempt's
  // score by slot (the search's attempts only).
  std::optional<int> best_slot;
  std::vector<double> slot_scores;
  // Where the reference frame lies in the capture (the best slot's, or the
  // given ones); none when not found or unrectified.
  std::optional<std::array<double, 8>> corners;
  // With refine: the best slot's estimated largest error anywhere in the
  // frame, in reference pixels (+inf when its matches were too few to tell).
  std::optional<double> est_error_px;
  // Reference pixels to capture pixels, from `corners`.
  std::optional<cv::Matx33d> homography;
  // The best slot's full mapping (with refine, lens distortion when the
  // evidence shows it; otherwise the homography above), in the coordinates
  // of `corners` (of the mirrored capture when the advanced pre-pass
  // mirrored it). None when not found or unrectified.
  std::optional<Mapping> mapping;
  // The matches that located the best slot (the search attempt's kept
  // matches, or the quick path's or the hint's agreeing ones), with their
  // residuals when refined; for a capture not found, the matches of the
  // attempt that kept the most (no residuals). Empty with corners given, no
  // rectification, an unverified hint or a tracked frame.
  std::vector<MatchPoint> matches;
  // With fast: "fast" when the quick path was verified, else "full"; a
  // frame of a video tracked from the frame before (VideoAligner): "tracked";
  // with a hint: "hint".
  std::string path;
  // The aligned frames, one per result slot (reference size, CV_8UC1), as
  // the result folder holds them.
  std::vector<cv::Mat> frames;

  // `mapping` applied to points (N x 2); Error when there is none.
  std::vector<cv::Point2d> to_capture(const std::vector<cv::Point2d>& points) const;
  std::vector<cv::Point2d> to_reference(const std::vector<cv::Point2d>& points) const;

  // Writes the result folder as framealign --result-folder would (created
  // when missing): aligned_i__WxxH.yuv, pts_i.txt, content_pts_i.txt, the
  // previews when asked for, and best_result.txt last; with refine also
  // mapping_i.txt per slot (see write_mapping). Throws Error naming the file
  // that could not be written.
  void save(const std::string& folder) const;

  // The whole result, its files included, as bytes, and back: for sending a
  // result to another process of the same build (Python pickles results
  // this way). from_bytes checks what it reads and throws Error for bytes
  // that are not such a result.
  std::string to_bytes() const;
  static AlignResult from_bytes(const std::string& bytes);

  struct Files;  // what save() needs beyond the fields above
  std::shared_ptr<const Files> files;
};

// Finds `reference` in `capture` (CV_8UC1, any size) and warps the capture
// onto the reference frame. Throws Error for a capture that is not an 8-bit
// grey picture, or for options that cannot be met.
FRAMEALIGN_API AlignResult align(const cv::Mat& capture, const Reference& reference,
                                 const AlignOptions& options = {});

// ---- Helpers --------------------------------------------------------------

// A capture as framealign reads it: an image file (PNG, JPEG, TIFF, WebP,
// BMP) as 8-bit grey, every non-zero sample of a PNG raised by 16; any
// other file as the first frame of a raw YUV 4:2:0 file of width x height.
// Throws Error with framealign's message when it cannot be read.
FRAMEALIGN_API cv::Mat read_capture(const std::string& path, int width = 1920,
                                    int height = 1080);

// `capture` warped by `corners` onto a width x height frame and finished as
// output variant `variant` (0 raw, 1 to 4 CLAHE). Throws Error for a variant
// outside 0..4 or corners of which three lie on one line.
FRAMEALIGN_API cv::Mat warp_by_corners(const cv::Mat& capture, const std::array<double, 8>& corners,
                                       int width, int height, int variant = 0);

// Output variants named as framealign's --output takes them: numbers 0..4
// and the presets fast (3), medium (3, 0), slow (3, 0, 4) and slowest
// (3, 0, 4, 2, 1), comma-separated; each variant once, in first-seen order.
// Throws Error with the reason.
FRAMEALIGN_API std::vector<int> parse_outputs(const std::string& text);

// CPUs this process may run on (its affinity mask, as taskset, cpusets and
// cluster schedulers narrow it); at least 1.
FRAMEALIGN_API int usable_cpu_count();

// Keeps freed memory in one heap for reuse, so that a search's SIFT
// pyramids (hundreds of megabytes per layer, allocated and freed layer by
// layer) are not mapped and faulted afresh for every attempt. For processes
// that run many alignments; call once, before the first.
FRAMEALIGN_API void keep_freed_memory_for_reuse();

}  // namespace framealign
