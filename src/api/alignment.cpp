// framealign::align and what its result does: the public face of the
// alignment driver.
#include <algorithm>
#include <filesystem>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/alignment_driver.h"
#include "align/mapping.h"
#include "align/output_variants.h"
#include "api/result_files.h"
#include "core/as_error.h"
#include "framealign/framealign.h"
#include "io/cache_callbacks.h"
#include "io/feature_cache.h"
#include "io/reference.h"

namespace framealign {

namespace {

void check_grey(const cv::Mat& picture, const char* what) {
  if (picture.empty() || picture.type() != CV_8UC1) {
    throw Error(std::string(what) + " must be a non-empty 8-bit grey picture (CV_8UC1)");
  }
}

void check_hint(const AlignOptions& options) {
  if (options.hint && options.corners) {
    throw Error("give corners (warped as given) or a hint (refined), not both");
  }
  if (options.hint && options.no_rectify) {
    throw Error("a hint asks for a rectification, which no_rectify turns off");
  }
}

void check_outputs(const std::vector<int>& outputs) {
  as_error([&] {
    for (int code : outputs) check_output_variant(code);
    return 0;
  });
}

// The capture's own cache entries (named ones) beside `base`, trusted by
// the note that names this very capture; none without a base.
CacheCallbacks capture_cache(const std::string& base, const cv::Mat& capture) {
  if (base.empty()) return CacheCallbacks();
  return cache_callbacks(
      [base](const char* name) {
        return name == nullptr ? std::string() : feature_cache_path(base, name);
      },
      CacheTrust::BY_NOTE, picture_fingerprint(capture));
}

AlignmentJob make_job(const cv::Mat& input, const Reference::Data& reference,
                      const AlignOptions& options) {
  AlignmentJob job;
  job.input = input;
  job.reference = reference.plane;
  job.width = reference.plane.cols;
  job.height = reference.plane.rows;
  job.corners = options.corners;
  job.hint = options.hint;
  job.crop_width = options.crop_width;
  job.crop_height = options.crop_height;
  job.outputs = options.outputs;
  job.no_rectify = options.no_rectify;
  job.advanced = options.advanced;
  job.refine = options.refine;
  job.fast = options.fast;
  const CacheCallbacks captures = capture_cache(options.capture_cache, input);
  job.load = reference_loader(reference, captures.load);
  job.save = captures.save;
  if (job.plan().quick_first) job.quick_reference = &reference.quick();
  job.stop = options.stop;
  return job;
}

// The fields a caller reads, from the alignment's slots: those of the best
// search result, or the corners given.
void describe(const Alignment& alignment, const AlignOptions& options, int width, int height,
              cv::Size capture, AlignResult& result) {
  result.status = alignment.status();
  result.score = alignment.score;
  result.path = alignment.path;
  result.reason = alignment.reason;
  result.matches = alignment.evidence;  // a search that found nothing
  const SlotSet& slots = alignment.slots;
  const AlignmentMode mode = alignment.plan.mode;
  if ((mode == AlignmentMode::SEARCH || mode == AlignmentMode::HINTED) && !slots.empty()) {
    int best = 0;
    for (int i = 0; i < slots.results(); ++i) {
      result.slot_scores.push_back(slots[i].score);
      if (slots[i].score < slots[best].score) best = i;
    }
    result.best_slot = best;
    result.corners = slots[best].corners;
    result.est_error_px = slots[best].est_error_px;
    result.mapping = slots[best].mapping;
    result.matches = slots[best].evidence;
  } else if (alignment.plan.mode == AlignmentMode::CORNERS_GIVEN) {
    result.corners = options.corners;
  }
  if (result.corners) {
    const Mapping plain = corners_mapping(result.corners->data(), width, height, capture);
    result.homography = plain.homography;
    if (!result.mapping) result.mapping = plain;
  }
}

}  // namespace

bool AlignOptions::refines() const { return plan_of(*this).refine; }

Plan plan_of(const AlignOptions& options) {
  Request request;
  request.corners_given = options.corners.has_value();
  request.hinted = options.hint.has_value();
  request.no_rectify = options.no_rectify;
  request.refine = options.refine;
  request.fast = options.fast;
  return make_plan(request);
}

AlignResult result_of(const Alignment& alignment, const cv::Mat& input, int width, int height,
                      const AlignOptions& options) {
  AlignResult result;
  describe(alignment, options, width, height, input.size(), result);
  auto files = std::make_shared<AlignResult::Files>();
  files->capture = input;
  files->slots = alignment.slots;
  files->width = width;
  files->height = height;
  files->jpeg_output = options.jpeg_output;
  for (const Slot& slot : files->slots.slots()) result.frames.push_back(slot.frame);
  result.files = files;
  return result;
}

AlignResult align(const cv::Mat& capture, const Reference& reference, const AlignOptions& options) {
  check_grey(capture, "the capture");
  check_outputs(options.outputs);
  check_hint(options);
  // The pipeline reads the capture as one packed plane, and the previews
  // need it after the caller's buffer may be gone.
  const cv::Mat input = capture.isContinuous() && capture.u != nullptr ? capture : capture.clone();
  const Reference::Data& data = reference.data();
  const int width = data.plane.cols, height = data.plane.rows;
  const Alignment alignment =
      as_error([&] { return run_alignment(make_job(input, data, options)); });
  return result_of(alignment, input, width, height, options);
}

void AlignResult::save(const std::string& folder) const {
  if (!files) throw Error("this result holds nothing to save");
  as_error([&] {
    std::filesystem::create_directories(folder);
    write_result_folder(folder, files->capture, files->slots, score, files->jpeg_output);
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
