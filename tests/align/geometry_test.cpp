#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "align/align.h"

namespace {

TEST(quantile, FloatAndDoubleVersions) {
  const std::vector<std::tuple<std::vector<float>, float, float>> cases = {
      {{4, 1, 3, 2}, 0.5f, 2.5f}, {{7}, 0.3f, 7.0f}, {{1, 2, 3}, 0.0f, 1.0f},
      {{1, 2, 3}, 1.0f, 3.0f},    {{0, 10}, 0.95f, 9.5f}};
  for (const auto& [data, q, expected] : cases) {
    EXPECT_FLOAT_EQ(calculate_quantile(data, q), expected);
    std::vector<double> wide(data.begin(), data.end());
    EXPECT_NEAR(quantile(wide, q), expected, 1e-5);
    EXPECT_TRUE(std::is_sorted(wide.begin(), wide.end()));  // sorted in place
  }
  const std::vector<std::pair<std::vector<double>, double>> misuse = {
      {{}, 2.0}, {{1, 2}, 1.0000001}, {{1, 2}, -0.0001}};
  for (auto [data, q] : misuse) {
    try {
      quantile(data, q);
      ADD_FAILURE() << q;
    } catch (const std::invalid_argument& e) {
      // Emptiness is tested first.
      EXPECT_EQ(std::string(e.what()), data.empty() ? "The data vector is empty."
                                                    : "Quantile value must be between 0 and 1.");
    }
  }
  EXPECT_THROW(calculate_quantile({}, 0.5f), std::invalid_argument);
}

TEST(check_ref_pts_sanity, Nominal) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<std::tuple<const char*, std::vector<double>, bool>> cases = {
      {"upright", {0, 0, 1920, 0, 0, 1080, 1920, 1080}, true},
      {"perspective", {100, 50, 1800, 120, 60, 1000, 1850, 1040}, true},
      {"mirrored", {1920, 0, 0, 0, 1920, 1080, 0, 1080}, false},
      {"top side too short", {0, 0, 95, 0, 0, 1080, 1920, 1080}, false},
      {"sides at the limit", {0, 0, 96, 0, 0, 1080, 96, 1080}, true},
      {"twisted", {0, 0, 1920, 0, 1920, 1080, 0, 1080}, false},
      {"corner at 40 degrees", {0, 0, 1920, 0, 1287, 1080, 3207, 1080}, false},
      {"NaN passes", {nan, nan, nan, nan, nan, nan, nan, nan}, true},
  };
  for (const auto& [what, pts, sane] : cases) EXPECT_EQ(check_ref_pts_sanity(pts.data(), 1920, 1080), sane) << what;
}

TEST(calculateConvexHullArea, Nominal) {
  EXPECT_EQ(calculateConvexHullArea({{5, 5}, {100, 7}}), 1.0);
  EXPECT_EQ(calculateConvexHullArea({{0, 0}, {5, 5}, {10, 10}}), 0.0);
  // Rounded to pixels first, ties to even: 0.5 -> 0, 10.5 -> 10.
  EXPECT_EQ(calculateConvexHullArea({{0.5f, 0.5f}, {10.5f, 0.4f}, {10.4f, 10.5f}, {0.2f, 9.6f}, {5, 5}}),
            100.0);
}

}  // namespace
