// A capture video in the report: one timeline instead of a row per frame
// (a ten-minute film has 18,000), with the frames that need a look listed.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>

#include <opencv2/imgproc.hpp>

#include "batch/report.h"

namespace {

constexpr int kWidth = 960, kLeft = 70;
// The lanes, top to bottom: the reference frame told, the estimate, the
// tear rows, the path, the status.
constexpr int kPlot = 160, kEstimate = 40, kTears = 40, kStrip = 10, kGap = 8;
constexpr double kEstimateTop = 3.0;  // px: the estimate lane's full height

std::vector<double> numbers(const std::string& text) {
  std::vector<double> out;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(';', at), text.size());
    out.push_back(std::strtod(text.substr(at, end - at).c_str(), nullptr));
    at = end + 1;
  }
  return out;
}

struct Colour {
  int r, g, b;
  std::string css() const {
    char text[16];
    std::snprintf(text, sizeof(text), "#%02x%02x%02x", r, g, b);
    return text;
  }
  cv::Scalar bgr() const { return cv::Scalar(b, g, r); }
};

Colour status_colour(const TimelineFrame& f) {
  if (f.status == kError) return {187, 0, 0};
  if (f.status != framealign::kAligned) return {204, 119, 0};
  return f.look ? Colour{238, 153, 0} : Colour{68, 170, 119};
}

Colour path_colour(const std::string& path) {
  if (path == "tracked") return {102, 153, 204};
  if (path == "fast") return {153, 187, 221};
  if (path == "full") return {51, 51, 102};
  return {204, 204, 204};
}

// Where things go along and across the lanes, shared by the page and the
// picture.
struct Layout {
  explicit Layout(const Timeline& t) : frames(t.frames.size()) {
    for (const TimelineFrame& f : t.frames) {
      if (f.ref_frame < 0) continue;
      low = std::min(low, f.first_ref);
      high = std::max(high, f.last_ref);
      for (double row : f.tears) tear_top = std::max(tear_top, row);
    }
    if (low > high) low = high = 0;
  }
  double x(std::size_t i) const { return kLeft + (kWidth - kLeft - 10) * (i + 0.5) / std::max<std::size_t>(frames, 1); }
  double step() const { return std::max(1.0, double(kWidth - kLeft - 10) / std::max<std::size_t>(frames, 1)); }
  double y(int ref) const { return 10 + (kPlot - 20) * (high == low ? 0.5 : 1.0 - double(ref - low) / (high - low)); }
  int estimate_top() const { return kPlot + kGap; }
  int tears_top() const { return estimate_top() + kEstimate + kGap; }
  int path_top() const { return tears_top() + kTears + kGap; }
  int status_top() const { return path_top() + kStrip + kGap; }
  int height() const { return status_top() + kStrip + 18; }
  double estimate_height(double est) const {
    return std::isnan(est) ? 0 : kEstimate * std::min(est, kEstimateTop) / kEstimateTop;
  }
  double tear_y(double row) const { return tears_top() + kTears * row / std::max(tear_top, 1.0); }

  std::size_t frames;
  int low = 1 << 30, high = -1;
  double tear_top = 0;
};

std::string number(double v) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", v);
  return text;
}

}  // namespace

std::vector<Timeline> timelines(const std::vector<std::string>& columns, const std::vector<SummaryRow>& rows,
                                const std::function<bool(const SummaryRow&)>& look) {
  const auto at = [&](const char* name) {
    const long i = std::find(columns.begin(), columns.end(), name) - columns.begin();
    return i < static_cast<long>(columns.size()) ? i - 3 : -1;
  };
  const long frame = at("capture_frame"), ref = at("ref_frame"), refs = at("ref_frames"), mixed = at("mixed"),
             tears = at("tear_rows"), est = at("est_error_px"), path = at("path");
  const auto value = [](const SummaryRow& r, long i) { return i >= 0 && i < long(r.values.size()) ? r.values[i] : ""; };
  std::map<std::string, Timeline> by_video;
  for (const SummaryRow& r : rows) {
    if (value(r, frame).empty()) continue;  // a picture, or a video that gave no frame
    TimelineFrame f;
    f.id = r.id;
    f.capture_frame = std::atoi(value(r, frame).c_str());
    f.ref_frame = value(r, ref).empty() ? -1 : std::atoi(value(r, ref).c_str());
    const std::vector<double> shown = numbers(value(r, refs));
    f.first_ref = shown.empty() ? f.ref_frame : static_cast<int>(*std::min_element(shown.begin(), shown.end()));
    f.last_ref = shown.empty() ? f.ref_frame : static_cast<int>(*std::max_element(shown.begin(), shown.end()));
    f.mixed = value(r, mixed) == "1";
    f.tears = numbers(value(r, tears));
    f.est = value(r, est).empty() ? NAN : std::strtod(value(r, est).c_str(), nullptr);
    f.path = value(r, path);
    f.status = r.status;
    f.look = look(r);
    Timeline& t = by_video[r.input];
    t.video = r.input;
    t.frames.push_back(f);
  }
  std::vector<Timeline> out;
  for (auto& [video, t] : by_video) {
    std::sort(t.frames.begin(), t.frames.end(),
              [](const TimelineFrame& a, const TimelineFrame& b) { return a.capture_frame < b.capture_frame; });
    out.push_back(std::move(t));
  }
  return out;
}

