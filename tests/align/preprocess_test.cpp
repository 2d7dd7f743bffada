#include <gtest/gtest.h>

#include "align/align.h"
#include "align/internal.h"
#include "test_support.h"

namespace {

bool same(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST(apply_preprocessing, FiltersActAsNamedAndOthersCopy) {
  for (int other : {1, 3, 4, 5, -1}) {
    const auto type = static_cast<PreprocessingType>(other);
    EXPECT_EQ(get_preprocessing_name(type), other == 1 ? "ORIGINAL" : "UNKNOWN");
    const cv::Mat image = make_texture(64, 48, 1);
    cv::Mat out = apply_preprocessing(image, type);
    EXPECT_TRUE(same(out, image));
    out.setTo(0);  // a deep copy: the input is untouched
    EXPECT_TRUE(same(image, make_texture(64, 48, 1)));
  }
  // An isolated bright pixel is removed by the opening and spread by the
  // blur; a 5 x 5 block survives the opening.
  cv::Mat image(20, 20, CV_8UC1, cv::Scalar(0));
  image.at<unsigned char>(3, 3) = 200;
  image(cv::Rect(10, 10, 5, 5)).setTo(200);
  const cv::Mat opened = apply_preprocessing(image, MORPHOLOGICAL_OPENING);
  EXPECT_EQ(opened.at<unsigned char>(3, 3), 0);
  EXPECT_EQ(opened.at<unsigned char>(12, 12), 200);
  const cv::Mat blurred = apply_preprocessing(image, GAUSSIAN_BLUR);
  EXPECT_LT(blurred.at<unsigned char>(3, 3), 200);
  EXPECT_GT(blurred.at<unsigned char>(3, 4), 0);
}

TEST(apply_output_variant, ClaheStretchesAndRawCodesLeave) {
  // A dim, low-contrast plane of a size the tile grids do not divide.
  const cv::Mat before = make_texture(1283, 721, 2) / 4 + 40;
  double lo_before, hi_before, lo, hi;
  cv::minMaxLoc(before, &lo_before, &hi_before);
  for (int code : {0, 1, 2, 3, 4, 5, -1}) {
    cv::Mat plane = before.clone();
    apply_output_variant(plane.data, plane.cols, plane.rows, code);
    cv::minMaxLoc(plane, &lo, &hi);
    if (code >= 1 && code <= 4) {
      EXPECT_GT(hi - lo, 1.5 * (hi_before - lo_before)) << code;
    } else {
      EXPECT_TRUE(same(plane, before)) << code;
    }
  }
  std::vector<unsigned char> data(24);
  EXPECT_EQ(decode_raw_buffer(data.data(), 6, 4).data, data.data());
}

}  // namespace
