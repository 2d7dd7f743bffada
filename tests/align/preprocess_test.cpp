#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "synthetic.h"

namespace {

bool same(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST(get_preprocessing_name, Nominal) {
  EXPECT_EQ(get_preprocessing_name(GAUSSIAN_BLUR), "GAUSSIAN_BLUR");
  EXPECT_EQ(get_preprocessing_name(ORIGINAL), "ORIGINAL");
  EXPECT_EQ(get_preprocessing_name(MORPHOLOGICAL_OPENING), "MORPHOLOGICAL_OPENING");
  for (int other : {3, 4, 5, -1}) {
    EXPECT_EQ(get_preprocessing_name(static_cast<PreprocessingType>(other)), "UNKNOWN") << other;
  }
}

TEST(apply_preprocessing, UnknownTypesAndOriginalAreDeepCopies) {
  const cv::Mat image = make_texture(64, 48, 1);
  const cv::Mat before = image.clone();
  for (int type : {1, 3, 4, 5, -1}) {
    cv::Mat out = apply_preprocessing(image, static_cast<PreprocessingType>(type));
    EXPECT_TRUE(same(out, image)) << type;
    out.setTo(0);
    EXPECT_TRUE(same(image, before)) << type;
  }
}

TEST(apply_preprocessing, FiltersActAsNamed) {
  // An isolated bright pixel is removed by the opening and spread by the blur;
  // a 5x5 block survives the opening.
  cv::Mat image(20, 20, CV_8UC1, cv::Scalar(0));
  image.at<unsigned char>(3, 3) = 200;
  image(cv::Rect(10, 10, 5, 5)).setTo(200);
  const cv::Mat opened = apply_preprocessing(image, MORPHOLOGICAL_OPENING);
  EXPECT_EQ(opened.at<unsigned char>(3, 3), 0);
  EXPECT_EQ(opened.at<unsigned char>(12, 12), 200);
  const cv::Mat blurred = apply_preprocessing(image, GAUSSIAN_BLUR);
  EXPECT_LT(blurred.at<unsigned char>(3, 3), 200);
  EXPECT_GT(blurred.at<unsigned char>(3, 4), 0);
  EXPECT_EQ(image.at<unsigned char>(3, 3), 200);
}

TEST(adaptive_histogram_equalization, StretchesContrastInPlace) {
  // A dim, low-contrast plane of a size the tile grids do not divide.
  cv::Mat plane = make_texture(1283, 721, 2) / 4 + 40;
  ASSERT_TRUE(plane.isContinuous());
  const cv::Mat before = plane.clone();
  double lo_before, hi_before, lo, hi;
  cv::minMaxLoc(before, &lo_before, &hi_before);
  for (int code = 1; code <= 4; ++code) {
    cv::Mat copy = before.clone();
    apply_output_variant(copy.data, copy.cols, copy.rows, code);
    cv::minMaxLoc(copy, &lo, &hi);
    EXPECT_GT(hi - lo, 1.5 * (hi_before - lo_before)) << code;
  }
  cv::Mat expected;
  cv::createCLAHE(18.0, cv::Size(40, 64))->apply(before, expected);
  adaptive_histogram_equalization(plane.data, plane.cols, plane.rows, 18.0f, 40, 64);
  EXPECT_TRUE(same(plane, expected));
}

TEST(apply_output_variant, RawAndUnknownCodesLeaveThePlane) {
  const cv::Mat before = make_texture(80, 45, 3);
  for (int code : {0, 5, -1, 7}) {
    cv::Mat copy = before.clone();
    apply_output_variant(copy.data, copy.cols, copy.rows, code);
    EXPECT_TRUE(same(copy, before)) << code;
  }
}

TEST(decode_raw_buffer, WrapsWithoutCopying) {
  std::vector<unsigned char> data(6 * 4, 9);
  const cv::Mat m = decode_raw_buffer(data.data(), 6, 4);
  EXPECT_EQ(m.rows, 4);
  EXPECT_EQ(m.cols, 6);
  EXPECT_EQ(m.type(), CV_8UC1);
  EXPECT_EQ(m.data, data.data());
}

}  // namespace
