#include "video/tears.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "core/plane_io.h"

namespace framealign {

namespace {

// The pictures are compared at this width (the rows stay: a tear is placed
// by row) and with their slow shading taken away (vignetting, exposure),
// so that what is compared is the content's own detail.
constexpr int kTearWidth = 320;
constexpr double kShadingSigma = 2.0;
// Shares in the bands of rows are told to a twentieth.
constexpr double kShareStep = 20.0;

// What a capture row's pixels tell: their sums over the seen picture s and
// the two frames' a and b.
struct RowSums {
  double aa = 0, ab = 0, bb = 0, sa = 0, sb = 0, ss = 0;
  double gain = 1.0;  // the camera's, at these rows

  // How far the row is from the blend (1 - w) a + w b at the rows' gain.
  double cost(double w) const {
    const double sm = (1 - w) * sa + w * sb;
    const double mm = (1 - w) * (1 - w) * aa + 2 * w * (1 - w) * ab + w * w * bb;
    return ss - 2 * gain * sm + gain * gain * mm;
  }
};

// Each row's gain: the seen picture against the two frames' mean (which
// the blend's share barely moves), smoothed over this many rows either
// side, so that the gain cannot stand in for the share.
constexpr int kGainReach = 32;

void set_gains(std::vector<RowSums>& bins) {
  const int n = static_cast<int>(bins.size());
  std::vector<double> sm(n + 1, 0.0), mm(n + 1, 0.0);
  for (int j = 0; j < n; ++j) {
    const RowSums& b = bins[j];
    sm[j + 1] = sm[j] + (b.sa + b.sb) / 2;
    mm[j + 1] = mm[j] + (b.aa + 2 * b.ab + b.bb) / 4;
  }
  for (int j = 0; j < n; ++j) {
    const int lo = std::max(0, j - kGainReach), hi = std::min(n, j + kGainReach + 1);
    const double m = mm[hi] - mm[lo];
    bins[j].gain = m > 1e-9 ? (sm[hi] - sm[lo]) / m : 0.0;
  }
}

cv::Mat detail(const cv::Mat& picture, int height) {
  cv::Mat reduced, smooth;
  cv::resize(picture, reduced, cv::Size(std::min(kTearWidth, picture.cols), height), 0, 0,
             cv::INTER_AREA);
  reduced.convertTo(reduced, CV_32F);
  cv::GaussianBlur(reduced, smooth, cv::Size(), kShadingSigma);
  return reduced - smooth;
}

struct Ramp {
  double centre = 0, width = 1, cost = std::numeric_limits<double>::infinity();
  bool later_below = true;
};

// The ramp that best explains the rows: bins[j] holds capture row
// first + j. Coarse steps first, then a finer look around the best.
class RampFit {
 public:
  RampFit(const std::vector<RowSums>& bins, double first) : bins_(bins), first_(first) {
    const std::size_t n = bins.size();
    none_.assign(n + 1, 0.0);
    all_.assign(n + 1, 0.0);
    for (std::size_t j = 0; j < n; ++j) {
      none_[j + 1] = none_[j] + bins[j].cost(0.0);
      all_[j + 1] = all_[j] + bins[j].cost(1.0);
    }
  }

  Ramp best() const {
    const double n = static_cast<double>(bins_.size());
    Ramp best;
    for (double width = 1.0; width < 2 * n + 2; width *= 1.5) {
      const double step = std::max(0.5, width / 16);
      for (double c = first_ - width / 2; c <= first_ + n + width / 2; c += step) {
        consider(c, width, best);
      }
    }
    // Then around the best, halving the steps each round.
    double reach = std::max(0.5, best.width / 16), factor = 1.5;
    for (int round = 0; round < 6; ++round) {
      const Ramp around = best;
      for (int i = -4; i <= 4; ++i) {
        for (int k = -4; k <= 4; ++k) {
          consider(around.centre + i * reach / 4, around.width * std::pow(factor, k / 4.0), best);
        }
      }
      reach /= 2;
      factor = std::sqrt(factor);
    }
    return best;
  }

