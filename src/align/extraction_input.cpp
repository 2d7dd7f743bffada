// What the alignment driver hands a capture to when it has a reference and
// no corners: the capture as it lies (no rectification), or the quick path
// and the rectification search; every result gets its enhanced copy.
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "align/align.h"
#include "align/internal.h"

namespace framealign {

namespace {

void write_enhanced_copy(const unsigned char* from, unsigned char* to, int width, int height) {
  std::memcpy(to, from, luma_plane_size(width, height));
  apply_output_variant(to, width, height, kEnhancedCopyVariant);
}

// The quick path into slot 0; 1 when its answer was verified, else 0 with
// the slots untouched.
int quick_attempt(const cv::Mat& image, int width, int height, const unsigned char* reference,
                  unsigned char** aligned, double (*pts)[8], double (*content_pts)[20],
                  double* best_score, const FeatureLoadCallback& load,
                  const FeatureSaveCallback& save, const SearchRequest& request,
                  SearchReport& report) {
  stop_if_asked(request.stop);
  const cv::Mat ref(height, width, CV_8UC1, const_cast<unsigned char*>(reference));
  QuickFeatures computed;
  if (request.quick_reference == nullptr) computed = quick_features(ref);
  std::vector<cv::KeyPoint> ref_keypoints;
  cv::Mat ref_descriptors;
  get_keypoints_descriptors_ref(ref, ref_keypoints, ref_descriptors, load, save);
  double score = kFailedScore, estimate = HUGE_VAL;
  Mapping mapping;
  if (!quick_rectified_img(image, ref, request.quick_reference ? *request.quick_reference : computed,
                           ref_keypoints, ref_descriptors, aligned[0], pts[0], content_pts[0],
                           &score, &estimate, &mapping)) {
    return 0;
  }
  report.mappings = {mapping};
  *best_score = score;
  report.scores = {score};
  report.est_error_px = {estimate};
  report.refined = {true};
  return 1;
}

}  // namespace

int generate_extraction_input(const char* result_folder, const cv::Mat& image,
                              const unsigned char* reference, int width, int height,
                              int no_rectify, const double* pts_in, unsigned char** aligned,
                              double (*pts)[8], double (*content_pts)[20], double* best_score,
                              const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                              bool advanced, const SearchRequest& request,
                              SearchReport* report) {
  if (pts_in[7] != 0.0 || reference == nullptr) {
    throw std::invalid_argument(
        "generate_extraction_input: given corners and a missing reference are the alignment "
        "driver's modes");
  }
  int k = 1;
  if (no_rectify != 0) {
    copy_plane(image, aligned[0], width, height);
    write_frame_polygon(width, height, content_pts[0]);
  } else {
    k = 0;
    if (request.fast) {
      SearchReport quick;
      k = quick_attempt(image, width, height, reference, aligned, pts, content_pts, best_score,
                        load, save, request, quick);
      quick.path = k > 0 ? "fast" : "full";
      if (report != nullptr) *report = quick;
    }
    if (k == 0) {
      k = get_rectified_imgs(image, width, height, result_folder, reference, aligned, pts,
                             content_pts, best_score, load, save, advanced, request, report);
    }
    if (k < 1) return 0;
  }
  for (int j = 0; j < k; ++j) write_enhanced_copy(aligned[j], aligned[k + j], width, height);
  return 2 * k;
}

}  // namespace framealign
