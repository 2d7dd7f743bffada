// framealign::Reference: a reference frame and its features, read or
// computed once and then shared, read-only, by every alignment against it.
#include "io/reference.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <utility>

#include "core/as_error.h"
#include "io/feature_cache.h"
#include "io/readers.h"

namespace framealign {

namespace {

// Keypoints outside the frame were found on a picture of another size.
void check_keypoints_fit(const std::vector<cv::KeyPoint>& keypoints, int width, int height,
                         const std::string& source) {
  for (const cv::KeyPoint& kp : keypoints) {
    if (!(kp.pt.x >= 0 && kp.pt.y >= 0 && kp.pt.x <= width && kp.pt.y <= height)) {
      throw Error(source + " holds keypoints outside the " + std::to_string(width) + "x" +
                  std::to_string(height) + " frame: it was made for a reference of another size");
    }
  }
}

// Keypoints that all lie in a small part of the frame were found on a
// smaller picture: a frame's own reach its far sides.
void check_keypoints_cover(const std::vector<cv::KeyPoint>& keypoints, int width, int height,
                           const std::string& source) {
  float right = 0, bottom = 0;
  for (const cv::KeyPoint& kp : keypoints) {
    right = std::max(right, kp.pt.x);
    bottom = std::max(bottom, kp.pt.y);
  }
  constexpr float kLeastReach = 0.6f;
  if (!keypoints.empty() && (right < kLeastReach * width || bottom < kLeastReach * height)) {
    throw Error(source + " holds keypoints only within " + std::to_string(int(right)) + "x" +
                std::to_string(int(bottom)) + " of the " + std::to_string(width) + "x" +
                std::to_string(height) + " frame: it was made for a smaller reference");
  }
}

// A raw reference file must hold the frame asked for; checked before the
// plane is allocated. (Pictures are checked by their decoder.)
void check_frame_in_file(const std::string& path, int width, int height, int frame) {
  if (lower_extension(path) != ".yuv") return;
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  const std::int64_t needed = (std::max(frame, 0) + std::int64_t(1)) * yuv420_frame_size(width, height) -
                              (yuv420_frame_size(width, height) - std::int64_t(width) * height);
  if (!error && static_cast<std::int64_t>(size) < needed) {
    throw Error("Reference file " + path + " holds " + std::to_string(size) + " bytes, too few for frame " +
                std::to_string(frame) + " at " + std::to_string(width) + "x" + std::to_string(height));
  }
}

// The reference's cache file: beside it, in the current folder when the
// path has no folder part.
std::string reference_cache_path(const std::string& path, int frame) {
  const bool bare = std::filesystem::path(path).parent_path().empty();
  return feature_cache_path(bare ? "./" + path : path, std::to_string(frame));
}

cv::Mat zero_plane(int width, int height) {
  luma_plane_size(width, height);  // refuses sizes a plane cannot have
  return cv::Mat::zeros(height, width, CV_8UC1);
}

}  // namespace

const QuickFeatures& Reference::Data::quick() const {
  std::call_once(quick_once_, [this] { quick_ = quick_features(plane); });
  return quick_;
}

bool load_reference_features(const std::string& cache, int width, int height,
                             Reference::Data& data) {
  const CacheRead read = load_features(cache, data.keypoints, data.descriptors);
  if (!read.damage.empty()) throw Error("The feature cache " + read.damage);
  if (!read.loaded) return false;
  check_keypoints_fit(data.keypoints, width, height, "The feature cache " + cache);
  check_keypoints_cover(data.keypoints, width, height, "The feature cache " + cache);
  return true;
}

FeatureLoadCallback reference_loader(const Reference::Data& reference,
                                     const FeatureLoadCallback& captures) {
  return [&reference, captures](std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors,
                                const char* name) {
    if (name != nullptr) return captures && captures(keypoints, descriptors, name);
    keypoints = reference.keypoints;
    descriptors = reference.descriptors;
    return true;
  };
}

Reference::Reference(std::shared_ptr<Data> data) : data_(std::move(data)) {}

Reference Reference::from_yuv(const std::string& path, int width, int height, int frame) {
  return as_error([&] {
    luma_plane_size(width, height);  // refuses sizes a plane cannot have
    const std::string cache = reference_cache_path(path, frame);
    auto data = std::make_shared<Data>();
    if (!file_exists(path)) {
      // The cache stands in for the frame, when it can belong to its size.
      if (!load_reference_features(cache, width, height, *data)) {
        throw Error("Reference file " + path + " does not exist, nor its feature cache " + cache);
      }
      data->plane = zero_plane(width, height);
      return Reference(data);
    }
    check_frame_in_file(path, width, height, frame);
    data->plane = zero_plane(width, height);
    extract_frame_from_yuv420_file(path, data->plane.data, width, height, frame);
    // The frame's features come from a cache only when it was made from
    // this very frame; else they are computed, and the cache written anew.
    const std::string fingerprint = picture_fingerprint(data->plane);
    if (cache_made_from(cache, fingerprint) &&
        load_features(cache, data->keypoints, data->descriptors).loaded) {
      return Reference(data);
    }
    SIFTdetectAndCompute(data->plane, data->keypoints, data->descriptors, false);
    save_features(cache, data->keypoints, data->descriptors);
    note_cache_source(cache, fingerprint);
    return Reference(data);
  });
}

Reference Reference::from_picture(const cv::Mat& grey) {
  if (grey.empty() || grey.type() != CV_8UC1) {
    throw Error("a reference picture must be a non-empty 8-bit grey picture (CV_8UC1)");
  }
  return as_error([&] {
    auto data = std::make_shared<Data>();
    data->plane = grey.clone();
    SIFTdetectAndCompute(data->plane, data->keypoints, data->descriptors, false);
    return Reference(data);
  });
}

Reference Reference::from_ftrs(const std::string& path, int width, int height) {
  return as_error([&] {
    auto data = std::make_shared<Data>();
    data->plane = zero_plane(width, height);
    if (!load_reference_features(path, width, height, *data)) {
      throw Error("Cannot read the feature cache " + path);
    }
    return Reference(data);
  });
}

Reference Reference::from_features(const cv::Mat& picture, std::vector<cv::KeyPoint> keypoints,
                                   const cv::Mat& descriptors) {
  if (picture.empty() || picture.type() != CV_8UC1) {
    throw Error("a reference picture must be a non-empty 8-bit grey picture (CV_8UC1)");
  }
  if (descriptors.rows != static_cast<int>(keypoints.size()) || descriptors.dims > 2) {
    throw Error("a reference has " + std::to_string(keypoints.size()) + " keypoints but " +
                std::to_string(descriptors.rows) + " descriptor rows");
  }
  check_keypoints_fit(keypoints, picture.cols, picture.rows, "a reference");
  auto data = std::make_shared<Data>();
  data->plane = picture.clone();
  data->keypoints = std::move(keypoints);
  data->descriptors = descriptors.clone();
  return Reference(data);
}

int Reference::width() const { return data_->plane.cols; }
int Reference::height() const { return data_->plane.rows; }
const cv::Mat& Reference::picture() const { return data_->plane; }
const std::vector<cv::KeyPoint>& Reference::keypoints() const { return data_->keypoints; }
const cv::Mat& Reference::descriptors() const { return data_->descriptors; }

}  // namespace framealign
