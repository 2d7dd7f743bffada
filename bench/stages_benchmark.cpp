// Where the time of one search goes: each costly stage on a 1920 x 1080
// reference and a 4032 x 3024 capture from the simulator.
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>
#include <vector>

#include "align/align.h"
#include "align/matching.h"
#include "align/refinement.h"
#include "align/scoring.h"
#include "align/warps.h"
#include "sim/render.h"

using namespace framealign;  // NOLINT(google-build-using-namespace)

namespace {

constexpr int kW = 1920, kH = 1080;

struct Inputs {
  cv::Mat reference = make_reference_frame(kW, kH, 1);
  cv::Mat capture;
  std::vector<cv::KeyPoint> ref_kps, cap_kps;
  cv::Mat ref_desc, cap_desc;
  std::vector<cv::DMatch> ratio_matches, inliers;
  double frame[8];

  Inputs() {
    frame_corners(kW, kH, frame);
    CaptureSettings s;
    s.capture_width = 4032;
    s.capture_height = 3024;
    capture = render_capture(reference, s).picture;
    SIFTdetectAndCompute(reference, ref_kps, ref_desc, false);
    SIFTdetectAndCompute(apply_preprocessing(capture, ORIGINAL), cap_kps, cap_desc, false);
    cv::theRNG() = cv::RNG();
    ratio_matches = ratio_test_matches(ref_desc, cap_desc);
    std::sort(ratio_matches.begin(), ratio_matches.end(), by_distance);
    double score = 1.0;
    inliers = inspect_matches(ratio_matches, ref_kps, cap_kps, kW, kH, frame, score);
  }
};

Inputs& inputs() {
  static Inputs shared;
  return shared;
}

// Every benchmark checks, after its loop, that the timed work gave what the
// setup's run of the same work gave, and reports it as a counter.
void check(benchmark::State& state, const char* what, double got, double expected) {
  state.counters[what] = got;
  if (got != expected) state.SkipWithError((std::string(what) + " differs from the setup's").c_str());
}

void run_sift(benchmark::State& state, const cv::Mat& picture, std::size_t keypoints) {
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  for (auto _ : state) {
    SIFTdetectAndCompute(picture, kps, desc, false);
    benchmark::DoNotOptimize(desc.data);
  }
  check(state, "keypoints", kps.size(), keypoints);
}

void bm_sift_reference(benchmark::State& state) {
  run_sift(state, inputs().reference, inputs().ref_kps.size());
}

void bm_sift_capture(benchmark::State& state) {
  run_sift(state, inputs().capture, inputs().cap_kps.size());
}

void bm_flann_ratio_matching(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<cv::DMatch> matches;
  for (auto _ : state) {
    cv::theRNG() = cv::RNG();  // the setup's k-d trees
    matches = ratio_test_matches(in.ref_desc, in.cap_desc);
  }
  check(state, "matches", matches.size(), in.ratio_matches.size());
}

void bm_inspect_matches(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<cv::DMatch> inliers;
  for (auto _ : state) {
    double score = 1.0;
    inliers = inspect_matches(in.ratio_matches, in.ref_kps, in.cap_kps, kW, kH, in.frame, score);
  }
  check(state, "inliers", inliers.size(), in.inliers.size());
}

void bm_warp(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<unsigned char> aligned(kW * kH);
  double pts[8], content[20];
  for (auto _ : state) {
    align_frame(in.inliers, in.ref_kps, in.cap_kps, in.capture, kW, kH, in.frame, aligned.data(),
                pts, content);
  }
  // The warped frame shows the capture: its mean grey is that of the reference, near enough.
  const double mean = cv::mean(cv::Mat(kH, kW, CV_8UC1, aligned.data()))[0];
  check(state, "mean_grey_close", std::abs(mean - cv::mean(in.reference)[0]) < 20, 1);
}

void bm_rectification_score(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<unsigned char> aligned(kW * kH);
  double pts[8], content[20];
  align_frame(in.inliers, in.ref_kps, in.cap_kps, in.capture, kW, kH, in.frame, aligned.data(),
              pts, content);
  double score = kFailedScore;
  for (auto _ : state) {
    cv::theRNG() = cv::RNG();
    score = get_rectification_score(aligned.data(), in.ref_kps, in.ref_desc, kW, kH);
  }
  check(state, "score_below_1px", score < 1.0, 1);
}

// What --refine adds per attempt: the refits and the estimate (the aligned
// frame's matches come from the score, already made).
void bm_refinement(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<unsigned char> aligned(kW * kH);
  double pts[8], content[20];
  align_frame(in.inliers, in.ref_kps, in.cap_kps, in.capture, kW, kH, in.frame, aligned.data(),
              pts, content);
  cv::theRNG() = cv::RNG();
  const RectifiedMatches rectified = match_rectified(aligned.data(), in.ref_desc, kW, kH);
  const PointPairs pairs = matched_points(in.ratio_matches, in.ref_kps, in.cap_kps);
  const PointPairs frame_pairs = matched_points(rectified.matches, in.ref_kps, rectified.keypoints);
  RefinedCorners refined;
  for (auto _ : state) {
    refined = refine_corners(pairs, frame_pairs, pts, kW, kH, in.capture.size());
    warp_to_frame(in.capture, kW, kH, refined.corners, aligned.data(), content);
  }
  check(state, "accepted", refined.accepted, 1);
  check(state, "estimate_below_1px", refined.est_error_px < 1.0, 1);
}

void bm_whole_search(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<unsigned char> storage(6 * kW * kH);
  unsigned char* aligned[6];
  for (int i = 0; i < 6; ++i) aligned[i] = storage.data() + i * kW * kH;
  double pts[6][8], content[6][20];
  int k = 0;
  for (auto _ : state) {
    double best = 0;
    k = get_rectified_imgs(in.capture, kW, kH, nullptr, in.reference.data, aligned, pts, content,
                           &best, nullptr, nullptr, false);
  }
  check(state, "successful_attempts", k, 3);
}

BENCHMARK(bm_sift_reference)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(bm_sift_capture)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(bm_flann_ratio_matching)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(bm_inspect_matches)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(bm_warp)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(bm_rectification_score)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(bm_refinement)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(bm_whole_search)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
