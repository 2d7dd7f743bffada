#include "main/reference_frame.h"

#include "main/feature_cache.h"
#include "main/readers.h"

PreparedReference prepare_reference(const std::string& path, int width, int height,
                                    int frame_number) {
  PreparedReference reference;
  reference.width = width;
  reference.height = height;
  Arguments args;
  args.reference_file = path;
  args.frame_number = frame_number;
  const std::string cache = feature_cache_path(args, nullptr);
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  try {
    reference.plane.assign(luma_plane_size(width, height), 0);
    const bool exists = file_exists(path);
    if (exists) extract_frame_from_yuv420_file(path, reference.plane.data(), width, height, frame_number);
    if (load_features(cache, reference.keypoints, reference.descriptors)) {
      for (const cv::KeyPoint& kp : reference.keypoints) {
        if (!(kp.pt.x >= 0 && kp.pt.y >= 0 && kp.pt.x <= width && kp.pt.y <= height)) {
          reference.error = "The feature cache " + cache + " holds keypoints outside the " + size +
                            " frame: it was made for a reference of another size";
          break;
        }
      }
    } else if (exists) {
      const cv::Mat plane(height, width, CV_8UC1, reference.plane.data());
      SIFTdetectAndCompute(plane, reference.keypoints, reference.descriptors, false);
      save_features(cache, reference.keypoints, reference.descriptors);
    } else {
      reference.error = "Reference file " + path + " does not exist, nor its feature cache " + cache;
    }
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
