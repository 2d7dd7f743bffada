// report.html: one page with its style and its script inline, pictures
// beside it in report/, loaded lazily as they scroll into view.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "batch/report.h"

std::string escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

namespace {

// A file name in a URL: every byte outside the unreserved set escaped.
std::string url(const std::string& name) {
  std::string out;
  char hex[4];
  for (unsigned char c : name) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      std::snprintf(hex, sizeof(hex), "%%%02X", c);
      out += hex;
    }
  }
  return out;
}

// A bar chart of `values` in 20 bins from 0 to their largest, as inline SVG.
std::string histogram(const std::string& title, const std::vector<double>& values, int infinite) {
  std::string svg = "<figure><figcaption>" + escaped(title) + "</figcaption>";
  if (values.empty()) return svg + "<p>none</p></figure>";
  constexpr int kBins = 20, kWidth = 400, kHeight = 120;
  const double top = std::max(*std::max_element(values.begin(), values.end()), 1e-9);
  std::vector<int> bins(kBins, 0);
  for (double v : values) ++bins[std::min(kBins - 1, static_cast<int>(v / top * kBins))];
  const int most = *std::max_element(bins.begin(), bins.end());
  char text[256];
  svg += "<svg width='" + std::to_string(kWidth) + "' height='" + std::to_string(kHeight + 20) + "'>";
  for (int i = 0; i < kBins; ++i) {
    const int h = bins[i] * kHeight / std::max(most, 1);
    std::snprintf(text, sizeof(text), "<rect x='%d' y='%d' width='%d' height='%d'><title>%.3g to %.3g: %d</title></rect>",
                  i * kWidth / kBins, kHeight - h, kWidth / kBins - 2, h, top * i / kBins, top * (i + 1) / kBins, bins[i]);
    svg += text;
  }
  std::snprintf(text, sizeof(text), "<text x='0' y='%d'>0</text><text x='%d' y='%d' text-anchor='end'>%.3g</text>",
                kHeight + 15, kWidth, kHeight + 15, top);
  svg += text;
  svg += "</svg>";
  if (infinite > 0) svg += "<p>and " + std::to_string(infinite) + " without an estimate (inf)</p>";
  return svg + "</figure>";
}

