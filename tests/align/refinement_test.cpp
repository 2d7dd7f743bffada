#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/refinement.h"
#include "sim/render.h"

using namespace framealign;  // NOLINT(google-build-using-namespace)

namespace {

constexpr int kW = 1280, kH = 720;
const cv::Size kCapture(1800, 1100);

// A capture-to-frame view: the frame's corners seen at these capture points.
const double kTruth[8] = {210.3, 150.7, 1490.2, 170.4, 190.9, 905.6, 1530.8, 880.1};

// Pairs seen through `corners`' view, with per-axis noise and a share of
// matches that point anywhere.
PointPairs pairs_of(const double* corners, int n, double noise, double outliers) {
  double frame[8];
  frame_corners(kW, kH, frame);
  const cv::Mat from_frame = cv::getPerspectiveTransform(corner_points(frame), corner_points(corners));
  cv::RNG rng(7);
  PointPairs pairs;
  for (int i = 0; i < n; ++i) {
    std::vector<cv::Point2d> ref = {{rng.uniform(0.0, double(kW)), rng.uniform(0.0, double(kH))}}, seen;
    cv::perspectiveTransform(ref, seen, from_frame);
    seen[0] += cv::Point2d(rng.gaussian(noise), rng.gaussian(noise));
    if (rng.uniform(0.0, 1.0) < outliers) seen[0] += cv::Point2d(rng.uniform(-30.0, 30.0), rng.uniform(-30.0, 30.0));
    pairs.input.push_back(seen[0]);
    pairs.reference.push_back(ref[0]);
  }
  return pairs;
}

TEST(refine_corners, ConvergesGuardsAndEstimates) {
  const double near[8] = {1.5, -1.2, -0.8, 1.7, 1.1, 0.9, -1.6, -1.0};  // the search's kind of error
  const double far[8] = {7, -6, -7, 6, 6, 7, -6, -7};
  double found[8], wrong[8];
  for (int i = 0; i < 8; ++i) {
    found[i] = kTruth[i] + near[i];
    wrong[i] = kTruth[i] + far[i];
  }
  const PointPairs clean = pairs_of(kTruth, 1500, 0.35, 0.1);
  // The aligned frame's own matches when the search's warp was right: each
  // lies where its reference point is.
  PointPairs agreeing;
  cv::RNG rng(3);
  for (int i = 0; i < 600; ++i) {
    const cv::Point2d p(30 + (i % 30) * 40.0, 30 + (i / 30) * 22.0);
    agreeing.input.push_back(p + cv::Point2d(rng.gaussian(0.3), rng.gaussian(0.3)));
    agreeing.reference.push_back(p);
  }
  struct Case {
    const char* what;
    PointPairs pairs, rectified;
    const double* start;
    bool accepted;
    const double* lands;  // where the corners should end
  } cases[] = {
      {"noisy pairs with mismatches", clean, {}, found, true, kTruth},
      // The evidence lies further from the search's corners than a refinement may move them.
      {"diverging", pairs_of(wrong, 1500, 0.35, 0.0), {}, kTruth, false, kTruth},
      {"too few pairs", pairs_of(kTruth, 20, 0.35, 0.0), {}, found, false, found},
      // The aligned frame's matches, found at the reference's scale, outweigh the input's.
      {"the aligned frame says the search was right", clean, agreeing, found, true, found},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const RefinedCorners r = refine_corners(c.pairs, c.rectified, c.start, kW, kH, kCapture);
    EXPECT_EQ(r.accepted, c.accepted);
    EXPECT_FALSE(r.mapping.has_lens());
    const double off = corner_error(c.lands, r.corners, kW, kH).max;
    if (c.accepted) {
      EXPECT_LT(off, 0.1);
      EXPECT_GE(r.est_error_px, off);
      EXPECT_LT(r.est_error_px, 0.5);
    } else {
      EXPECT_EQ(std::vector<double>(r.corners, r.corners + 8), std::vector<double>(c.start, c.start + 8));
      EXPECT_GT(r.est_error_px, 0.5);
    }
  }
}

// The aligned frame's matches of a capture through a lens of coefficient k1
// (the search's corners where the lens puts the frame's): the lens is
// recovered over the whole frame when there is one, and refused when not.
TEST(refine_corners, TakesTheLensOnlyWhenTheMatchesBend) {
  double frame[8];
  frame_corners(kW, kH, frame);
  const cv::Mat to_capture = cv::getPerspectiveTransform(corner_points(frame), corner_points(kTruth));
  for (const double k1 : {-0.05, -0.02, 0.0}) {
    SCOPED_TRACE(k1);
    Mapping truth;
    truth.homography = cv::Matx33d(to_capture.ptr<double>());
    truth.centre = {kCapture.width / 2.0, kCapture.height / 2.0};
    truth.scale = 0.5 * std::hypot(kCapture.width, kCapture.height);
    truth.k1 = k1;
    double start[8];
    for (int i = 0; i < 4; ++i) {
      const cv::Point2d p = truth.to_capture({frame[2 * i], frame[2 * i + 1]});
      start[2 * i] = p.x;
      start[2 * i + 1] = p.y;
    }
    const cv::Mat found = cv::getPerspectiveTransform(corner_points(start), corner_points(frame));
    PointPairs pairs, rectified;
    cv::RNG rng(11);
    for (int i = 0; i < 1200; ++i) {
      const cv::Point2d q(rng.uniform(0.0, double(kW)), rng.uniform(0.0, double(kH)));
      const cv::Point2d d = truth.to_capture(q);
      std::vector<cv::Point2d> seen = {d + cv::Point2d(rng.gaussian(0.3), rng.gaussian(0.3))}, in_frame;
      cv::perspectiveTransform(seen, in_frame, found);
      pairs.input.push_back(d + cv::Point2d(rng.gaussian(0.4), rng.gaussian(0.4)));
      pairs.reference.push_back(q);
      rectified.input.push_back(in_frame[0]);
      rectified.reference.push_back(q);
    }
    const RefinedCorners r = refine_corners(pairs, rectified, start, kW, kH, kCapture);
    EXPECT_EQ(r.mapping.has_lens(), k1 != 0.0);
    double worst = 0.0;
    for (const cv::Point2d& q : frame_grid(kW, kH)) {
      const cv::Point2d back = truth.to_reference(r.mapping.to_capture(q));
      worst = std::max(worst, std::hypot(back.x - q.x, back.y - q.y));
    }
    EXPECT_LT(worst, 0.15);
    EXPECT_GE(r.est_error_px, worst);
    EXPECT_LT(r.est_error_px, 0.6);
  }
}

}  // namespace
