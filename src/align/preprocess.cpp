#include <cstring>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/output_variants.h"

namespace framealign {

std::string get_preprocessing_name(PreprocessingType type) {
  switch (type) {
    case GAUSSIAN_BLUR:
      return "GAUSSIAN_BLUR";
    case ORIGINAL:
      return "ORIGINAL";
    case MORPHOLOGICAL_OPENING:
      return "MORPHOLOGICAL_OPENING";
  }
  return "UNKNOWN";
}

cv::Mat decode_raw_buffer(unsigned char* data, int width, int height) {
  return cv::Mat(height, width, CV_8UC1, data);
}

cv::Mat apply_preprocessing(const cv::Mat& image, PreprocessingType type) {
  cv::Mat out;
  if (type == GAUSSIAN_BLUR) {
    cv::GaussianBlur(image, out, cv::Size(5, 5), 1.0, 0.0, cv::BORDER_DEFAULT);
  } else if (type == MORPHOLOGICAL_OPENING) {
    const cv::Mat kernel =
        cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(3, 3), cv::Point(-1, -1));
    cv::morphologyEx(image, out, cv::MORPH_OPEN, kernel, cv::Point(-1, -1), 1,
                     cv::BORDER_CONSTANT, cv::morphologyDefaultBorderValue());
  } else {
    out = image.clone();
  }
  return out;
}

void adaptive_histogram_equalization(unsigned char* buffer, int width, int height,
                                     float clipLimit, int tilesX, int tilesY) {
  const cv::Mat source(height, width, CV_8UC1, buffer);
  cv::Mat equalized;
  // A fresh CLAHE object per call: calls run concurrently on different planes.
  const cv::Ptr<cv::CLAHE> clahe = cv::createCLAHE(clipLimit, cv::Size(tilesX, tilesY));
  clahe->apply(source, equalized);
  std::memcpy(buffer, equalized.data, static_cast<std::size_t>(width) * height);
}

void apply_output_variant(unsigned char* buffer, int width, int height, int code) {
  if (!is_output_variant(code) || code == 0) return;
  const ClaheSetting& s = kOutputVariants[code];
  adaptive_histogram_equalization(buffer, width, height, s.clip_limit, s.tiles_x, s.tiles_y);
}

}  // namespace framealign
