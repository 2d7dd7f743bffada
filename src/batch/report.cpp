#include "batch/report.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "batch/say.h"

namespace fs = std::filesystem;

namespace {

constexpr int kSmallCapture = 160, kSmallFrame = 120;  // widths, pixels
constexpr int kFullCapture = 1600, kFullFrame = 960;
constexpr int kOverviewTiles = 24, kOverviewColumns = 4, kTile = 320;

// Writes bytes under a temporary name and renames them into place, so that
// a reader sees no half picture; throws naming the file.
void write_checked(const fs::path& path, const std::vector<unsigned char>& bytes) {
  const fs::path partial = path.string() + ".partial";
  std::ofstream out(partial, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  out.close();
  std::error_code ec;
  if (!out || (fs::rename(partial, path, ec), ec)) {
    fs::remove(partial, ec);
    throw std::runtime_error("cannot write the report's " + path.string());
  }
}

void write_picture(const fs::path& path, const cv::Mat& picture) {
  std::vector<unsigned char> bytes;
  const std::string ext = path.extension().string();
  const std::vector<int> params = ext == ".jpg" ? std::vector<int>{cv::IMWRITE_JPEG_QUALITY, 80} : std::vector<int>{};
  if (!cv::imencode(ext, picture, bytes, params)) throw std::runtime_error("cannot encode " + path.string());
  write_checked(path, bytes);
}

cv::Mat scaled_to_width(const cv::Mat& picture, int width) {
  if (picture.cols <= width) return picture;
  cv::Mat out;
  const double s = double(width) / picture.cols;
  cv::resize(picture, out, cv::Size(width, std::max(1, int(picture.rows * s + 0.5))), 0, 0, cv::INTER_AREA);
  return out;
}

// The capture at `width` with the frame's outline (TL TR BR BL) drawn.
cv::Mat outlined(const cv::Mat& capture, const std::optional<std::array<double, 8>>& corners, int width) {
  cv::Mat colour;
  cv::cvtColor(scaled_to_width(capture, width), colour, cv::COLOR_GRAY2BGR);
  if (!corners) return colour;
  const double s = double(colour.cols) / capture.cols;
  const auto& c = *corners;
  std::vector<cv::Point> ring;
  for (int i : {0, 1, 3, 2}) ring.emplace_back(int(c[2 * i] * s + 0.5), int(c[2 * i + 1] * s + 0.5));
  cv::polylines(colour, ring, true, cv::Scalar(60, 220, 60), std::max(1, colour.cols / 200), cv::LINE_AA);
  return colour;
}

// The aligned frame and the reference side by side, each `width` wide.
cv::Mat side_by_side(const cv::Mat& aligned, const cv::Mat& reference, int width) {
  cv::Mat left = scaled_to_width(aligned, width), right = scaled_to_width(reference, width), both;
  if (right.rows != left.rows) cv::resize(right, right, left.size(), 0, 0, cv::INTER_AREA);
  cv::hconcat(std::vector<cv::Mat>{left, cv::Mat(left.rows, 4, CV_8UC1, cv::Scalar(255)), right}, both);
  return both;
}

// The reference, dimmed, with each match a dot: blue without a residual,
// green under half a pixel, yellow under one, red from one on.
cv::Mat matches_on(const cv::Mat& reference, const std::vector<framealign::MatchPoint>& matches,
                   int width) {
  cv::Mat colour;
  cv::cvtColor(scaled_to_width(reference, width) * 0.6, colour, cv::COLOR_GRAY2BGR);
  const double s = double(colour.cols) / reference.cols;
  const int radius = std::max(1, colour.cols / 240);
  for (const framealign::MatchPoint& m : matches) {
    const cv::Scalar dot = std::isnan(m.residual) ? cv::Scalar(255, 150, 40)
                           : m.residual < 0.5     ? cv::Scalar(60, 220, 60)
                           : m.residual < 1.0     ? cv::Scalar(40, 220, 240)
                                                  : cv::Scalar(60, 60, 255);
    cv::circle(colour, cv::Point(int(m.x * s), int(m.y * s)), radius, dot, cv::FILLED, cv::LINE_AA);
  }
  return colour;
}

// One tile of the overview: the capture, its frames, and what became of it.
cv::Mat tile(const fs::path& pictures, const SummaryRow& row, const std::string& estimate) {
  cv::Mat out(kTile * 3 / 4 + 110, kTile, CV_8UC3, cv::Scalar(40, 40, 40));
  int y = 0;
  for (const char* kind : {".capture.jpg", ".frames.jpg"}) {
    const fs::path path = pictures / (row.id + kind);
    std::error_code ec;
    cv::Mat picture = fs::exists(path, ec) ? cv::imread(path.string(), cv::IMREAD_COLOR) : cv::Mat();
    if (picture.empty()) continue;
    cv::resize(picture, picture, cv::Size(kTile, std::max(1, picture.rows * kTile / picture.cols)), 0, 0,
               cv::INTER_LINEAR);
    const int h = std::min(picture.rows, out.rows - 36 - y);
    if (h > 0) picture(cv::Rect(0, 0, picture.cols, h)).copyTo(out(cv::Rect(0, y, picture.cols, h)));
    y += h + 2;
  }
  const cv::Scalar colour =
      row.status == framealign::kAligned ? cv::Scalar(200, 230, 200) : cv::Scalar(120, 120, 255);
  cv::putText(out, row.id.substr(0, 28), {6, out.rows - 20}, cv::FONT_HERSHEY_SIMPLEX, 0.45, colour, 1, cv::LINE_AA);
  cv::putText(out, row.status + (estimate.empty() ? "" : "  est " + estimate + " px"), {6, out.rows - 5},
              cv::FONT_HERSHEY_SIMPLEX, 0.45, colour, 1, cv::LINE_AA);
  return out;
}

}  // namespace

Report::Report(const std::string& root) : root_(root) {
  if (root.empty()) {
    why_ = "no report for a shard";
    return;
  }
  const fs::path r(root);
  std::error_code ec;
  if (fs::exists(r / ".report-made", ec)) return;
  for (const char* name : {"report", "report.html", "overview.png"}) {
    if (fs::exists(r / name, ec)) {
      why_ = "no report: " + (r / name).string() + " is not the batch's own";
      return;
    }
  }
  std::ofstream(r / ".report-made");
  if (!fs::exists(r / ".report-made", ec)) why_ = "no report: cannot write in " + root;
}

void Report::add_pictures(const std::string& id, const cv::Mat& capture, const framealign::AlignResult& result,
                          const cv::Mat& reference) const {
  if (!enabled()) return;
  const fs::path pictures = fs::path(root_) / "report";
  fs::create_directories(pictures / "full");
  write_picture(pictures / (id + ".capture.jpg"), outlined(capture, result.corners, kSmallCapture));
  write_picture(pictures / "full" / (id + ".capture.jpg"), outlined(capture, result.corners, kFullCapture));
  // At the capture's own size, to set its corners on by hand.
  const bool unsure = result.status != framealign::kAligned ||
                      (result.est_error_px && !(*result.est_error_px <= 1.0));
  if (unsure) write_picture(pictures / "full" / (id + ".plain.jpg"), capture);
  if (!reference.empty() && !result.matches.empty()) {
    write_picture(pictures / (id + ".matches.jpg"),
                  matches_on(reference, result.matches, kSmallCapture));
    write_picture(pictures / "full" / (id + ".matches.jpg"),
                  matches_on(reference, result.matches, kFullFrame));
  }
  if (!result.best_slot || reference.empty()) return;
  const cv::Mat& aligned = result.frames.at(static_cast<std::size_t>(*result.best_slot));
  write_picture(pictures / (id + ".frames.jpg"), side_by_side(aligned, reference, kSmallFrame));
  write_picture(pictures / "full" / (id + ".frames.jpg"), side_by_side(aligned, reference, kFullFrame));
}

int status_rank(const std::string& status) {
  if (status == kError) return 0;
  return status == framealign::kNotFound || status == framealign::kHintUnverified ? 1 : 2;
}

std::vector<SummaryRow> worst_first(const std::vector<std::string>& columns, std::vector<SummaryRow> rows) {
  const auto at = [&](const char* name) {
    return std::find(columns.begin(), columns.end(), name) - columns.begin() - 3;
  };
  const long est = at("est_error_px"), score = at("best_score");
  const auto badness = [&](const SummaryRow& r) {
    const int rank = status_rank(r.status);
    const long column = est >= 0 && static_cast<std::size_t>(est) < r.values.size() ? est : score;
    const std::string& v = static_cast<std::size_t>(column) < r.values.size() ? r.values[column] : "";
    return std::make_pair(rank, v.empty() ? HUGE_VAL : -std::strtod(v.c_str(), nullptr));
  };
  std::stable_sort(rows.begin(), rows.end(),
                   [&](const SummaryRow& a, const SummaryRow& b) { return badness(a) < badness(b); });
  return rows;
}

void Report::write(const std::vector<std::string>& columns, const std::vector<SummaryRow>& rows,
                   const std::string& command) const {
  if (!enabled()) return;
  const fs::path root(root_), pictures = root / "report";
  const std::vector<SummaryRow> ordered = worst_first(columns, rows);
  std::vector<RowPictures> has;
  std::error_code ec;
  for (const SummaryRow& row : ordered) {
    has.push_back({fs::exists(pictures / (row.id + ".capture.jpg"), ec),
                   fs::exists(pictures / (row.id + ".matches.jpg"), ec)});
  }
  // The run's command is kept beside the pictures, so that --report-only
  // writes the same page.
  std::string next = command;
  if (next.empty()) {
    std::ifstream kept(pictures / "command.txt");
    std::getline(kept, next);
  } else {
    fs::create_directories(pictures);
    write_checked(pictures / "command.txt", std::vector<unsigned char>(next.begin(), next.end()));
  }
  const std::string html = report_html(columns, ordered, has, next);
  write_checked(root / "report.html", std::vector<unsigned char>(html.begin(), html.end()));

  const long est = std::find(columns.begin(), columns.end(), "est_error_px") - columns.begin() - 3;
  std::vector<cv::Mat> tiles;
  for (std::size_t i = 0; i < ordered.size() && i < kOverviewTiles; ++i) {
    const SummaryRow& row = ordered[i];
    const bool has_est = est >= 0 && static_cast<std::size_t>(est) < row.values.size();
    tiles.push_back(tile(pictures, row, has_est ? row.values[est] : ""));
  }
  if (tiles.empty()) return;
  while (tiles.size() % kOverviewColumns != 0 && tiles.size() > kOverviewColumns) {
    tiles.push_back(cv::Mat(tiles[0].size(), CV_8UC3, cv::Scalar(40, 40, 40)));
  }
  std::vector<cv::Mat> lines;
  for (std::size_t i = 0; i < tiles.size(); i += kOverviewColumns) {
    cv::Mat line;
    cv::hconcat(std::vector<cv::Mat>(tiles.begin() + i, tiles.begin() + std::min(tiles.size(), i + kOverviewColumns)), line);
    lines.push_back(line);
  }
  // Each video's timeline under the sheet, all padded to one width.
  const long unsure = std::find(columns.begin(), columns.end(), "unsure") - columns.begin() - 3;
  const auto value = [](const SummaryRow& r, long i) { return i >= 0 && std::size_t(i) < r.values.size() ? r.values[i] : ""; };
  for (const Timeline& t : timelines(columns, rows, [&](const SummaryRow& r) {
         return needs_a_look(r, value(r, est), value(r, unsure));
       })) {
    lines.push_back(timeline_picture(t));
  }
  int width = 0;
  for (const cv::Mat& line : lines) width = std::max(width, line.cols);
  for (cv::Mat& line : lines) {
    cv::copyMakeBorder(line, line, 0, 0, 0, width - line.cols, cv::BORDER_CONSTANT, cv::Scalar(40, 40, 40));
  }
  cv::Mat sheet;
  cv::vconcat(lines, sheet);
  write_picture(root / "overview.png", sheet);
}

int rebuild_report(const std::string& root) {
  std::ifstream summary(fs::path(root) / "summary.csv");
  std::string header;
  if (!std::getline(summary, header)) {
    say("--report-only: " + root + " has no summary.csv");
    return 2;
  }
  std::vector<std::string> columns;
  for (std::size_t at = 0, comma; at <= header.size(); at = comma + 1) {
    comma = std::min(header.find(',', at), header.size());
    columns.push_back(header.substr(at, comma - at));
  }
  std::vector<std::string> warnings;
  std::vector<SummaryRow> rows;
  for (const auto& [id, row] : read_recorded_rows(root, columns, warnings)) rows.push_back(row);
  for (const std::string& warning : warnings) say(warning);
  const Report report(root);
  if (!report.enabled()) {
    say(report.why());
    return 2;
  }
  report.write(columns, rows);
  std::fprintf(stderr, "%s/report.html: %zu captures\n", root.c_str(), rows.size());
  return 0;
}
