// Public interface of the alignment library: brings a captured picture back
// into the geometry of a known reference frame.
//
// Conventions used throughout:
//  - A luma buffer is width x height bytes, one 8-bit sample per pixel, rows
//    top to bottom, no padding; it is passed as a byte pointer with separate
//    int width and height.
//  - Pixel coordinates have x to the right and y downwards.
//  - Matchers are always queried with the reference descriptors, so a match's
//    queryIdx indexes reference keypoints and trainIdx the input's.
//  - Scores are lower-is-better.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

// ---- Shared types ---------------------------------------------------------

// Reads a cached feature set. `name` is the preprocessing entry name for the
// input picture's features, or null for the reference features. Returns true
// when the entry was found and read.
using FeatureLoadCallback = std::function<bool(
    std::vector<cv::KeyPoint>& keypoints, cv::Mat& descriptors, const char* name)>;

// Stores a feature set under the same naming as FeatureLoadCallback.
using FeatureSaveCallback = std::function<void(
    const std::vector<cv::KeyPoint>& keypoints, const cv::Mat& descriptors,
    const char* name)>;

// Filter applied to a picture before SIFT extraction. Values outside the
// three members are legal: they are treated like ORIGINAL and named "UNKNOWN".
enum PreprocessingType : int {
  GAUSSIAN_BLUR = 0,
  ORIGINAL = 1,
  MORPHOLOGICAL_OPENING = 2,
};

// ---- Preprocessing --------------------------------------------------------

// Name under which features of `type` are cached ("UNKNOWN" for other values).
std::string get_preprocessing_name(PreprocessingType type);