const char kStyle[] = R"(body{font:14px sans-serif;margin:1.5em;color:#222}
h1{font-size:1.4em}.counts span{margin-right:1.5em;font-weight:bold}
.error{color:#b00}.not_found,.hint_unverified{color:#a60}.aligned{color:#070}
.charts{display:flex;gap:2em;flex-wrap:wrap}figure{margin:0}.charts rect{fill:#4a7}
table{border-collapse:collapse;margin-top:1em}td,th{border-bottom:1px solid #ddd;padding:4px 8px;text-align:left;vertical-align:top}
th[data-key]{cursor:pointer;background:#f4f4f4}th[data-key]:hover{background:#e4e4e4}
img{display:block;background:#eee}section.video{margin:1em 0}svg.timeline text{font:11px sans-serif;fill:#444}
img.capture{width:160px}img.frames{width:244px}img.matches{width:160px}td.message{max-width:30em})";

const char kScript[] = R"(const body = document.querySelector('#rows tbody');
document.querySelectorAll('th[data-key]').forEach((th, column) => {
  th.addEventListener('click', () => {
    const key = th.dataset.key, up = th.dataset.order !== 'up';
    th.dataset.order = up ? 'up' : 'down';
    const value = r => { const v = r.dataset[key]; const n = parseFloat(v);
      return th.hasAttribute('data-number') ? (isNaN(n) ? Infinity : n) : v; };
    const rows = Array.from(body.rows).sort((a, b) => {
      const x = value(a), y = value(b); return (x < y ? -1 : x > y ? 1 : 0) * (up ? 1 : -1); });
    rows.forEach(r => body.appendChild(r));
  });
});
window.addEventListener('load', () => {
  document.body.dataset.rows = body.rows.length;
  document.body.dataset.picturesShown = Array.from(document.images).filter(i => i.complete && i.naturalWidth > 0).length;
});)";

}  // namespace

bool needs_a_look(const SummaryRow& row, const std::string& estimate, const std::string& unsure) {
  return row.status != framealign::kAligned || !unsure.empty() ||
         (!estimate.empty() && !(std::strtod(estimate.c_str(), nullptr) <= 1.0));
}

namespace {

// Where the page's values lie in a summary row's values; -1 for a column
// the run does not have.
struct Fields {
  explicit Fields(const std::vector<std::string>& columns) : columns(columns) {}
  long at(const char* name) const {
    const long i = std::find(columns.begin(), columns.end(), name) - columns.begin();
    return i < static_cast<long>(columns.size()) ? i - 3 : -1;
  }
  const std::vector<std::string>& columns;
  const long score = at("best_score"), est = at("est_error_px"), seconds = at("seconds"),
             message = at("message"), reason = at("reason"), unsure = at("unsure"), x1 = at("x1"),
             frame = at("capture_frame");
};

std::string value(const SummaryRow& r, long i) {
  return i >= 0 && i < long(r.values.size()) ? r.values[i] : "";
}

// One capture's row: its figures, its pictures, why it ended as it did,
// and "set corners" when it needs a look.
std::string row_html(const SummaryRow& r, const RowPictures& has, const Fields& f) {
  const bool set = has.capture && needs_a_look(r, value(r, f.est));
  std::string corners;
  for (long c = f.x1; set && f.x1 >= 0 && c < f.x1 + 8; ++c) {
    corners += (c > f.x1 ? " " : "") + value(r, c);
  }
  std::string html =
      "<tr id='row-" + escaped(r.id) + "' data-id='" + escaped(r.id) + "' data-rank='" + std::to_string(status_rank(r.status)) +
      "' data-score='" + escaped(value(r, f.score)) + "' data-est='" + escaped(value(r, f.est)) +
      "' data-seconds='" + escaped(value(r, f.seconds)) +
      (set ? "' data-file='" + url(r.id) + "' data-corners='" + escaped(corners) : "") + "'><td>" +
      escaped(r.id) + "</td><td class='" + escaped(r.status) + "'>" + escaped(r.status) +
      "</td><td>" + escaped(value(r, f.score)) + "</td>";
  if (f.est >= 0) html += "<td>" + escaped(value(r, f.est)) + "</td>";
  html += "<td>" + escaped(value(r, f.seconds)) + "</td>";
  const bool frames = r.status == framealign::kAligned || r.status == framealign::kHintUnverified;
  for (const char* kind : {"capture", "frames", "matches"}) {
    const std::string name = url(r.id) + "." + kind + ".jpg";
    html += "<td>";
    if (kind[0] == 'm' ? has.matches : has.capture && (kind[0] == 'c' || frames)) {
      html += "<a href='report/full/" + name + "' target='_blank'><img class='" + kind +
              "' loading='lazy' src='report/" + name + "' alt='" + kind + " of " + escaped(r.id) +
              "'></a>";
    }
    html += "</td>";
  }
  // Why it ended as it did: the reason, why a video frame found is unsure,
  // the message.
  std::string why;
  for (const std::string& part : {value(r, f.reason), value(r, f.unsure), value(r, f.message)}) {
    if (!part.empty()) why += (why.empty() ? "" : "; ") + part;
  }
  return html + "<td class='message'>" + escaped(why) +
         (set ? "<br><button class='set'>set corners</button>" : "") + "</td></tr>\n";
}

// A capture video: its timeline and the frames that need a look, each a
// link to its row below (pictures, why, "set corners").
std::string video_html(const Timeline& t) {
  std::string html = "<section class='video' data-video='" + escaped(t.video) + "' data-frames='" +
                     std::to_string(t.frames.size()) + "'><h2>" + escaped(t.video) + ": " +
                     std::to_string(t.frames.size()) + " frames</h2>\n" + timeline_svg(t) +
                     "\n<p class='legend'>Across: the captured frames. Status: green aligned and sure, orange "
                     "aligned but unsure or estimated over 1 px, brown not_found, red error. Path: blue tracked, "
                     "pale blue fast, dark full. Point at a frame for its figures.</p>\n";
  std::string links;
  int looks = 0;
  for (const TimelineFrame& frame : t.frames) {
    if (!frame.look) continue;
    ++looks;
    links += " <a class='look' href='#row-" + escaped(frame.id) + "'>" + std::to_string(frame.capture_frame) + "</a>";
  }
  html += "<p>" + (looks == 0 ? std::string("No frame needs a look.")
                              : std::to_string(looks) + " frames need a look (not aligned, unsure, or estimated "
                                                        "over 1 px); their rows are below:" + links) +
          "</p></section>\n";
  return html;
}

}  // namespace

std::string report_html(const std::vector<std::string>& columns,
                        const std::vector<SummaryRow>& rows,
                        const std::vector<RowPictures>& pictures, const std::string& command) {
  const Fields f(columns);
  const auto look = [&f](const SummaryRow& r) { return needs_a_look(r, value(r, f.est), value(r, f.unsure)); };
  std::map<std::string, int> counts;
  std::vector<double> estimates, times;
  int infinite = 0;
  bool settable = false;  // some capture to set the corners of
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const SummaryRow& r = rows[i];
    ++counts[r.status];
    if (!value(r, f.seconds).empty())
      times.push_back(std::strtod(value(r, f.seconds).c_str(), nullptr));
    const std::string e = value(r, f.est);
    if (e == "inf") ++infinite;
    else if (!e.empty()) estimates.push_back(std::strtod(e.c_str(), nullptr));
    settable |= pictures[i].capture && needs_a_look(r, e);
  }
  std::string html = "<!doctype html>\n<html lang='en'><head><meta charset='utf-8'><title>framealign-batch report</title><style>";
  html += kStyle;
  html += corners_style();
  html += "</style></head><body>\n<h1>framealign-batch report</h1>\n<p class='counts'>";
  html += "<span>" + std::to_string(rows.size()) + " captures</span>";
  for (const char* status :
       {framealign::kAligned, framealign::kNotFound, framealign::kHintUnverified, kError}) {
    if (status == framealign::kHintUnverified && counts[status] == 0) continue;
    html += "<span class='" + std::string(status) + "'>" + status + " " + std::to_string(counts[status]) + "</span>";
  }
  html += "</p>\n";
  if (settable) html += corners_panel(command);
  html += "<div class='charts'>";
  if (f.est >= 0) html += histogram("est_error_px (reference pixels)", estimates, infinite);
  html += histogram("seconds per capture", times, 0);
  html += "</div>\n";
  for (const Timeline& t : timelines(columns, rows, look)) html += video_html(t);
  html += "<p>A capture video's frames are drawn on its timeline above; only those that need a look have rows. "
          "Errors first, then not_found, then the largest estimates (or scores). Click a heading to sort, "
          "a picture to open it full size.</p>\n<table id='rows'><thead><tr><th data-key='id'>id</th>"
          "<th data-key='rank'>status</th><th data-key='score' data-number>score</th>";
  if (f.est >= 0) html += "<th data-key='est' data-number>est_error_px</th>";
  html +=
      "<th data-key='seconds' data-number>seconds</th><th>capture, frame found</th><th>aligned | "
      "reference</th>"
      "<th title='green: under 0.5 px from the answer, yellow: under 1 px, red: further; blue: not "
      "refined'>"
      "matches on the reference</th><th>message</th></tr></thead>\n<tbody>\n";
  for (std::size_t i = 0; i < rows.size(); ++i) {
    // A video's frames are on its timeline; those that need a look here too.
    if (value(rows[i], f.frame).empty() || look(rows[i])) html += row_html(rows[i], pictures[i], f);
  }
  html += "</tbody></table>\n<script>";
  html += kScript;
  if (settable) html += corners_script();
  return html + "</script></body></html>\n";
}
