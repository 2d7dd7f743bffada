#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "align/align.h"

namespace {

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

}  // namespace
