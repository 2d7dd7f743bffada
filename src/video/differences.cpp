// Telling frames apart that differ only in a small part of the picture:
// a cursor on a slide, the passers-by of a fixed camera's street. Each band
// of such frames correlates with every one of them alike, so the bands (and
// with them the screen's clock, which decides between frames alike) would
// pick any; the pixels where the frames differ tell which one is shown.
#include <algorithm>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "video/identify.h"

namespace framealign {

namespace {

// Pixels (at the bands' width) where the window's frames differ by more
// than this many grey levels are the ones that tell them apart...
constexpr float kDiffer = 16.0f;
// ...and the bands could not tell them apart when those are fewer than
// this share of the picture and lie in at most this share of its cells
// (kCells x kCells): a pan of a fraction of a pixel moves every edge a
// little, which a geometry a little off moves as much, while a cursor or a
// passer-by changes a few places a lot.
constexpr double kSmallPart = 0.1;
constexpr int kCells = 8;
constexpr double kFewCells = 0.25;
// A blend of two frames counts when each gives at least this share.
constexpr double kLeastShare = 0.1;

struct Choice {
  int first = 0;       // window index of the frame (or of a blend's earlier frame)
  double share = 0.0;  // of the next frame, 0 for a frame alone
  double cost = std::numeric_limits<double>::infinity();
};

}  // namespace

void FrameIndex::decide_on_differences(const cv::Mat& aligned, const std::vector<int>& window,
                                       Identity& identity) {
  if (window.size() < 2) return;
  std::vector<cv::Mat> frames;
  for (int f : window) frames.push_back(bands_of(f).small);
  const cv::Size size = frames[0].size();
  cv::Mat lo = frames[0].clone(), hi = frames[0].clone(), seen, inside;
  for (const cv::Mat& f : frames) {
    cv::min(lo, f, lo);
    cv::max(hi, f, hi);
  }
  cv::resize(aligned, seen, size, 0, 0, cv::INTER_AREA);
  inside = seen > 0;  // the aligned frame is black outside the capture
  seen.convertTo(seen, CV_32F);
  const cv::Mat differ = (hi - lo > kDiffer) & inside;
  const int count = cv::countNonZero(differ);
  if (count == 0 || count > kSmallPart * size.area()) return;
  int cells = 0;
  for (int i = 0; i < kCells; ++i) {
    for (int j = 0; j < kCells; ++j) {
      const cv::Rect cell(j * size.width / kCells, i * size.height / kCells, size.width / kCells,
                          size.height / kCells);
      cells += cv::countNonZero(differ(cell)) > 0;
    }
  }
  if (cells > kFewCells * kCells * kCells) return;

  // The camera's gain and offset, from the whole picture against the frame
  // told (the frames are alike elsewhere), taken out of what was seen.
  const auto told = std::find(window.begin(), window.end(), identity.ref_frame);
  if (told == window.end()) return;
  const cv::Mat& reference = frames[told - window.begin()];
  cv::Scalar seen_mean, seen_dev, ref_mean, ref_dev;
  cv::meanStdDev(seen, seen_mean, seen_dev, inside);
  cv::meanStdDev(reference, ref_mean, ref_dev, inside);
  if (seen_dev[0] <= 0) return;
  const cv::Mat level = (seen - seen_mean[0]) * (ref_dev[0] / seen_dev[0]) + ref_mean[0];

  std::vector<Choice> choices;
  for (std::size_t j = 0; j < frames.size(); ++j) {
    const cv::Mat off = level - frames[j];
    choices.push_back({static_cast<int>(j), 0.0, cv::norm(off, cv::NORM_L2SQR, differ)});
    if (j + 1 == frames.size()) break;
    // The blend of j and j + 1 closest to what was seen.
    const cv::Mat step = frames[j + 1] - frames[j];
    cv::Mat masked_off, masked_step;
    off.copyTo(masked_off, differ);
    step.copyTo(masked_step, differ);
    const double norm = masked_step.dot(masked_step);
    if (norm <= 0) continue;
    const double share = masked_off.dot(masked_step) / norm;
    if (share < kLeastShare || share > 1 - kLeastShare) continue;
    choices.push_back(
        {static_cast<int>(j), share, cv::norm(off - share * step, cv::NORM_L2SQR, differ)});
  }
  const Choice best =
      *std::min_element(choices.begin(), choices.end(),
                        [](const Choice& a, const Choice& b) { return a.cost < b.cost; });
  // The closest frame the answer does not show.
  double rival = std::numeric_limits<double>::infinity();
  for (const Choice& c : choices) {
    const bool shown =
        c.share == 0.0 && (c.first == best.first || (best.share > 0 && c.first == best.first + 1));
    if (c.share == 0.0 && !shown) rival = std::min(rival, c.cost);
  }
  identity.by_differences = true;
  identity.unsure = best.cost > 0.5 * rival;
  const int first = window[best.first];
  identity.ref_frames = {first};
  if (best.share > 0) identity.ref_frames.push_back(window[best.first + 1]);
  identity.ref_frame = best.share > 0.5 ? window[best.first + 1] : first;
  std::fill(identity.band_frames.begin(), identity.band_frames.end(), identity.ref_frame);
}

}  // namespace framealign
