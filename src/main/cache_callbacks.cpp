#include "main/cache_callbacks.h"

#include <iostream>

#include "io/feature_cache.h"
#include "main/messages.h"

std::string feature_cache_path(const Arguments& args, const char* name) {
  if (name != nullptr) return framealign::feature_cache_path(args.input_file, name);
  return framealign::feature_cache_path(args.reference_file, std::to_string(args.frame_number));
}

framealign::FeatureLoadCallback make_feature_load_callback(const Arguments& args) {
  return [&args](std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors, const char* name) {
    const framealign::CacheRead read =
        framealign::load_features(feature_cache_path(args, name), keypoints, descriptors);
    if (!read.damage.empty()) std::cerr << kCacheReadError << read.damage << "\n";
    return read.loaded;
  };
}

framealign::FeatureSaveCallback make_feature_save_callback(const Arguments& args) {
  return [&args](const std::vector<cv::KeyPoint>& keypoints, const cv::Mat& descriptors,
                 const char* name) {
    framealign::save_features(feature_cache_path(args, name), keypoints, descriptors);
  };
}
