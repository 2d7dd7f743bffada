// Where the time of one search goes: each costly stage on a 1920 x 1080
// reference and a 4032 x 3024 capture from the simulator.
#include <benchmark/benchmark.h>

#include <vector>

#include "align/align.h"
#include "align/internal.h"
#include "sim/render.h"

namespace {

constexpr int kW = 1920, kH = 1080;

struct Inputs {
  cv::Mat reference = make_reference_frame(kW, kH, 1);
  cv::Mat capture;
  std::vector<cv::KeyPoint> ref_kps, cap_kps;
  cv::Mat ref_desc, cap_desc;
  std::vector<cv::DMatch> ratio_matches, inliers;
  const double frame[8] = {0, 0, kW, 0, 0, kH, kW, kH};

  Inputs() {
    CaptureSettings s;
    s.capture_width = 4032;
    s.capture_height = 3024;
    capture = render_capture(reference, s).picture;
    SIFTdetectAndCompute(reference, ref_kps, ref_desc, false);
    SIFTdetectAndCompute(apply_preprocessing(capture, ORIGINAL), cap_kps, cap_desc, false);
    ratio_matches = ratio_test_matches(ref_desc, cap_desc);
    std::sort(ratio_matches.begin(), ratio_matches.end(),
              [](const cv::DMatch& a, const cv::DMatch& b) { return a.distance < b.distance; });
    double score = 1.0;
    inliers = inspect_matches(ratio_matches, ref_kps, cap_kps, kW, kH, frame, score);
  }
};

Inputs& inputs() {
  static Inputs shared;
  return shared;
}

// SIFT on one picture; the counter is the keypoint count found once at setup.
void run_sift(benchmark::State& state, const cv::Mat& picture, std::size_t keypoints) {
  for (auto _ : state) {
    std::vector<cv::KeyPoint> kps;
    cv::Mat desc;
    SIFTdetectAndCompute(picture, kps, desc, false);
    benchmark::DoNotOptimize(desc.data);
  }
  state.counters["keypoints"] = static_cast<double>(keypoints);
}

void bm_sift_reference(benchmark::State& state) {
  run_sift(state, inputs().reference, inputs().ref_kps.size());
}

void bm_sift_capture(benchmark::State& state) {
  run_sift(state, inputs().capture, inputs().cap_kps.size());
}

void bm_flann_ratio_matching(benchmark::State& state) {
  Inputs& in = inputs();
  for (auto _ : state) benchmark::DoNotOptimize(ratio_test_matches(in.ref_desc, in.cap_desc));
  state.counters["matches"] = static_cast<double>(in.ratio_matches.size());
}

void bm_inspect_matches(benchmark::State& state) {
  Inputs& in = inputs();
  for (auto _ : state) {
    double score = 1.0;
    benchmark::DoNotOptimize(
        inspect_matches(in.ratio_matches, in.ref_kps, in.cap_kps, kW, kH, in.frame, score));
  }
  state.counters["inliers"] = static_cast<double>(in.inliers.size());
}

void bm_warp(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<unsigned char> aligned(kW * kH);
  double pts[8], content[20];
  for (auto _ : state) {
    align_frame(in.inliers, in.ref_kps, in.cap_kps, in.capture, kW, kH, in.frame, aligned.data(),
                pts, content);
  }
}

void bm_rectification_score(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<unsigned char> aligned(kW * kH);
  double pts[8], content[20];
  align_frame(in.inliers, in.ref_kps, in.cap_kps, in.capture, kW, kH, in.frame, aligned.data(),
              pts, content);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        get_rectification_score(aligned.data(), in.ref_kps, in.ref_desc, kW, kH));
  }
}

void bm_whole_search(benchmark::State& state) {
  Inputs& in = inputs();
  std::vector<unsigned char> storage(6 * kW * kH);
  unsigned char* aligned[6];
  for (int i = 0; i < 6; ++i) aligned[i] = storage.data() + i * kW * kH;
  double pts[6][8], content[6][20];
  for (auto _ : state) {
    double best = 0;
    const int k = get_rectified_imgs(in.capture, kW, kH, nullptr, in.reference.data, aligned, pts,
                                     content, &best, nullptr, nullptr, false);
    if (k < 1) state.SkipWithError("search found nothing");
  }
}

BENCHMARK(bm_sift_reference)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(bm_sift_capture)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(bm_flann_ratio_matching)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(bm_inspect_matches)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(bm_warp)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(bm_rectification_score)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(bm_whole_search)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