std::string timeline_svg(const Timeline& t) {
  const Layout l(t);
  std::string svg = "<svg class='timeline' width='" + std::to_string(kWidth) + "' height='" +
                    std::to_string(l.height()) + "'>";
  const auto label = [&](int y, const std::string& text) {
    svg += "<text x='0' y='" + std::to_string(y) + "'>" + text + "</text>";
  };
  label(14, "ref frame");
  label(28, std::to_string(l.high));
  label(kPlot - 4, std::to_string(l.low));
  label(l.estimate_top() + 14, "estimate");
  label(l.tears_top() + 14, "tear rows");
  label(l.path_top() + 9, "path");
  label(l.status_top() + 9, "status");
  const double w = l.step();
  for (std::size_t i = 0; i < t.frames.size(); ++i) {
    const TimelineFrame& f = t.frames[i];
    const double x = l.x(i) - w / 2;
    const std::string tip = "<title>" + escaped(f.id) + ": " + escaped(f.status) + (f.ref_frame >= 0 ? ", ref " + std::to_string(f.ref_frame) : "") +
                            (f.mixed ? " (mixed)" : "") + (std::isnan(f.est) ? "" : ", est " + number(f.est) + " px") +
                            (f.path.empty() ? "" : ", " + escaped(f.path)) + "</title>";
    const std::string colour = status_colour(f).css();
    svg += "<g class='frame' data-id='" + escaped(f.id) + "'>";
    if (f.ref_frame >= 0) {
      const double top = l.y(f.last_ref) - 2, bottom = l.y(f.first_ref) + 2;
      svg += "<rect x='" + number(x) + "' y='" + number(top) + "' width='" + number(w) + "' height='" +
             number(bottom - top) + "' fill='" + colour + "'>" + tip + "</rect>";
    } else {
      svg += "<rect x='" + number(x) + "' y='" + std::to_string(kPlot - 6) + "' width='" + number(w) +
             "' height='6' fill='" + colour + "'>" + tip + "</rect>";
    }
    const double h = l.estimate_height(f.est);
    if (h > 0) {
      svg += "<rect x='" + number(x) + "' y='" + number(l.estimate_top() + kEstimate - h) + "' width='" + number(w) +
             "' height='" + number(h) + "' fill='" + (f.est > 1 ? "#e90" : "#4a7") + "'/>";
    }
    for (double row : f.tears) {
      svg += "<rect x='" + number(x) + "' y='" + number(l.tear_y(row) - 1) + "' width='" + number(w) +
             "' height='2' fill='#333'/>";
    }
    svg += "<rect x='" + number(x) + "' y='" + std::to_string(l.path_top()) + "' width='" + number(w) +
           "' height='" + std::to_string(kStrip) + "' fill='" + path_colour(f.path).css() + "'/>";
    svg += "<rect x='" + number(x) + "' y='" + std::to_string(l.status_top()) + "' width='" + number(w) +
           "' height='" + std::to_string(kStrip) + "' fill='" + colour + "'/></g>";
  }
  const int axis = l.status_top() + kStrip + 14;
  svg += "<text x='" + std::to_string(kLeft) + "' y='" + std::to_string(axis) + "'>frame " +
         std::to_string(t.frames.front().capture_frame) + "</text><text x='" + std::to_string(kWidth - 10) +
         "' y='" + std::to_string(axis) + "' text-anchor='end'>frame " +
         std::to_string(t.frames.back().capture_frame) + "</text>";
  return svg + "</svg>";
}

cv::Mat timeline_picture(const Timeline& t) {
  const Layout l(t);
  cv::Mat picture(l.height(), kWidth, CV_8UC3, cv::Scalar(255, 255, 255));
  const auto text = [&](const std::string& s, int y) {
    cv::putText(picture, s, {2, y}, cv::FONT_HERSHEY_SIMPLEX, 0.35, cv::Scalar(40, 40, 40), 1, cv::LINE_AA);
  };
  text(t.video, 12);  // above the lanes' own labels
  text("ref " + std::to_string(l.high), 26);
  text("ref " + std::to_string(l.low), kPlot - 4);
  text("estimate", l.estimate_top() + 14);
  text("tear rows", l.tears_top() + 14);
  text("path", l.path_top() + 9);
  text("status", l.status_top() + 9);
  const double w = l.step();
  const auto box = [&](double x, double y, double h, const cv::Scalar& c) {
    cv::rectangle(picture, cv::Rect2d(x, y, w, std::max(h, 1.0)), c, cv::FILLED);
  };
  for (std::size_t i = 0; i < t.frames.size(); ++i) {
    const TimelineFrame& f = t.frames[i];
    const double x = l.x(i) - w / 2;
    const cv::Scalar colour = status_colour(f).bgr();
    if (f.ref_frame >= 0) {
      box(x, l.y(f.last_ref) - 2, l.y(f.first_ref) - l.y(f.last_ref) + 4, colour);
    } else {
      box(x, kPlot - 6, 6, colour);
    }
    const double h = l.estimate_height(f.est);
    if (h > 0) box(x, l.estimate_top() + kEstimate - h, h, f.est > 1 ? cv::Scalar(0, 153, 238) : cv::Scalar(119, 170, 68));
    for (double row : f.tears) box(x, l.tear_y(row) - 1, 2, cv::Scalar(51, 51, 51));
    box(x, l.path_top(), kStrip, path_colour(f.path).bgr());
    box(x, l.status_top(), kStrip, colour);
  }
  return picture;
}
