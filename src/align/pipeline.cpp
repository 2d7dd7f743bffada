#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/corner_points.h"
#include "align/parallel_for.h"

namespace {

constexpr int kSlots = 6;
constexpr int kAttempts = 3;

std::size_t plane_size(int width, int height) {
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

// Copies a width x height plane out of a warped picture. The picture may be
// larger (its first bytes are taken as they lie) but never smaller.
void copy_plane(const cv::Mat& picture, unsigned char* out, int width, int height) {
  const std::size_t bytes = plane_size(width, height);
  if (!picture.isContinuous() || picture.total() * picture.elemSize() < bytes) {
    throw std::runtime_error("aligned picture of " + std::to_string(picture.cols) + "x" +
                             std::to_string(picture.rows) + " cannot fill a " +
                             std::to_string(width) + "x" + std::to_string(height) + " frame");
  }
  std::memcpy(out, picture.data, bytes);
}

std::vector<cv::Point2f> frame_points(float width, float height) {
  return {{0, 0}, {width, 0}, {0, height}, {width, height}};
}

// Four finite corners of which no three lie on one line.
bool is_quadrilateral(const double* pts) {
  for (int i = 0; i < 8; ++i) {
    if (!std::isfinite(pts[i])) return false;
  }
  const cv::Point2d p[4] = {{pts[0], pts[1]}, {pts[2], pts[3]}, {pts[4], pts[5]}, {pts[6], pts[7]}};
  for (int skip = 0; skip < 4; ++skip) {
    cv::Point2d t[3];
    for (int i = 0, k = 0; i < 4; ++i) {
      if (i != skip) t[k++] = p[i];
    }
    const double twice_area = (t[1] - t[0]).cross(t[2] - t[0]);
    if (std::abs(twice_area) < 1e-6) return false;
  }
  return true;
}

// The frame's own outline (0,0) (0,H) (W,H) (W,0) as the first 8 polygon values.
void write_frame_polygon(int width, int height, double* content_pts) {
  const double polygon[8] = {0, 0, 0, static_cast<double>(height), static_cast<double>(width),
                             static_cast<double>(height), static_cast<double>(width), 0};
  std::copy(polygon, polygon + 8, content_pts);
}

void write_enhanced_copy(const unsigned char* from, unsigned char* to, int width, int height) {
  std::memcpy(to, from, plane_size(width, height));
  apply_output_variant(to, width, height, kEnhancedCopyVariant);
}

// Corners given by hand: the aligned frame in slot 0 and its enhanced copy.
int align_given_corners(const cv::Mat& image, int width, int height, const double* pts_in,
                        unsigned char** aligned, double (*pts)[8], double (*content_pts)[20],
                        bool enhance_first) {
  std::copy(pts_in, pts_in + 8, pts[0]);
  align_by_pts(image, width, height, 0, 0, pts[0], aligned[0], content_pts[0]);
  std::memcpy(aligned[1], aligned[0], plane_size(width, height));
  apply_output_variant(enhance_first ? aligned[0] : aligned[1], width, height,
                       kEnhancedCopyVariant);
  return 2;
}

// FLANN's randomised k-d trees draw from OpenCV's per-thread generator.
// Starting every attempt, and the advanced pre-pass, from a fresh generator
// makes their results independent of which thread runs them, and of what
// ran before.
void reset_thread_rng() { cv::theRNG() = cv::RNG(); }

SearchSchedule g_schedule = SearchSchedule::AUTOMATIC;

// With few cores, concurrent attempts mostly contend: OpenCV runs a parallel
// loop serially while another thread is inside one, so three attempts on two
// cores hold three SIFT pyramids (3.4 GB each for a 12 MP input) and finish
// later than the pipeline (bench/RESULTS.md). With six or more usable
// CPUs, attempts side by side can keep cores busy that one extraction's
// serial pyramid building leaves idle (not measured: the project's machine
// has two cores).
SearchSchedule effective_schedule() {
  if (g_schedule != SearchSchedule::AUTOMATIC) return g_schedule;
  return usable_cpu_count() >= 6 ? SearchSchedule::ONE_THREAD_PER_ATTEMPT
                                  : SearchSchedule::PIPELINED;
}

}  // namespace

void set_search_schedule(SearchSchedule schedule) { g_schedule = schedule; }

void align_by_pts(const cv::Mat& image, int width, int height, int pad_x, int pad_y,
                  const double* pts, unsigned char* aligned, double* content_pts) {
  // OpenCV answers a degenerate quadrilateral with a meaningless frame; a
  // user who gave such corners gets told instead.
  if (!is_quadrilateral(pts)) {
    std::string values;
    for (int i = 0; i < 8; ++i) values += (i ? " " : "") + std::to_string(pts[i]);
    throw std::invalid_argument("Corner points do not form a quadrilateral: " + values);
  }
  const int inner_width = width - pad_x;
  const int inner_height = height - pad_y;
  const cv::Mat M = cv::getPerspectiveTransform(
      corner_points(pts),
      frame_points(static_cast<float>(inner_width), static_cast<float>(inner_height)),
      cv::DECOMP_LU);
  cv::Mat warped;
  cv::warpPerspective(image, warped, M, cv::Size(inner_width, inner_height), cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT, cv::Scalar(0));
  write_frame_polygon(inner_width, inner_height, content_pts);
  if (pad_x > 0 || pad_y > 0) {
    // Padding goes right and below only: the picture stays at the top-left.
    cv::copyMakeBorder(warped, warped, 0, pad_y, 0, pad_x, cv::BORDER_CONSTANT, cv::Scalar(0));
  }
  copy_plane(warped, aligned, width, height);
}

void get_content_area(const cv::Mat& transform, const cv::Mat& image, int width, int height,
                      double* content_pts) {
  const cv::Mat mask(image.size(), CV_8UC1, cv::Scalar(255));
  cv::Mat warped_mask;
  cv::warpPerspective(mask, warped_mask, transform, cv::Size(width, height), cv::INTER_NEAREST,
                      cv::BORDER_CONSTANT, cv::Scalar(0));
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(warped_mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE,
                   cv::Point(0, 0));
  if (contours.empty()) {
    write_frame_polygon(width, height, content_pts);
    return;
  }
  size_t largest = 0;
  double largest_area = 0.0;
  for (size_t i = 0; i < contours.size(); ++i) {
    const double area = cv::contourArea(contours[i], false);
    if (area > largest_area) {
      largest_area = area;
      largest = i;
    }
  }
  std::vector<cv::Point> polygon;
  cv::approxPolyDP(contours[largest], polygon, 3.0, true);
  if (polygon.size() <= 2) {
    write_frame_polygon(width, height, content_pts);
    return;
  }
  const size_t points = std::min<size_t>(polygon.size(), 10);
  for (size_t i = 0; i < points; ++i) {
    content_pts[2 * i] = polygon[i].x;
    content_pts[2 * i + 1] = polygon[i].y;
  }
}

void align_frame(const std::vector<cv::DMatch>& matches,
                 const std::vector<cv::KeyPoint>& refKeypoints,
                 const std::vector<cv::KeyPoint>& inputKeypoints, const cv::Mat& image,
                 int width, int height, const double* refCorners, unsigned char* aligned,
                 double* pts, double* content_pts) {
  const cv::Mat found = get_homography_pts(matches, refKeypoints, inputKeypoints, refCorners, pts);
  if (found.empty()) return;
  // The fitted homography only signals success; the warp comes from the corners.
  const cv::Mat M = cv::getPerspectiveTransform(
      corner_points(pts), frame_points(static_cast<float>(width), static_cast<float>(height)),
      cv::DECOMP_LU);
  cv::Mat warped;
  cv::warpPerspective(image, warped, M, cv::Size(width, height), cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT, cv::Scalar(0));
  get_content_area(M, image, width, height, content_pts);
  copy_plane(warped, aligned, width, height);
}

MatchingMode choose_matching_mode(const cv::Mat& image, const cv::Mat& reference,
                                  const char* result_folder) {
  // On a small copy of both pictures, try plain SIFT, affine SIFT and plain
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
  const double small_corners[8] = {0, 0, static_cast<double>(small_width), 0, 0,
                                   static_cast<double>(small_height),
                                   static_cast<double>(small_width),
                                   static_cast<double>(small_height)};
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
                       unsigned char* reference, unsigned char** aligned, double (*pts)[8],
                       double (*content_pts)[20], double* best_score,
                       const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                       bool advanced) {
  const cv::Mat ref(height, width, CV_8UC1, reference);
  const PreprocessingType attempts[kAttempts] = {GAUSSIAN_BLUR, ORIGINAL, MORPHOLOGICAL_OPENING};
  const int n = kAttempts;
  cv::Mat work = image;  // replaced by a mirrored copy when the pre-pass asks for one
  bool affine = false;

  std::vector<cv::KeyPoint> ref_keypoints;
  cv::Mat ref_descriptors;
  auto reference_features = [&] {
    if (!load || !load(ref_keypoints, ref_descriptors, nullptr)) {
      SIFTdetectAndCompute(ref, ref_keypoints, ref_descriptors, false);
      if (save) save(ref_keypoints, ref_descriptors, nullptr);
    }
  };
  const SearchSchedule schedule = effective_schedule();
  // The pipeline computes them while the first input features are extracted.
  if (schedule != SearchSchedule::PIPELINED) reference_features();

  if (advanced) {
    const MatchingMode mode = choose_matching_mode(image, ref, result_folder);
    affine = mode.affine;
    // Into a picture of its own: `image` is the caller's buffer, which the
    // results writer outlines unmirrored.
    if (mode.mirror) {
      cv::Mat mirrored;
      cv::flip(image, mirrored, 1);
      work = mirrored;
    }
  }

  const double ref_corners[8] = {0, 0, static_cast<double>(width), 0, 0,
                                 static_cast<double>(height), static_cast<double>(width),
                                 static_cast<double>(height)};
  double scores[kAttempts];
  std::fill(scores, scores + kAttempts, kFailedScore);
  std::vector<cv::KeyPoint> keypoints[kAttempts];
  cv::Mat descriptors[kAttempts];

  // The input features of attempt i (from the cache or SIFT). Uses no
  // random numbers.
  auto extract = [&](int i) {
    get_keypoints_descriptors_cpy(work, keypoints[i], descriptors[i], attempts[i], load, save,
                                  affine);
  };
  // Matching, warp and score of attempt i. Writes only slot i and scores[i].
  auto finish = [&](int i) {
    reset_thread_rng();
    double match_score = 1.0;
    // Not caught: a failure to match at all ends the process, as intended.
    const std::vector<cv::DMatch> matches =
        match_features(width, height, ref_corners, ref_descriptors, ref_keypoints,
                       descriptors[i], keypoints[i], match_score);
    if (matches.size() <= 3) return;
    try {
      align_frame(matches, ref_keypoints, keypoints[i], work, width, height, ref_corners,
                  aligned[i], pts[i], content_pts[i]);
      const double score =
          get_rectification_score(aligned[i], ref_keypoints, ref_descriptors, width, height) *
          match_score;
      if (!affine && score > 100.0 && !check_ref_pts_sanity(pts[i], image.cols, image.rows)) {
        throw std::runtime_error("bad ref pts");
      }
      scores[i] = score;
    } catch (const std::exception&) {
      // The attempt failed; its slot keeps whatever was written.
    }
  };

  if (schedule == SearchSchedule::PIPELINED) {
    // Extraction of attempt i + 1 overlaps the matching of attempt i: the
    // extraction's long serial stretches (building the Gaussian pyramid)
    // leave a core free for it, and only one large pyramid is alive at a time.
    std::mutex lock;
    std::condition_variable extracted_cv;
    int extracted = 0;
    bool stop = false;
    // An exception escaping the extraction thread ends the process, as an
    // uncaught extraction failure does in every schedule.
    std::thread extractor([&] {
      for (int i = 0; i < n; ++i) {
        {
          std::lock_guard<std::mutex> guard(lock);
          if (stop) return;
        }
        extract(i);
        std::lock_guard<std::mutex> guard(lock);
        extracted = i + 1;
        extracted_cv.notify_one();
      }
    });
    try {
      reference_features();
      for (int i = 0; i < n; ++i) {
        {
          std::unique_lock<std::mutex> guard(lock);
          extracted_cv.wait(guard, [&] { return extracted > i; });
        }
        finish(i);
      }
    } catch (...) {
      // Let the extractor end before the failure travels on.
      {
        std::lock_guard<std::mutex> guard(lock);
        stop = true;
      }
      extractor.join();
      throw;
    }
    extractor.join();
  } else {
    parallel_for(
        0, n,
        [&](int i) {
          extract(i);
          finish(i);
        },
        n);
  }

  double best = kFailedScore;
  int k = 0;
  for (int i = 0; i < n; ++i) {
    if (!(scores[i] < kFailedScore)) continue;
    best = std::min(best, scores[i]);
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

int generate_extraction_input(const char* result_folder, const cv::Mat& image,
                              unsigned char* reference, int width, int height, int no_rectify,
                              const double* pts_in, unsigned char** aligned, double (*pts)[8],
                              double (*content_pts)[20], double* best_score,
                              const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                              bool advanced) {
  if (pts_in[7] != 0.0) {
    return align_given_corners(image, width, height, pts_in, aligned, pts, content_pts, false);
  }
  if (reference == nullptr) {
    return align_given_corners(image, width, height, pts_in, aligned, pts, content_pts, true);
  }
  int k = 1;
  if (no_rectify != 0) {
    copy_plane(image, aligned[0], width, height);
    write_frame_polygon(width, height, content_pts[0]);
  } else {
    k = get_rectified_imgs(image, width, height, result_folder, reference, aligned, pts,
                           content_pts, best_score, load, save, advanced);
    if (k < 1) return 0;
  }
  for (int j = 0; j < k; ++j) write_enhanced_copy(aligned[j], aligned[k + j], width, height);
  return 2 * k;
}

double align_frame(unsigned char* input, unsigned char* reference, int width, int height,
                   int input_width, int input_height, int crop_width, int crop_height,
                   int no_rectify, const double* pts, const char* result_folder,
                   const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                   bool advanced, const std::vector<int>& outputs, bool jpeg_output) {
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_ERROR);

  double content_pts[kSlots][20];
  std::fill(&content_pts[0][0], &content_pts[0][0] + kSlots * 20, -1.0);
  const cv::Mat image(input_height, input_width, CV_8UC1, input);

  if (reference == nullptr && pts[7] == 0.0) {
    generate_copy_features(image, load, save);
    return -1.0;
  }

  if (width <= 0 || height <= 0) {
    throw std::invalid_argument("Invalid frame size: " + std::to_string(width) + "x" +
                                std::to_string(height));
  }
  // Zeroed rather than left undefined, so that a slot an attempt failed to
  // fill never carries stray memory into a score or a file.
  const std::size_t frame_bytes = plane_size(width, height);
  std::vector<unsigned char> storage(kSlots * frame_bytes, 0);
  unsigned char* aligned[kSlots];
  for (int i = 0; i < kSlots; ++i) aligned[i] = storage.data() + i * frame_bytes;
  double corner_rows[kSlots][8] = {};

  double result = 0.0;
  int count = 0;
  if (pts[7] == 0.0) {
    count = generate_extraction_input(result_folder, image, reference, width, height, no_rectify,
                                      pts, aligned, corner_rows, content_pts, &result, load, save,
                                      advanced);
  } else {
    int pad_x = 0;
    int pad_y = 0;
    if (crop_width >= 1 && crop_height >= 1) {
      const float r = (static_cast<float>(crop_width) / static_cast<float>(width)) /
                      (static_cast<float>(crop_height) / static_cast<float>(height));
      // r is single precision; the limits are compared in double.
      if (r > 1.001) {
        pad_y = height - static_cast<int>(static_cast<float>(height) / r + 0.5f);
      } else if (r < 0.999) {
        pad_x = width - static_cast<int>(static_cast<float>(width) * r + 0.5f);
      }
    }
    align_by_pts(image, width, height, pad_x, pad_y, pts, aligned[0], content_pts[0]);

    std::vector<int> variants;
    for (int code : outputs) {
      if (static_cast<unsigned>(code) <= 4u &&
          std::find(variants.begin(), variants.end(), code) == variants.end()) {
        variants.push_back(code);
      }
    }
    if (variants.empty()) variants = {3, 0};
    const int n = static_cast<int>(variants.size());

    const std::vector<unsigned char> plain(aligned[0], aligned[0] + frame_bytes);
    parallel_for(
        0, n,
        [&](int i) {
          std::memcpy(aligned[i], plain.data(), frame_bytes);
          apply_output_variant(aligned[i], width, height, variants[i]);
          std::copy(pts, pts + 8, corner_rows[i]);
          if (i != 0) std::copy(content_pts[0], content_pts[0] + 20, content_pts[i]);
        },
        n);
    count = n;
    result = 0.0;
  }

  if (result_folder != nullptr) {
    save_alignment_results(result_folder, input, aligned, corner_rows, content_pts, count, width,
                           height, input_width, input_height, result, jpeg_output);
  }
  return result;
}
