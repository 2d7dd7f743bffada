// framealign::align and what its result does: the public face of the
// alignment driver.
#include <algorithm>
#include <filesystem>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/internal.h"
#include "api/as_error.h"
#include "api/result_files.h"
#include "framealign/framealign.h"
#include "io/feature_cache.h"
#include "io/reference.h"

namespace framealign {

// What save() writes beyond the result's own fields: the slots as the
// results writer takes them.

namespace {

void check_grey(const cv::Mat& picture, const char* what) {
  if (picture.empty() || picture.type() != CV_8UC1) {
    throw Error(std::string(what) + " must be a non-empty 8-bit grey picture (CV_8UC1)");
  }
}

void check_outputs(const std::vector<int>& outputs) {
  for (int code : outputs) {
    if (code < 0 || code > 4) {
      throw Error("output variant " + std::to_string(code) + " is not one of 0 to 4");
    }
  }
}

// The capture's own cache entries (named ones) beside `base`, used only
// when the note beside them says they were made from this very capture
// (`fingerprint`); a damaged or unproven file is a miss, and the features
// are computed and stored again, with their note.
FeatureLoadCallback capture_cache_loader(const std::string& base, const std::string& fingerprint) {
  if (base.empty()) return nullptr;
  return [base, fingerprint](std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors,
                             const char* name) {
    if (name == nullptr) return false;
    const std::string path = feature_cache_path(base, name);
    return cache_made_from(path, fingerprint) && load_features(path, keypoints, descriptors).loaded;
  };
}

FeatureSaveCallback capture_cache_saver(const std::string& base, const std::string& fingerprint) {
  if (base.empty()) return nullptr;
  return [base, fingerprint](const std::vector<cv::KeyPoint>& keypoints, const cv::Mat& descriptors,
                             const char* name) {
    if (name == nullptr) return;
    const std::string path = feature_cache_path(base, name);
    save_features(path, keypoints, descriptors);
    note_cache_source(path, fingerprint);
  };
}

AlignmentJob make_job(const cv::Mat& input, const Reference::Data& reference,
                      const AlignOptions& options) {
  AlignmentJob job;
  job.input = input;
  job.reference = reference.plane.data;
  job.width = reference.plane.cols;
  job.height = reference.plane.rows;
  job.crop_width = options.crop_width;
  job.crop_height = options.crop_height;
  job.no_rectify = options.no_rectify;
  job.corners_given = options.corners.has_value();
  if (options.corners) std::copy(options.corners->begin(), options.corners->end(), job.pts);
  const std::string fingerprint = options.capture_cache.empty() ? "" : picture_fingerprint(input);
  job.load = reference_loader(reference, capture_cache_loader(options.capture_cache, fingerprint));
  job.save = capture_cache_saver(options.capture_cache, fingerprint);
  job.advanced = options.advanced;
  job.outputs = options.outputs;
  job.search.refine = options.refine || options.fast;
  job.search.fast = options.fast;
  job.search.stop = options.stop;
  if (options.fast) job.search.quick_reference = &reference.quick();
  return job;
}

std::string status_of(const AlignmentSlots& slots) {
  switch (slots.mode) {
    case AlignmentMode::CORNERS_GIVEN:
      return "aligned";
    case AlignmentMode::NO_RECTIFY:
      return "unrectified";
    default:
      return slots.score < kFailedScore ? "aligned" : "not_found";
  }
}

// The fields a caller reads, from the slots and the search's report.
void describe(const AlignmentSlots& slots, const AlignOptions& options, int width, int height,
              cv::Size capture, AlignResult& result) {
  result.status = status_of(slots);
  result.score = slots.score;
  result.path = slots.report.path;
  const std::vector<double>& scores = slots.report.scores;
  if (!scores.empty()) {
    const int best =
        static_cast<int>(std::min_element(scores.begin(), scores.end()) - scores.begin());
    result.best_slot = best;
    result.slot_scores = scores;
    result.corners.emplace();
    std::copy(slots.pts[best], slots.pts[best] + 8, result.corners->begin());
    if (!slots.report.est_error_px.empty()) result.est_error_px = slots.report.est_error_px[best];
  } else if (slots.mode == AlignmentMode::CORNERS_GIVEN) {
    result.corners = options.corners;
  }
  if (result.corners) {
    const Mapping plain = corners_mapping(result.corners->data(), width, height, capture);
    result.homography = plain.homography;
    const std::vector<Mapping>& mappings = slots.report.mappings;
    result.mapping = result.best_slot && !mappings.empty() ? mappings[*result.best_slot] : plain;
  }
}

}  // namespace

AlignResult result_of(const AlignmentSlots& slots, const cv::Mat& input, int width, int height,
                      const AlignOptions& options) {
  AlignResult result;
  describe(slots, options, width, height, input.size(), result);
  auto files = std::make_shared<AlignResult::Files>();
  files->capture = input;
  for (int i = 0; i < slots.count; ++i) files->frames.push_back(slots.frame(i));
  std::copy(&slots.pts[0][0], &slots.pts[0][0] + kSlots * 8, &files->pts[0][0]);
  std::copy(&slots.content_pts[0][0], &slots.content_pts[0][0] + kSlots * 20,
            &files->content_pts[0][0]);
  files->width = width;
  files->height = height;
  files->jpeg_output = options.jpeg_output;
  files->mappings = slots.report.mappings;
  result.frames = files->frames;
  result.files = files;
  return result;
}

AlignResult align(const cv::Mat& capture, const Reference& reference,
                  const AlignOptions& options) {
  check_grey(capture, "the capture");
  check_outputs(options.outputs);
  // The pipeline reads the capture as one packed plane, and the previews
  // need it after the caller's buffer may be gone.
  const cv::Mat input = capture.isContinuous() && capture.u != nullptr ? capture : capture.clone();
  const Reference::Data& data = reference.data();
  const int width = data.plane.cols, height = data.plane.rows;
  const AlignmentSlots slots = as_error([&] { return align_slots(make_job(input, data, options)); });
  return result_of(slots, input, width, height, options);
}

void AlignResult::save(const std::string& folder) const {
  if (!files) throw Error("this result holds nothing to save");
  as_error([&] {
    std::filesystem::create_directories(folder);
    std::vector<unsigned char*> aligned;
    for (const cv::Mat& frame : files->frames) aligned.push_back(frame.data);
    const cv::Mat& capture = files->capture;
    save_alignment_results(folder.c_str(), capture.data, aligned.data(), files->pts,
                           files->content_pts, static_cast<int>(aligned.size()), files->width,
                           files->height, capture.cols, capture.rows, score, files->jpeg_output);
    const std::vector<Mapping>& mappings = files->mappings;
    for (std::size_t i = 0; !mappings.empty() && i < aligned.size(); ++i) {
      const std::string path = folder + "/mapping_" + std::to_string(i) + ".txt";
      const std::string text = mapping_text(mappings[i % mappings.size()]);
      if (!replace_file(path, text.data(), text.size())) {
        throw std::runtime_error("Cannot write result file: " + path);
      }
    }
    return 0;
  });
}

std::vector<cv::Point2d> AlignResult::to_capture(const std::vector<cv::Point2d>& points) const {
  if (!mapping) throw Error("this result has no mapping (status " + status + ")");
  return mapping->to_capture(points);
}

std::vector<cv::Point2d> AlignResult::to_reference(const std::vector<cv::Point2d>& points) const {
  if (!mapping) throw Error("this result has no mapping (status " + status + ")");
  return mapping->to_reference(points);
}

}  // namespace framealign
