// Feature cache files (.ftrs): SIFT keypoints and descriptors stored beside
// the picture they came from, so that they need not be computed again.
//
// Layout, little-endian, no header:
//   u64 N; N records of {f32 x, f32 y, f32 angle, f32 response, f32 size,
//   i32 octave, i32 class_id}; i32 rows; i32 cols; i32 OpenCV type;
//   rows*cols*element-size bytes of descriptor data, row after row.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/align.h"
#include "main/options.h"

// Cache file of an entry: the input picture's for a named entry, the
// reference's (tagged with the frame number) for a null name.
// "<parent>/<stem>_<tag>.ftrs".
std::string feature_cache_path(const Arguments& args, const char* name);

// Writes a cache file. The data goes to a temporary file first and is renamed
// into place, so a concurrent reader sees either the old file or the whole new
// one. Failures are silent: a cache that cannot be written is only a cache.
void save_features(const std::string& path, const std::vector<cv::KeyPoint>& keypoints,
                   const cv::Mat& descriptors);

// Reads a cache file. False when it does not exist or cannot be opened; false
// with "Error reading features from cache: <why>" on standard error when it is
// damaged (any count or size it cannot hold). The outputs change only on success.
bool load_features(const std::string& path, std::vector<cv::KeyPoint>& keypoints,
                   cv::Mat& descriptors);

// Callbacks bound to `args` by reference; safe to call from several threads.
FeatureLoadCallback make_feature_load_callback(const Arguments& args);
FeatureSaveCallback make_feature_save_callback(const Arguments& args);
