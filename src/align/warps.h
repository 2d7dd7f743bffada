// Warps of the capture onto the frame, beside align_by_pts and align_frame.
#pragma once

#include <opencv2/core.hpp>

namespace framealign {

// Warps `image` so that the corners `pts` land on the width x height frame's
// corners, and outlines where the image lands (align_frame's warp).
void warp_to_frame(const cv::Mat& image, int width, int height, const double* pts,
                   unsigned char* aligned, double* content_pts);

// The frame's own outline (0,0) (0,H) (W,H) (W,0) as the first 8 polygon values.
void write_frame_polygon(int width, int height, double* content_pts);

}  // namespace framealign
