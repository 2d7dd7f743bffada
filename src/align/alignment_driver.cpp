// The alignment driver: picks the mode (features only, corners given, no
// rectification, search), owns the result slots, and hands them to the
// results writer.
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core/utils/logger.hpp>

#include "align/align.h"
#include "align/internal.h"
#include "align/parallel_for.h"

namespace framealign {

namespace {

// Padding, right or below, that gives the picture the aspect of a
// crop_width x crop_height crop of the frame. The ratio is taken in single
// precision and compared with its limits in double.
void crop_padding(int width, int height, int crop_width, int crop_height, int* pad_x,
                  int* pad_y) {
  *pad_x = 0;
  *pad_y = 0;
  if (crop_width < 1 || crop_height < 1) return;
  const float r = (static_cast<float>(crop_width) / static_cast<float>(width)) /
                  (static_cast<float>(crop_height) / static_cast<float>(height));
  if (r > 1.001) {
    *pad_y = height - static_cast<int>(static_cast<float>(height) / r + 0.5f);
  } else if (r < 0.999) {
    *pad_x = width - static_cast<int>(static_cast<float>(width) * r + 0.5f);
  }
}

// The variants asked for, in order, each once, codes outside 0..4 dropped;
// "medium" (3, 0) when none is left.
std::vector<int> output_variants(const std::vector<int>& outputs) {
  std::vector<int> variants;
  for (int code : outputs) {
    if (static_cast<unsigned>(code) <= 4u &&
        std::find(variants.begin(), variants.end(), code) == variants.end()) {
      variants.push_back(code);
    }
  }
  if (variants.empty()) variants = {3, 0};
  return variants;
}

// Corners given: the frame warped by them (padded to the crop aspect) in
// every slot, one per output variant, each finished as its variant.
int fill_corner_slots(const AlignmentJob& job, AlignmentSlots& slots) {
  const int width = job.width, height = job.height;
  int pad_x, pad_y;
  crop_padding(width, height, job.crop_width, job.crop_height, &pad_x, &pad_y);
  align_by_pts(job.input, width, height, pad_x, pad_y, job.pts, slots.aligned[0],
               slots.content_pts[0]);

  const std::vector<int> variants = output_variants(job.outputs);
  const int n = static_cast<int>(variants.size());
  const std::size_t frame_bytes = luma_plane_size(width, height);
  const std::vector<unsigned char> plain(slots.aligned[0], slots.aligned[0] + frame_bytes);
  parallel_for(
      0, n,
      [&](int i) {
        std::memcpy(slots.aligned[i], plain.data(), frame_bytes);
        apply_output_variant(slots.aligned[i], width, height, variants[i]);
        std::copy(job.pts, job.pts + 8, slots.pts[i]);
        if (i != 0) std::copy(slots.content_pts[0], slots.content_pts[0] + 20, slots.content_pts[i]);
      },
      n);
  return n;
}

}  // namespace

AlignmentMode alignment_mode(const unsigned char* reference, bool corners_given,
                             bool no_rectify) {
  if (corners_given) return AlignmentMode::CORNERS_GIVEN;
  if (reference == nullptr) return AlignmentMode::FEATURES_ONLY;
  return no_rectify ? AlignmentMode::NO_RECTIFY : AlignmentMode::SEARCH;
}

cv::Mat AlignmentSlots::frame(int i) const {
  for (const cv::Mat& buffer : storage) {
    if (buffer.data == aligned[i]) return buffer;
  }
  throw std::logic_error("result slot " + std::to_string(i) + " has no frame");
}

AlignmentSlots align_slots(const AlignmentJob& job) {
  // OpenCV's own warnings are noise here; a program that silenced its log
  // altogether keeps it silent.
  if (cv::utils::logging::getLogLevel() > cv::utils::logging::LOG_LEVEL_ERROR) {
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_ERROR);
  }

  stop_if_asked(job.search.stop);
  AlignmentSlots slots;
  std::fill(&slots.content_pts[0][0], &slots.content_pts[0][0] + kSlots * 20, -1.0);
  slots.mode = alignment_mode(job.reference, job.corners_given, job.no_rectify);
  if (slots.mode == AlignmentMode::FEATURES_ONLY) {
    generate_copy_features(job.input, job.load, job.save);
    slots.score = -1.0;
    return slots;
  }

  // Zeroed rather than left undefined, so that a slot an attempt failed to
  // fill never carries stray memory into a score or a file.
  luma_plane_size(job.width, job.height);  // refuses sizes a plane cannot have
  for (int i = 0; i < kSlots; ++i) {
    slots.storage.push_back(cv::Mat::zeros(job.height, job.width, CV_8UC1));
    slots.aligned[i] = slots.storage.back().data;
  }
  if (slots.mode == AlignmentMode::CORNERS_GIVEN) {
    slots.count = fill_corner_slots(job, slots);
    slots.score = 0.0;
  } else {
    slots.count = generate_extraction_input(
        nullptr, job.input, job.reference, job.width, job.height, job.no_rectify ? 1 : 0,
        job.pts, slots.aligned, slots.pts, slots.content_pts, &slots.score, job.load, job.save,
        job.advanced, job.search, &slots.report);
  }
  return slots;
}

double align_frame(const unsigned char* input, const unsigned char* reference, int width,
                   int height, int input_width, int input_height, int crop_width,
                   int crop_height, int no_rectify, const double* pts, const char* result_folder,
                   const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                   bool advanced, const std::vector<int>& outputs, bool jpeg_output) {
  AlignmentJob job;
  job.input = cv::Mat(input_height, input_width, CV_8UC1, const_cast<unsigned char*>(input));
  job.reference = reference;
  job.width = width;
  job.height = height;
  job.crop_width = crop_width;
  job.crop_height = crop_height;
  job.no_rectify = no_rectify != 0;
  // framealign's corner array says "none given" by an 8th value of 0.
  job.corners_given = pts[7] != 0.0;
  std::copy(pts, pts + 8, job.pts);
  job.load = load;
  job.save = save;
  job.advanced = advanced;
  job.outputs = outputs;
  const AlignmentSlots slots = align_slots(job);
  if (slots.mode != AlignmentMode::FEATURES_ONLY && result_folder != nullptr) {
    save_alignment_results(result_folder, input, slots.aligned, slots.pts, slots.content_pts,
                           slots.count, width, height, input_width, input_height, slots.score,
                           jpeg_output);
  }
  return slots.score;
}

}  // namespace framealign
