// The alignment driver: picks the mode (features only, corners given, no
// rectification, search), owns the result slots, and hands them to the
// results writer.
#include <algorithm>
#include <cstring>
#include <vector>

#include <opencv2/core/utils/logger.hpp>

#include "align/align.h"
#include "align/internal.h"
#include "align/parallel_for.h"

namespace {

constexpr int kSlots = 6;

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

}  // namespace

double align_frame(unsigned char* input, unsigned char* reference, int width, int height,
                   int input_width, int input_height, int crop_width, int crop_height,
                   int no_rectify, const double* pts, const char* result_folder,
                   const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                   bool advanced, const std::vector<int>& outputs, bool jpeg_output,
                   AlignmentReport* report) {
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_ERROR);

  double content_pts[kSlots][20];
  std::fill(&content_pts[0][0], &content_pts[0][0] + kSlots * 20, -1.0);
  const cv::Mat image(input_height, input_width, CV_8UC1, input);

  if (reference == nullptr && pts[7] == 0.0) {
    generate_copy_features(image, load, save);
    return -1.0;
  }

  // Zeroed rather than left undefined, so that a slot an attempt failed to
  // fill never carries stray memory into a score or a file.
  const std::size_t frame_bytes = luma_plane_size(width, height);
  std::vector<unsigned char> storage(kSlots * frame_bytes, 0);
  unsigned char* aligned[kSlots];
  for (int i = 0; i < kSlots; ++i) aligned[i] = storage.data() + i * frame_bytes;
  double corner_rows[kSlots][8] = {};

  double result = 0.0;
  int count = 0;
  AlignmentReport search;
  if (report != nullptr) {
    search.refine = report->refine;
    search.fast = report->fast;
    search.quick_reference = report->quick_reference;
  }
  if (pts[7] == 0.0) {
    count = generate_extraction_input(result_folder, image, reference, width, height, no_rectify,
                                      pts, aligned, corner_rows, content_pts, &result, load, save,
                                      advanced, &search);
  } else {
    int pad_x, pad_y;
    crop_padding(width, height, crop_width, crop_height, &pad_x, &pad_y);
    align_by_pts(image, width, height, pad_x, pad_y, pts, aligned[0], content_pts[0]);

    const std::vector<int> variants = output_variants(outputs);
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

  if (report != nullptr) {
    report->slots = count;
    report->scores = search.scores;
    report->est_error_px = search.est_error_px;
    report->refined = search.refined;
    report->path = search.path;
    report->corners.clear();
    for (std::size_t i = 0; i < search.scores.size(); ++i) {
      report->corners.emplace_back();
      std::copy(corner_rows[i], corner_rows[i] + 8, report->corners.back().begin());
    }
    if (report->keep_slots) {
      report->frames.clear();
      for (int i = 0; i < count; ++i) report->frames.emplace_back(aligned[i], aligned[i] + frame_bytes);
      for (int i = 0; i < kSlots; ++i) {
        std::copy(corner_rows[i], corner_rows[i] + 8, report->pts_rows[i].begin());
        std::copy(content_pts[i], content_pts[i] + 20, report->content_rows[i].begin());
      }
    }
  }
  if (result_folder != nullptr) {
    save_alignment_results(result_folder, input, aligned, corner_rows, content_pts, count, width,
                           height, input_width, input_height, result, jpeg_output);
  }
  return result;
}
