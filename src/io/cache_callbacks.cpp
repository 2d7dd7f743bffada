#include "io/cache_callbacks.h"

#include <utility>

#include "io/feature_cache.h"

namespace framealign {

CacheCallbacks cache_callbacks(std::function<std::string(const char* name)> path_of,
                               CacheTrust trust, const std::string& fingerprint,
                               std::function<void(const std::string& damage)> on_damage) {
  CacheCallbacks callbacks;
  callbacks.load = [=](std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors,
                       const char* name) {
    const std::string path = path_of(name);
    if (path.empty()) return false;
    if (trust == CacheTrust::BY_NOTE && !cache_made_from(path, fingerprint)) return false;
    const CacheRead read = load_features(path, keypoints, descriptors);
    if (trust == CacheTrust::BY_NAME && !read.damage.empty() && on_damage) on_damage(read.damage);
    return read.loaded;
  };
  callbacks.save = [=](const std::vector<cv::KeyPoint>& keypoints, const cv::Mat& descriptors,
                       const char* name) {
    const std::string path = path_of(name);
    if (path.empty()) return;
    save_features(path, keypoints, descriptors);
    if (trust == CacheTrust::BY_NOTE) note_cache_source(path, fingerprint);
  };
  return callbacks;
}

}  // namespace framealign
