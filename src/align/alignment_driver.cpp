// The alignment driver: follows the plan (features only, corners given, no
// rectification, search), and hands the slots to the results writer.
#include "align/alignment_driver.h"

#include <algorithm>
#include <vector>

#include <opencv2/core/utils/logger.hpp>

#include "align/align.h"
#include "align/output_variants.h"
#include "core/plane_io.h"

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
    if (is_output_variant(code) &&
        std::find(variants.begin(), variants.end(), code) == variants.end()) {
      variants.push_back(code);
    }
  }
  if (variants.empty()) variants = {3, 0};
  return variants;
}

// Corners given: the frame warped by them (padded to the crop aspect) in
// every slot, one per output variant, each finished as its variant.
SlotSet corner_slots(const AlignmentJob& job) {
  int pad_x, pad_y;
  crop_padding(job.width, job.height, job.crop_width, job.crop_height, &pad_x, &pad_y);
  Slot plain = Slot::blank(job.width, job.height);
  std::copy(job.corners->begin(), job.corners->end(), plain.corners.begin());
  align_by_pts(job.input, job.width, job.height, pad_x, pad_y, plain.corners.data(),
               plain.frame.data, plain.polygon.data());
  return SlotSet::variants(plain, output_variants(job.outputs));
}

}  // namespace

Alignment run_alignment(const AlignmentJob& job) {
  // OpenCV's own warnings are noise here; a program that silenced its log
  // altogether keeps it silent.
  if (cv::utils::logging::getLogLevel() > cv::utils::logging::LOG_LEVEL_ERROR) {
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_ERROR);
  }
  stop_if_asked(job.stop);
  const Plan plan = job.plan();
  switch (plan.mode) {
    case AlignmentMode::FEATURES_ONLY:
      generate_copy_features(job.input, job.load, job.save);
      return Alignment{plan, -1.0, "", SlotSet(), "", {}};
    case AlignmentMode::CORNERS_GIVEN:
      return Alignment{plan, 0.0, "", corner_slots(job), "", {}};
    default:
      return extraction_slots(job);
  }
}

double align_frame(const unsigned char* input, const unsigned char* reference, int width,
                   int height, int input_width, int input_height, int crop_width,
                   int crop_height, int no_rectify, const double* pts, const char* result_folder,
                   const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                   bool advanced, const std::vector<int>& outputs, bool jpeg_output) {
  AlignmentJob job;
  job.input = cv::Mat(input_height, input_width, CV_8UC1, const_cast<unsigned char*>(input));
  if (reference != nullptr) {
    luma_plane_size(width, height);  // refuses sizes a plane cannot have
    job.reference = cv::Mat(height, width, CV_8UC1, const_cast<unsigned char*>(reference));
  }
  job.width = width;
  job.height = height;
  job.crop_width = crop_width;
  job.crop_height = crop_height;
  job.no_rectify = no_rectify != 0;
  // framealign's corner array says "none given" by an 8th value of 0.
  if (pts[7] != 0.0) {
    job.corners.emplace();
    std::copy(pts, pts + 8, job.corners->begin());
  }
  job.load = load;
  job.save = save;
  job.advanced = advanced;
  job.outputs = outputs;
  const Alignment alignment = run_alignment(job);
  if (alignment.plan.mode != AlignmentMode::FEATURES_ONLY && result_folder != nullptr) {
    write_result_folder(result_folder, job.input, alignment.slots, alignment.score, jpeg_output);
  }
  return alignment.score;
}

}  // namespace framealign
