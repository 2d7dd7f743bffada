#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "align/align.h"

namespace {

TEST(calculate_quantile, Nominal) {
  struct Case {
    std::vector<float> data;
    float q;
    float expected;
  };
  const std::vector<Case> cases = {
      {{1, 2, 3, 4}, 0.5f, 2.5f},
      {{4, 1, 3, 2}, 0.5f, 2.5f},  // unsorted input
      {{7}, 0.3f, 7.0f},
      {{1, 2, 3, 4, 5}, 0.0f, 1.0f},
      {{1, 2, 3, 4, 5}, 1.0f, 5.0f},
      {{0, 10}, 0.95f, 9.5f},
      {{10, 10, 10, 1}, 0.95f, 10.0f},
  };
  for (const Case& c : cases) {
    EXPECT_FLOAT_EQ(calculate_quantile(c.data, c.q), c.expected) << c.q;
  }
  const std::vector<float> unsorted = {3, 1, 2};
  calculate_quantile(unsorted, 0.5f);
  EXPECT_EQ(unsorted, (std::vector<float>{3, 1, 2}));  // the caller's data stays as it was
}

TEST(quantile, SortsInPlace) {
  std::vector<double> data = {4, 1, 3, 2};
  EXPECT_DOUBLE_EQ(quantile(data, 0.5), 2.5);
  EXPECT_EQ(data, (std::vector<double>{1, 2, 3, 4}));
  EXPECT_DOUBLE_EQ(quantile(data, 0.0), 1.0);
  EXPECT_DOUBLE_EQ(quantile(data, 1.0), 4.0);
  std::vector<double> one = {-2.5};
  EXPECT_DOUBLE_EQ(quantile(one, 0.7), -2.5);
}

TEST(quantile, MisuseIsReportedWithItsText) {
  struct Case {
    std::vector<double> data;
    double q;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{}, 0.5, "The data vector is empty."},
      {{}, 2.0, "The data vector is empty."},  // emptiness is tested first
      {{1, 2}, 1.0000001, "Quantile value must be between 0 and 1."},
      {{1, 2}, -0.0001, "Quantile value must be between 0 and 1."},
  };
  for (Case c : cases) {
    try {
      quantile(c.data, c.q);
      ADD_FAILURE() << "no exception for q=" << c.q;
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
    }
  }
  try {
    calculate_quantile({}, 0.5f);
    ADD_FAILURE() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(std::string(e.what()), "The data vector is empty.");
  }
}

TEST(get_angle, SignFollowsTurningDirection) {
  const cv::Point2f b(10, 10);
  EXPECT_NEAR(get_angle({20, 10}, b, {10, 20}), 90.0, 1e-4);  // clockwise on screen
  EXPECT_NEAR(get_angle({10, 20}, b, {20, 10}), -90.0, 1e-4);
  // float pi exceeds pi, so a straight angle wraps to just above -180.
  EXPECT_NEAR(get_angle({20, 10}, b, {0, 10}), -180.0, 1e-4);
  EXPECT_NEAR(get_angle({20, 9}, b, {20, 11}), 2 * std::atan(0.1) * 180 / M_PI, 1e-3);
  EXPECT_NEAR(get_angle({20, 11}, b, {20, 9}), -2 * std::atan(0.1) * 180 / M_PI, 1e-3);
  EXPECT_NEAR(get_angle_old({20, 10}, b, {10, 20}), 90.0, 1e-4);
  EXPECT_NEAR(get_angle_old({10, 20}, b, {20, 10}), 90.0, 1e-4);
  EXPECT_TRUE(std::isnan(get_angle_old(b, b, {1, 1})));
}

TEST(check_ref_pts_sanity, Nominal) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* what;
    double pts[8];
    bool sane;
  };
  const std::vector<Case> cases = {
      {"upright rectangle", {0, 0, 1920, 0, 0, 1080, 1920, 1080}, true},
      {"moderate perspective", {100, 50, 1800, 120, 60, 1000, 1850, 1040}, true},
      {"mirrored", {1920, 0, 0, 0, 1920, 1080, 0, 1080}, false},
      {"upside down", {0, 1080, 1920, 1080, 0, 0, 1920, 0}, false},
      {"top side too short", {0, 0, 95, 0, 0, 1080, 1920, 1080}, false},
      {"top side at the limit", {0, 0, 96, 0, 0, 1080, 96, 1080}, true},
      {"left side too short", {0, 0, 1920, 0, 0, 53, 1920, 1080}, false},
      {"twisted", {0, 0, 1920, 0, 1920, 1080, 0, 1080}, false},
      {"corner at 40 degrees", {0, 0, 1920, 0, 1287, 1080, 3207, 1080}, false},
      {"NaN passes every test", {nan, nan, nan, nan, nan, nan, nan, nan}, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(check_ref_pts_sanity(c.pts, 1920, 1080), c.sane) << c.what;
  }
}

TEST(calculateConvexHullArea, Nominal) {
  EXPECT_EQ(calculateConvexHullArea({}), 1.0);
  EXPECT_EQ(calculateConvexHullArea({{5, 5}, {100, 7}}), 1.0);
  EXPECT_EQ(calculateConvexHullArea({{0, 0}, {5, 5}, {10, 10}}), 0.0);
  EXPECT_EQ(calculateConvexHullArea({{0, 0}, {10, 0}, {10, 10}, {0, 10}, {5, 5}}), 100.0);
  // Points are rounded to pixels first, ties to even: 0.5 -> 0, 10.5 -> 10.
  EXPECT_EQ(calculateConvexHullArea({{0.5f, 0.5f}, {10.5f, 0.4f}, {10.4f, 10.5f}, {0.2f, 9.6f}}),
            100.0);
}

}  // namespace
