#include "video/doubts.h"

#include <cmath>
#include <cstdio>

#include <opencv2/imgproc.hpp>

namespace framealign {

namespace {

// The aligned frame against the picture shown, cell by cell (kColumns x
// kRows at kWidth): a cell with texture enough to tell whose correlation
// with what was shown is under kCovered shows something else there.
constexpr int kWidth = 320, kColumns = 16, kRows = 9;
constexpr double kTexture = 8.0;
constexpr double kCovered = 0.2;
// ...and the frame is flagged once that is more than this share of the
// cells with texture, at least kTogether of them side by side (a hand is
// one piece; the camera's noise in a dim band of a PWM backlight, or moire,
// misleads a cell here and there).
constexpr double kOccluded = 0.02;
constexpr int kTogether = 3;
// A strip kBorder wide (at kWidth) along a side of the frame shows the
// picture when it correlates with it at least this well.
constexpr int kBorder = 6;
constexpr double kSideMatch = 0.7;

std::string percent(const char* format, double share) {
  char text[160];
  std::snprintf(text, sizeof(text), format, 100.0 * share);
  return text;
}

struct Pictures {
  cv::Mat seen, want;  // the aligned frame and the picture shown, kWidth wide, CV_32F
};

Pictures reduced(const cv::Mat& aligned, const cv::Mat& shown) {
  const cv::Size size(kWidth, std::max(kRows, kWidth * aligned.rows / std::max(1, aligned.cols)));
  Pictures p;
  cv::resize(aligned, p.seen, size, 0, 0, cv::INTER_AREA);
  cv::resize(shown, p.want, size, 0, 0, cv::INTER_AREA);
  p.seen.convertTo(p.seen, CV_32F);
  p.want.convertTo(p.want, CV_32F);
  return p;
}

// Their correlation over `area`; NaN where the picture shown is too flat
// there to tell.
double correlation(const Pictures& p, const cv::Rect& area) {
  cv::Scalar want_mean, want_dev, seen_mean, seen_dev;
  cv::meanStdDev(p.want(area), want_mean, want_dev);
  if (want_dev[0] < kTexture) return std::nan("");
  cv::meanStdDev(p.seen(area), seen_mean, seen_dev);
  if (seen_dev[0] <= 0) return 0.0;
  return cv::mean((p.seen(area) - seen_mean[0]).mul(p.want(area) - want_mean[0]))[0] /
         (seen_dev[0] * want_dev[0]);
}

// Share of the textured cells whose content is not the picture shown.
double covered_share(const Pictures& p) {
  const cv::Size size = p.seen.size();
  int textured = 0, covered = 0;
  cv::Mat hidden(kRows, kColumns, CV_8U, cv::Scalar(0));
  for (int i = 0; i < kRows; ++i) {
    for (int j = 0; j < kColumns; ++j) {
      const double c = correlation(p, cv::Rect(j * size.width / kColumns, i * size.height / kRows,
                                               size.width / kColumns, size.height / kRows));
      if (std::isnan(c)) continue;
      ++textured;
      if (c < kCovered) {
        ++covered;
        hidden.at<uchar>(i, j) = 255;
      }
    }
  }
  cv::Mat labels, stats, centroids;
  const int pieces = cv::connectedComponentsWithStats(hidden, labels, stats, centroids, 8);
  int largest = 0;
  for (int k = 1; k < pieces; ++k) largest = std::max(largest, stats.at<int>(k, cv::CC_STAT_AREA));
  if (largest < kTogether) return 0.0;
  return textured > 0 ? double(covered) / textured : 0.0;
}

// The sides of the frame whose strip along the edge does not show the
// picture. The video's own motion can mimic a move of the screen (a pan
// against a camera that moved): an answer shifted so shows its content
// inside, and the room or the bezel along one edge.
std::string sides_off(const Pictures& p) {
  const int w = p.seen.cols, h = p.seen.rows;
  const std::pair<const char*, cv::Rect> strips[4] = {{"top", {0, 0, w, kBorder}},
                                                      {"bottom", {0, h - kBorder, w, kBorder}},
                                                      {"left", {0, 0, kBorder, h}},
                                                      {"right", {w - kBorder, 0, kBorder, h}}};
  std::string off;
  for (const auto& [name, strip] : strips) {
    if (correlation(p, strip) < kSideMatch) off += std::string(off.empty() ? "" : ", ") + name;
  }
  return off;
}

}  // namespace

Doubts doubts(const VideoFrame& frame, const cv::Mat& aligned, const Identity& identity,
              double pixel) {
  Doubts doubt;
  std::string& reasons = doubt.reasons;
  auto add = [&reasons](const std::string& reason) {
    reasons += (reasons.empty() ? "" : "; ") + reason;
  };
  const AlignResult& result = frame.result;
  if (!result.corners) return doubt;
  const char* names[4] = {"top-left", "top-right", "bottom-left", "bottom-right"};
  std::string outside;
  int count = 0;
  for (int c = 0; c < 4; ++c) {
    const double x = (*result.corners)[2 * c], y = (*result.corners)[2 * c + 1];
    if (x < 0 || y < 0 || x > frame.capture.cols || y > frame.capture.rows) {
      outside += std::string(outside.empty() ? "" : ", ") + names[c];
      ++count;
    }
  }
  if (count > 0) {
    add("out of view: the screen's " + outside + (count > 1 ? " corners lie" : " corner lies") +
        " outside the capture");
  }
  if (!frame.shown.empty()) {
    const Pictures pictures = reduced(aligned, frame.shown);
    const std::string off = sides_off(pictures);
    if (!off.empty() && count == 0) {
      add(std::string(kCornersUncertain) + ": the frame's " + off + " edge does not show the frames told (the " +
          "answer may be shifted)");
      doubt.corners = true;
    }
    const double covered = covered_share(pictures);
    if (covered > kOccluded) {
      add(percent(
          "occluded: %.0f%% of the screen does not show the frames told (something in front of it, "
          "or the answer is off)",
          covered));
    }
  }
  if (identity.unsure)
    add("unsure which frame: the frames near it differ only where the capture cannot tell them");
  if (frame.mixed && result.path != "tracked" && !identity.by_differences) {
    // Tracking follows each band against its own frame, and a frame checked
    // along the screen's edges is tracked from them; a geometry fitted to
    // all of a mixed frame's content shears to fit both frames (unless they
    // differ only in a small part).
    add(std::string(kCornersUncertain) + ": a mixed frame located on its content, which shows two frames, without "
        "the screen's edges to check it");
    doubt.corners = true;
  }
  if (result.est_error_px && *result.est_error_px > 1.0) {
    // Within one capture pixel the capture allows no better: said, and
    // still followed; "corners uncertain" always means not followed.
    const bool coarse = *result.est_error_px <= pixel;
    char text[128];
    std::snprintf(text, sizeof(text),
                  coarse ? "coarse capture: estimated error %.2f px, within one of the capture's pixels"
                         : "corners uncertain: estimated error %.2f px",
                  *result.est_error_px);
    add(text);
    doubt.corners = doubt.corners || !coarse;
  }
  return doubt;
}

bool corners_in_doubt(const std::string& reasons) {
  return reasons.rfind(kCornersUncertain, 0) == 0 ||
         reasons.find(std::string("; ") + kCornersUncertain) != std::string::npos;
}

}  // namespace framealign
