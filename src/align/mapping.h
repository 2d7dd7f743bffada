// Mappings: homographies with radial lens distortion, built, inverted,
// warped through and written.
#pragma once

#include <string>

#include <opencv2/core.hpp>

#include "framealign/framealign.h"

namespace framealign {

// The plain homography `to_capture` (reference to capture) as a Mapping about
// the centre of a capture of size `capture`.
Mapping homography_mapping(const cv::Matx33d& to_capture, cv::Size capture);

// The homography that puts the frame's corners at `corners`, as a Mapping.
Mapping corners_mapping(const double* corners, int width, int height, cv::Size capture);

// The undistorted radius of distorted radius `rd` (both in units of the
// mapping's scale); NaN beyond largest_monotonic_radius's image.
double undistorted_radius(double k1, double k2, double rd);
double largest_monotonic_radius(double k1, double k2);

// Warps `image` onto the width x height frame through `mapping` (cv::remap,
// bilinear, black outside).
void warp_through_mapping(const cv::Mat& image, const Mapping& mapping, int width, int height,
                          unsigned char* aligned);

// The mapping_i.txt file's text.
std::string mapping_text(const Mapping& mapping);

}  // namespace framealign
