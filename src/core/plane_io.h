// Frames, planes and files: the corner array of a frame, plane sizes and
// copies, files replaced atomically (plane_io.cpp).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace framealign {

// ---- Frames and files -----------------------------------------------------

// The corner array of a width x height frame in its own pixels:
// (0,0) (W,0) (0,H) (W,H).
void frame_corners(double width, double height, double (&corners)[8]);

// The four points of a corner array, in single precision as OpenCV's
// perspective functions take them.
std::vector<cv::Point2f> corner_points(const double* corners);

// Bytes of a width x height luma plane. Throws std::invalid_argument
// ("Invalid frame size: WxH") for an empty or negative size, or one whose
// byte count does not fit an int.
std::size_t luma_plane_size(int width, int height);

// Copies the first width x height bytes of `picture` into `plane`, row after
// row as they lie. Throws std::runtime_error when the picture holds fewer,
// rather than reading past its end.
void copy_plane(const cv::Mat& picture, unsigned char* plane, int width, int height);

// Writes `size` bytes to `path` under a temporary name and renames it into
// place, so that a reader (another thread or process) sees the old file or
// the whole new one, never half of one. False when any step fails; nothing
// is left behind then.
bool replace_file(const std::string& path, const void* data, std::size_t size);

}  // namespace framealign
