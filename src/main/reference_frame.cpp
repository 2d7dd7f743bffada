#include "main/reference_frame.h"

#include "main/feature_cache.h"
#include "main/readers.h"

bool load_reference_features(const std::string& cache, PreparedReference& reference) {
  if (!load_features(cache, reference.keypoints, reference.descriptors)) return false;
  for (const cv::KeyPoint& kp : reference.keypoints) {
    if (!(kp.pt.x >= 0 && kp.pt.y >= 0 && kp.pt.x <= reference.width &&
          kp.pt.y <= reference.height)) {
      reference.error = "The feature cache " + cache + " holds keypoints outside the " +
                        std::to_string(reference.width) + "x" + std::to_string(reference.height) +
                        " frame: it was made for a reference of another size";
      break;
    }
  }
  return true;
}

PreparedReference prepare_reference(const std::string& path, int width, int height,
                                    int frame_number) {
  PreparedReference reference;
  reference.width = width;
  reference.height = height;
  Arguments args;
  args.reference_file = path;
  args.frame_number = frame_number;
  const std::string cache = feature_cache_path(args, nullptr);
  try {
    reference.plane.assign(luma_plane_size(width, height), 0);
    const bool exists = file_exists(path);
    if (exists) extract_frame_from_yuv420_file(path, reference.plane.data(), width, height, frame_number);
    // The cache comes first, as in framealign; the frame is computed only without one.
    if (load_reference_features(cache, reference)) return reference;
    if (!exists) {
      reference.error = "Reference file " + path + " does not exist, nor its feature cache " + cache;
      return reference;
    }
    const cv::Mat plane(height, width, CV_8UC1, reference.plane.data());
    SIFTdetectAndCompute(plane, reference.keypoints, reference.descriptors, false);
    save_features(cache, reference.keypoints, reference.descriptors);
  } catch (const std::exception& e) {
    reference.error = e.what();
  }
  return reference;
}

FeatureLoadCallback reference_loader(const PreparedReference& reference,
                                     const FeatureLoadCallback& captures) {
  return [&reference, captures](std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors,
                                const char* name) {
    if (name != nullptr) return captures && captures(keypoints, descriptors, name);
    keypoints = reference.keypoints;
    descriptors = reference.descriptors;
    return true;
  };
}
