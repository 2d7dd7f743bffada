#include <opencv2/features2d.hpp>

#include "align/align.h"

namespace framealign {

void SIFTdetectAndCompute(const cv::Mat& image, std::vector<cv::KeyPoint>& keypoints,
                          cv::Mat& descriptors, bool affine) {
  // The very low contrast threshold keeps nearly every extremum and the large
  // sigma favours coarse structure that survives a camera's blur and moire.
  const cv::Ptr<cv::SIFT> sift = cv::SIFT::create(0, 4, 0.0005, 10.0, 2.6);
  if (affine) {
    const cv::Ptr<cv::AffineFeature> asift =
        cv::AffineFeature::create(sift, 5, 0, 1.4142135f, 72.0f);
    asift->detectAndCompute(image, cv::noArray(), keypoints, descriptors, false);
  } else {
    sift->detectAndCompute(image, cv::noArray(), keypoints, descriptors, false);
  }
}

void get_keypoints_descriptors_ref(const cv::Mat& image, std::vector<cv::KeyPoint>& keypoints,
                                   cv::Mat& descriptors, const FeatureLoadCallback& load,
                                   const FeatureSaveCallback& save) {
  if (load && load(keypoints, descriptors, nullptr)) return;
  SIFTdetectAndCompute(image, keypoints, descriptors, false);
  if (save) save(keypoints, descriptors, nullptr);
}

void get_keypoints_descriptors_cpy(const cv::Mat& image, std::vector<cv::KeyPoint>& keypoints,
                                   cv::Mat& descriptors, PreprocessingType type,
                                   const FeatureLoadCallback& load,
                                   const FeatureSaveCallback& save, bool affine) {
  const std::string name = get_preprocessing_name(type);
  if (load && load(keypoints, descriptors, name.c_str())) return;
  // Types without a filter work on the picture itself rather than a copy.
  const bool filtered = type == GAUSSIAN_BLUR || type == MORPHOLOGICAL_OPENING;
  const cv::Mat prepared = filtered ? apply_preprocessing(image, type) : image;
  SIFTdetectAndCompute(prepared, keypoints, descriptors, affine);
  if (save) save(keypoints, descriptors, name.c_str());
}

void generate_copy_features(const cv::Mat& image, const FeatureLoadCallback& load,
                            const FeatureSaveCallback& save) {
  // Values 3..5 all map to the "UNKNOWN" entry: the first stores it, the
  // next two find it in the cache.
  for (int type = 0; type <= 5; ++type) {
    std::vector<cv::KeyPoint> keypoints;
    cv::Mat descriptors;
    get_keypoints_descriptors_cpy(image, keypoints, descriptors,
                                  static_cast<PreprocessingType>(type), load, save, false);
  }
}

}  // namespace framealign
