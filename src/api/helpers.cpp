// The public helpers around align(): reading a capture, warping by corners,
// naming output variants.
#include <algorithm>

#include "align/align.h"
#include "align/output_variants.h"
#include "core/as_error.h"
#include "framealign/framealign.h"
#include "io/readers.h"

namespace framealign {

const char* version() { return FRAMEALIGN_VERSION; }

cv::Mat read_capture(const std::string& path, int width, int height) {
  return as_error([&] {
    LumaFrame frame;
    if (!read_input_frame(path, 0, 0, width, height, frame)) {
      throw Error("Failed to read image file: " + path);
    }
    return cv::Mat(frame.height, frame.width, CV_8UC1, frame.plane.data()).clone();
  });
}

cv::Mat warp_by_corners(const cv::Mat& capture, const std::array<double, 8>& corners, int width,
                        int height, int variant) {
  if (capture.empty() || capture.type() != CV_8UC1) {
    throw Error("the capture must be a non-empty 8-bit grey picture (CV_8UC1)");
  }
  return as_error([&] {
    check_output_variant(variant);
    luma_plane_size(width, height);  // refuses sizes a plane cannot have
    cv::Mat frame(height, width, CV_8UC1);
    double content[20];
    align_by_pts(capture, width, height, 0, 0, corners.data(), frame.data, content);
    apply_output_variant(frame.data, width, height, variant);
    return frame;
  });
}

std::vector<int> parse_outputs(const std::string& text) {
  std::vector<int> outputs;
  const std::string error = append_output_list(text, outputs);
  // framealign's line, less its "Error: " prefix.
  if (!error.empty()) throw Error(error.substr(error.find(' ') + 1));
  return outputs;
}

}  // namespace framealign
