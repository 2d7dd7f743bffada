#include <gtest/gtest.h>

#include "align/align.h"
#include "test_support.h"

namespace {

TEST(apply_preprocessing, FiltersActAsNamedAndOthersCopy) {
  const cv::Mat texture = make_texture(64, 48, 1);
  for (int other : {1, 3, 4, 5, -1}) {
    const auto type = static_cast<PreprocessingType>(other);
    EXPECT_EQ(get_preprocessing_name(type), other == 1 ? "ORIGINAL" : "UNKNOWN");
    cv::Mat out = apply_preprocessing(texture, type);
    EXPECT_EQ(cv::norm(out, texture, cv::NORM_INF), 0.0);
    EXPECT_NE(out.data, texture.data);  // a copy of its own
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

}  // namespace
