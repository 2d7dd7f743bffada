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

namespace framealign {

// Cache file of entry `tag` of the picture at `base`:
// "<parent>/<stem>_<tag>.ftrs". The "/" stands even when `base` has no
// folder part, so "ref.yuv" names "/ref_<tag>.ftrs" (framealign's naming).
std::string feature_cache_path(const std::string& base, const std::string& tag);

// What load_features found.
struct CacheRead {
  bool loaded = false;
  std::string damage;  // not empty: the file is there but cannot be used, and why
};

// Writes a cache file. The data goes to a temporary file first and is renamed
// into place, so a concurrent reader sees either the old file or the whole new
// one. Failures are silent: a cache that cannot be written is only a cache.
void save_features(const std::string& path, const std::vector<cv::KeyPoint>& keypoints,
                   const cv::Mat& descriptors);

// Reads a cache file. Not loaded, with no damage, when it does not exist or
// cannot be opened; not loaded, with the reason, when it is damaged (any
// count or size it cannot hold). The outputs change only on success.
CacheRead load_features(const std::string& path, std::vector<cv::KeyPoint>& keypoints,
                        cv::Mat& descriptors);

// Which picture a cache was made from: its size and a checksum of its
// pixels ("WxH" and 16 hex digits).
std::string picture_fingerprint(const cv::Mat& picture);

// Whether the note beside `cache` ("<cache>.source", which framealign
// neither writes nor reads) says it was made from the picture of
// `fingerprint`. A cache without a note is not proven to be.
bool cache_made_from(const std::string& cache, const std::string& fingerprint);

// Writes that note, after the cache itself. Failures are silent, as the
// cache's own: without a note the cache is only not used.
void note_cache_source(const std::string& cache, const std::string& fingerprint);

}  // namespace framealign
