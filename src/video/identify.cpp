#include "video/identify.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/imgproc.hpp>

namespace framealign {

namespace {

// The first look: every frame at this width (a few kilobytes each, so that
// hours of reference stay in memory).
constexpr int kGlanceWidth = 64;
// The close look: the frames near the first look's best, in bands of about
// 5% of the screen's height each (a frame seen on fewer rows goes unseen).
constexpr int kBandWidth = 320;
constexpr int kBands = 20;
constexpr int kWindow = 4;  // frames either side of the first look's best
// The price of one more frame on the screen, in units of a band's
// 1 - correlation: a band's correlation moves by a few thousandths with the
// camera's noise, and a ghost of the next frame at a fifth of the light
// (rows exposed while the screen changed) gains several times as much
// over a few bands (bench/RESULTS.md, "Videos").
constexpr double kChangePrice = 0.01;
// The price, per band, of a frame one further from where the screen's clock
// expects it than the frames it shows in half a frame's time: about what a
// pan of a pixel per frame costs, so that the clock decides only between
// frames the pictures cannot tell apart.
constexpr double kClockPrice = 0.002;
// Below this mean correlation the screen shows none of the frames given.
constexpr double kMinimumCorrelation = 0.6;
// Bands flatter than this (grey levels, standard deviation) tell nothing.
constexpr double kFlatBand = 1.5;
constexpr double kFlatCost = 0.5;  // a flat band's cost, the same for every frame
constexpr double kUnseen = 2.0;    // the cost of a state the band cannot be in
// A blend counts when each frame gives at least this share of it: below a
// tenth, the camera's noise and the codec make ghosts of frames not shown.
constexpr double kLeastShare = 0.1;

cv::Size scaled(const cv::Size& frame, int width, int multiple) {
  const int rows = static_cast<int>(std::lround(double(width) * frame.height / frame.width / multiple));
  return cv::Size(width, std::max(1, rows) * multiple);
}

// The best assignment of window frames to bands, the frames in order along
// `bands` (band indices in reading order); returns its cost.
double assign(const std::vector<std::vector<double>>& cost, const std::vector<int>& bands,
              std::vector<int>& chosen) {
  const std::size_t frames = cost[0].size();
  std::vector<std::vector<double>> best(bands.size(), std::vector<double>(frames));
  std::vector<std::vector<int>> from(bands.size(), std::vector<int>(frames));
  for (std::size_t j = 0; j < frames; ++j) best[0][j] = cost[bands[0]][j];
  for (std::size_t b = 1; b < bands.size(); ++b) {
    double lowest = std::numeric_limits<double>::infinity();
    int lowest_at = 0;
    for (std::size_t j = 0; j < frames; ++j) {
      // Staying on frame j, or changing to it from an earlier frame.
      double here = best[b - 1][j];
      from[b][j] = static_cast<int>(j);
      if (lowest + kChangePrice < here) {
        here = lowest + kChangePrice;
        from[b][j] = lowest_at;
      }
      best[b][j] = here + cost[bands[b]][j];
      if (best[b - 1][j] < lowest) {
        lowest = best[b - 1][j];
        lowest_at = static_cast<int>(j);
      }
    }
  }
  const std::vector<double>& last = best.back();
  int j = static_cast<int>(std::min_element(last.begin(), last.end()) - last.begin());
  const double total = last[j];
  chosen.assign(cost.size(), 0);
  for (std::size_t b = bands.size(); b-- > 0;) {
    chosen[bands[b]] = j;
    j = from[b][j];
  }
  return total;
}

}  // namespace

void band_rows(const cv::Mat& picture, int bands, cv::Size size, cv::Mat& values,
               std::vector<bool>& informative) {
  cv::Mat reduced;
  cv::resize(picture, reduced, size, 0, 0, cv::INTER_AREA);
  reduced.convertTo(values, CV_32F);
  values = values.reshape(1, bands).clone();
  informative.assign(bands, false);
  for (int b = 0; b < bands; ++b) {
    cv::Mat row = values.row(b);
    cv::Scalar mean, deviation;
    cv::meanStdDev(row, mean, deviation);
    row -= mean[0];
    if (deviation[0] < kFlatBand) {
      row = 0.0f;
      continue;
    }
    row /= cv::norm(row);
    informative[b] = true;
  }
}

FrameIndex::FrameIndex(const std::function<cv::Mat(int)>& read, int first, int last)
    : read_(read), first_(first), last_(last) {
  for (int n = first; n <= last; ++n) {
    cv::Mat row;
    std::vector<bool> informative;
    const cv::Mat frame = read_(n);
    band_rows(frame, 1, scaled(frame.size(), kGlanceWidth, 1), row, informative);
    glance_.push_back(row);
  }
}

const FrameIndex::Bands& FrameIndex::bands_of(int frame) {
  auto it = bands_.find(frame);
  if (it != bands_.end()) return it->second;
  Bands& bands = bands_[frame];
  const cv::Mat picture = read_(frame);
  const cv::Size size = scaled(picture.size(), kBandWidth, kBands);
  band_rows(picture, kBands, size, bands.values, bands.informative);
  cv::resize(picture, bands.small, size, 0, 0, cv::INTER_AREA);
  bands.small.convertTo(bands.small, CV_32F);
  return bands;
}

// The states a band can be in, in the order a rolling shutter passes them:
// state 2j shows window frame j, state 2j + 1 a blend of frames j and j + 1
// (rows exposed while the screen changed). Each state's cost per band.
std::vector<std::vector<double>> FrameIndex::state_costs(const cv::Mat& seen,
                                                         const std::vector<bool>& informative,
                                                         const std::vector<int>& window,
                                                         std::vector<std::vector<double>>& weight) {
  const std::size_t states = 2 * window.size() - 1;
  std::vector<std::vector<double>> cost(kBands, std::vector<double>(states, kFlatCost));
  weight.assign(kBands, std::vector<double>(states, 1.0));
  // Frames away from this window are not looked at again soon; the ones in
  // it stay put while their addresses are held below.
  for (auto old = bands_.begin(); old != bands_.end();) {
    const bool near = old->first >= window.front() - kWindow && old->first <= window.back() + kWindow;
    old = near ? std::next(old) : bands_.erase(old);
  }
  std::vector<const Bands*> bands;
  for (int frame : window) bands.push_back(&bands_of(frame));
  for (int b = 0; b < kBands; ++b) {
    if (!informative[b]) continue;
    for (std::size_t j = 0; j < window.size(); ++j) {
      cost[b][2 * j] = bands[j]->informative[b] ? 1.0 - seen.row(b).dot(bands[j]->values.row(b)) : 1.0;
      if (j + 1 == window.size()) break;
      cost[b][2 * j + 1] = kUnseen;
      if (!bands[j]->informative[b] || !bands[j + 1]->informative[b]) continue;
      // The blend of the two that comes closest: the projection of the
      // band onto their span; both must weigh in.
      const double g = bands[j]->values.row(b).dot(bands[j + 1]->values.row(b));
      const double p = seen.row(b).dot(bands[j]->values.row(b));
      const double q = seen.row(b).dot(bands[j + 1]->values.row(b));
      if (1.0 - g * g < 1e-6) continue;
      const double alpha = (p - g * q) / (1.0 - g * g), beta = (q - g * p) / (1.0 - g * g);
      if (std::min(alpha, beta) < kLeastShare * (alpha + beta)) continue;
      cost[b][2 * j + 1] = 1.0 - std::sqrt(std::max(0.0, p * alpha + q * beta));
      weight[b][2 * j + 1] = alpha / (alpha + beta);
    }
  }
  return cost;
}

std::vector<int> FrameIndex::window_around(const cv::Mat& aligned, const double* expected) const {
  cv::Mat glance;
  std::vector<bool> informative;
  band_rows(aligned, 1, scaled(aligned.size(), kGlanceWidth, 1), glance, informative);
  std::vector<int> window;
  if (!informative[0] || glance_.empty()) return window;
  const cv::Mat similarity = glance_ * glance.t();
  cv::Point best;
  cv::minMaxLoc(similarity, nullptr, nullptr, nullptr, &best);
  int low = first_ + best.y, high = low;
  if (expected != nullptr && std::abs(*expected - low) <= 2 * kWindow) {
    low = std::min(low, static_cast<int>(std::floor(*expected)));
    high = std::max(high, static_cast<int>(std::ceil(*expected)));
  }
  for (int n = std::max(first_, low - kWindow); n <= std::min(last_, high + kWindow); ++n) {
    window.push_back(n);
  }
  return window;
}

Identity FrameIndex::identify(const cv::Mat& aligned, const double* expected) {
  Identity identity;
  const std::vector<int> window = window_around(aligned, expected);
  if (window.empty()) return identity;
  cv::Mat seen;
  std::vector<bool> informative;
  band_rows(aligned, kBands, scaled(aligned.size(), kBandWidth, kBands), seen, informative);
  std::vector<std::vector<double>> weight;
  const std::vector<std::vector<double>> raw = state_costs(seen, informative, window, weight);
  std::vector<std::vector<double>> cost = raw;
  if (expected != nullptr) {
    // The screen's clock: among frames that match about as well, the one
    // the clock expects.
    for (std::vector<double>& band : cost) {
      for (std::size_t state = 0; state < band.size(); ++state) {
        const double frame = window[state / 2] + 0.5 * (state % 2);
        band[state] += kClockPrice * std::max(0.0, std::abs(frame - *expected) - 0.5);
      }
    }
  }

  std::vector<int> down(kBands), up(kBands), chosen, chosen_up;
  for (int b = 0; b < kBands; ++b) {
    down[b] = b;
    up[b] = kBands - 1 - b;
  }
  if (assign(cost, up, chosen_up) < assign(cost, down, chosen)) chosen = chosen_up;

  double sum = 0.0;
  int telling = 0;
  auto note = [&identity](int frame) {
    if (std::find(identity.ref_frames.begin(), identity.ref_frames.end(), frame) ==
        identity.ref_frames.end()) {
      identity.ref_frames.push_back(frame);
    }
  };
  for (int b = 0; b < kBands; ++b) {
    const int state = chosen[b], j = state / 2;
    const bool blend = state % 2 == 1;
    note(window[j]);
    if (blend) note(window[j + 1]);
    identity.band_frames.push_back(blend && weight[b][state] < 0.5 ? window[j + 1] : window[j]);
    // A blended band shows no frame alone.
    identity.band_costs.push_back(!informative[b] ? -1.0 : blend ? 1.0 : raw[b][state]);
    if (informative[b]) sum += raw[b][state];
    telling += informative[b] ? 1 : 0;
  }
  identity.ref_frame = identity.band_frames[kBands / 2];
  identity.sync_score = sum / std::max(telling, 1);
  identity.found = telling > 0 && 1.0 - identity.sync_score >= kMinimumCorrelation;
  if (identity.found) decide_on_differences(aligned, window, identity);
  return identity;
}

}  // namespace framealign
