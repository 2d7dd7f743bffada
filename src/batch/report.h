// The batch's report, for people: <root>/report.html (one page, no network,
// a row per capture with small pictures), the pictures in <root>/report/,
// and <root>/overview.png, a contact sheet of the worst captures for people
// on a terminal.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "batch/summary.h"
#include "framealign/framealign.h"

class Report {
 public:
  // Claims report.html, report/ and overview.png in `root` for the batch
  // (a mark, .report-made, says they are its own), unless something it did
  // not make has one of those names (a capture's result folder named
  // "report", say): then enabled() is false and why() says so.
  explicit Report(const std::string& root);
  bool enabled() const { return why_.empty(); }
  const std::string& why() const { return why_; }

  // One capture's pictures, small and full size: the capture with the found
  // frame outlined (<id>.capture.jpg), the aligned frame of the best slot
  // beside the reference (<id>.frames.jpg), and the reference with the
  // answer's matches coloured by residual (<id>.matches.jpg); the capture at
  // its own size when it needs a look (<id>.plain.jpg). Throws std::runtime_error
  // when one cannot be written.
  void add_pictures(const std::string& id, const cv::Mat& capture,
                    const framealign::AlignResult& result, const cv::Mat& reference) const;

  // report.html and overview.png from the summary's rows. Throws
  // std::runtime_error when one cannot be written.
  // `command` is the run's command line, shown as the next step.
  void write(const std::vector<std::string>& columns, const std::vector<SummaryRow>& rows,
             const std::string& command = "") const;

 private:
  std::string root_, why_;
};

// --report-only: report.html and overview.png again from a finished root's
// summary.csv (its columns) and every row recorded there. Returns the exit
// status; 2 when the root has no summary or the report's names are taken.
int rebuild_report(const std::string& root);

// Which of a capture's pictures report/ holds.
struct RowPictures {
  bool capture = false;  // the capture and, when aligned, the frames
  bool matches = false;  // its matches on the reference
};

// The page itself, for `rows` (summary columns `columns`); `pictures` says
// which of each capture's pictures exist.
// `command` is the run's, shown as the next step with --hints added ("":
// a placeholder).
std::string report_html(const std::vector<std::string>& columns,
                        const std::vector<SummaryRow>& rows,
                        const std::vector<RowPictures>& pictures, const std::string& command = "");

// Whether the report offers to set a capture's corners by hand: it ended
// other than aligned, it is a video frame found but unsure (`unsure`, its
// reasons), or its estimate (`estimate`, "" when none) is over 1 px or
// infinite.
bool needs_a_look(const SummaryRow& row, const std::string& estimate, const std::string& unsure = "");

// The "set corners" mode's style, panel (with `command` as the next step)
// and script (report_corners.cpp).
const char* corners_style();
const char* corners_script();
std::string corners_panel(const std::string& command);

// The rows in the report's order: errors first, then not_found, then the
// aligned by estimated error (or score) from the worst.
// How badly a capture ended, worst first: 0 error, 1 not_found or
// hint_unverified, 2 aligned.
int status_rank(const std::string& status);

std::vector<SummaryRow> worst_first(const std::vector<std::string>& columns, std::vector<SummaryRow> rows);

// Text for HTML, its five special characters escaped.
std::string escaped(const std::string& text);

// A capture video in the report (report_timeline.cpp): one timeline of
// its frames instead of a row each.
struct TimelineFrame {
  std::string id, status, path;
  int capture_frame = 0;
  int ref_frame = -1, first_ref = -1, last_ref = -1;  // told; the lowest and highest shown
  bool mixed = false;
  std::vector<double> tears;
  double est = 0;     // NaN when the row has none
  bool look = false;  // it needs a look
};
struct Timeline {
  std::string video;  // the capture video's path
  std::vector<TimelineFrame> frames;
};
// The videos' frames among `rows`, video by video (by path), frame by
// frame; `look` says which need a look.
std::vector<Timeline> timelines(const std::vector<std::string>& columns, const std::vector<SummaryRow>& rows,
                                const std::function<bool(const SummaryRow&)>& look);
// As inline SVG, for the page: lanes of the reference frames told (a bar
// over every frame shown, coloured by status), the estimate, the tear
// rows, the path and the status, each frame titled with its figures.
std::string timeline_svg(const Timeline& timeline);
// The same lanes as a picture, for overview.png.
cv::Mat timeline_picture(const Timeline& timeline);