 private:
  void consider(double centre, double width, Ramp& best) const {
    const double n = static_cast<double>(bins_.size());
    // Bins whose middle (first + j + 0.5) lies inside the ramp.
    const auto lo =
        static_cast<std::size_t>(std::clamp(std::ceil(centre - width / 2 - first_ - 0.5), 0.0, n));
    const auto hi =
        static_cast<std::size_t>(std::clamp(std::ceil(centre + width / 2 - first_ - 0.5), 0.0, n));
    for (bool below : {true, false}) {
      const std::vector<double>& before = below ? none_ : all_;
      const std::vector<double>& after = below ? all_ : none_;
      double cost = before[lo] + after.back() - after[hi];
      for (std::size_t j = lo; j < hi && cost < best.cost; ++j) {
        const double rise = (first_ + j + 0.5 - centre) / width;
        cost += bins_[j].cost(std::clamp((below ? rise : -rise) + 0.5, 0.0, 1.0));
      }
      if (cost < best.cost) best = Ramp{centre, width, cost, below};
    }
  }

  const std::vector<RowSums>& bins_;
  double first_;
  std::vector<double> none_, all_;  // prefix sums of the bins' costs at w = 0 and w = 1
};

// The aligned rows of the bands that show `a` or `b`; all rows when
// neither has a band of its own.
cv::Range rows_of(const Identity& identity, int a, int b, int height) {
  const int bands = static_cast<int>(identity.band_frames.size());
  int first = bands, last = -1;
  for (int k = 0; k < bands; ++k) {
    if (identity.band_frames[k] == a || identity.band_frames[k] == b) {
      first = std::min(first, k);
      last = std::max(last, k);
    }
  }
  if (last < 0) return cv::Range(0, height);
  return cv::Range(first * height / bands, (last + 1) * height / bands);
}

Tear fit_tear(const cv::Mat& seen, const cv::Mat& raw, const cv::Mat& a, const cv::Mat& b,
              const cv::Mat& rows_at, cv::Range rows) {
  double lowest = HUGE_VAL, highest = -HUGE_VAL;
  for (int y = rows.start; y < rows.end; ++y) {
    for (int x = 0; x < seen.cols; ++x) {
      lowest = std::min<double>(lowest, rows_at.at<float>(y, x));
      highest = std::max<double>(highest, rows_at.at<float>(y, x));
    }
  }
  const double first = std::floor(lowest);
  std::vector<RowSums> bins(static_cast<std::size_t>(highest - first) + 1);
  for (int y = rows.start; y < rows.end; ++y) {
    for (int x = 0; x < seen.cols; ++x) {
      if (raw.at<uchar>(y, x) == 0) continue;  // outside the capture
      RowSums& sums = bins[static_cast<std::size_t>(rows_at.at<float>(y, x) - first)];
      const double s = seen.at<float>(y, x), p = a.at<float>(y, x), q = b.at<float>(y, x);
      sums.aa += p * p, sums.ab += p * q, sums.bb += q * q;
      sums.sa += s * p, sums.sb += s * q, sums.ss += s * s;
    }
  }
  set_gains(bins);
  const Ramp ramp = RampFit(bins, first).best();
  Tear tear;
  tear.centre = ramp.centre;
  tear.width = ramp.width;
  tear.later_below = ramp.later_below;
  return tear;
}

}  // namespace

void ShownModel::shares(double row, std::vector<double>& share) const {
  share.assign(frames.size(), 0.0);
  double rest = 1.0;
  for (std::size_t k = 0; k < tears.size(); ++k) {
    const Tear& t = tears[k];
    const double rise = (row - t.centre) / t.width;
    const double later = std::clamp((t.later_below ? rise : -rise) + 0.5, 0.0, 1.0);
    share[k] = rest * (1.0 - later);
    rest *= later;
  }
  share.back() = rest;
}

double ShownModel::capture_row(double x, double y) const {
  const cv::Matx33d& h = to_capture;
  return (h(1, 0) * x + h(1, 1) * y + h(1, 2)) / (h(2, 0) * x + h(2, 1) * y + h(2, 2));
}

ShownModel fit_tears(const cv::Mat& aligned, const Identity& identity,
                     const std::array<double, 8>& corners,
                     const std::function<cv::Mat(int)>& plane) {
  ShownModel model;
  model.width = aligned.cols;
  model.height = aligned.rows;
  model.frames = identity.ref_frames;
  std::sort(model.frames.begin(), model.frames.end());
  double frame[8];
  frame_corners(aligned.cols, aligned.rows, frame);
  model.to_capture =
      cv::Matx33d(cv::getPerspectiveTransform(corner_points(frame), corner_points(corners.data())));
  if (model.frames.size() < 2) return model;

  const cv::Mat seen = detail(aligned, aligned.rows);
  cv::Mat raw, rows_at(seen.size(), CV_32F);
  cv::resize(aligned, raw, seen.size(), 0, 0, cv::INTER_NEAREST);
  const double scale = double(aligned.cols) / seen.cols;
  for (int y = 0; y < seen.rows; ++y) {
    for (int x = 0; x < seen.cols; ++x) {
      rows_at.at<float>(y, x) = static_cast<float>(model.capture_row((x + 0.5) * scale - 0.5, y));
    }
  }
  cv::Mat earlier = detail(plane(model.frames[0]), aligned.rows);
  for (std::size_t k = 0; k + 1 < model.frames.size(); ++k) {
    const int a = model.frames[k], b = model.frames[k + 1];
    const cv::Mat later = detail(plane(b), aligned.rows);
    Tear tear = fit_tear(seen, raw, earlier, later, rows_at, rows_of(identity, a, b, aligned.rows));
    tear.earlier = a;
    tear.later = b;
    model.tears.push_back(tear);
    earlier = later;
  }
  return model;
}

std::vector<double> tear_rows(const ShownModel& model) {
  std::vector<double> rows;
  const cv::Matx33d& h = model.to_capture;
  const double x = model.width / 2.0;
  for (const Tear& t : model.tears) {
    // Where capture row t.centre crosses the middle column.
    const double c = t.centre;
    rows.push_back((c * (h(2, 0) * x + h(2, 2)) - h(1, 0) * x - h(1, 2)) / (h(1, 1) - c * h(2, 1)));
  }
  std::sort(rows.begin(), rows.end());
  return rows;
}

std::vector<ShownRows> shown_rows(const ShownModel& model) {
  std::vector<ShownRows> bands;
  std::vector<double> share;
  for (int y = 0; y < model.height; ++y) {
    ShownRows here;
    here.first_row = here.last_row = y;
    model.shares(model.capture_row(model.width / 2.0, y), share);
    for (std::size_t k = 0; k < share.size(); ++k) {
      const double told = std::round(share[k] * kShareStep) / kShareStep;
      if (told <= 0.0) continue;
      here.frames.push_back(model.frames[k]);
      here.weights.push_back(told);
    }
    if (!bands.empty() && bands.back().frames == here.frames &&
        bands.back().weights == here.weights) {
      bands.back().last_row = y;
    } else {
      bands.push_back(here);
    }
  }
  return bands;
}

cv::Mat shown_picture(const ShownModel& model, const std::function<cv::Mat(int)>& plane) {
  if (model.tears.empty()) return plane(model.frames.at(0));
  cv::Mat light(model.height, model.width, CV_32F, cv::Scalar(0));
  std::vector<cv::Mat> frames;
  for (int f : model.frames) frames.push_back(plane(f));
  std::vector<double> share;
  for (int y = 0; y < model.height; ++y) {
    float* out = light.ptr<float>(y);
    for (int x = 0; x < model.width; ++x) {
      model.shares(model.capture_row(x, y), share);
      double sum = 0.0;
      for (std::size_t k = 0; k < share.size(); ++k) sum += share[k] * frames[k].at<uchar>(y, x);
      out[x] = static_cast<float>(sum);
    }
  }
  cv::Mat shown;
  light.convertTo(shown, CV_8U);
  return shown;
}

}  // namespace framealign
