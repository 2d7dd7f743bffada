// The captures the whole-alignment tests share: five simulated captures
// of one 640 x 360 reference, the third mirrored (not found without
// --advanced), and a list of the first four; helpers to read what the
// programs print and write.
#pragma once

#include <fstream>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

#include "cli/run_tool.h"

// Writes ref.yuv, c1.jpg .. c5.jpg and list.csv (ids cap1 .. cap4) into
// `dir`; corners[i] receives capture i's true corners.
inline void write_captures(const TempDir& dir, double (&corners)[6][8]) {
  const cv::Mat reference = make_reference_frame(640, 360, 301);
  write_yuv420(dir.file("ref.yuv"), reference);
  std::ofstream list(dir.file("list.csv"));
  list << "input,id\n";
  for (int i = 1; i <= 5; ++i) {
    CaptureSettings s;
    s.capture_width = 960;
    s.capture_height = 720;
    s.seed = i;
    s.mirror = i == 3;
    const Capture capture = render_capture(reference, s);
    std::copy(capture.corners, capture.corners + 8, corners[i]);
    cv::imwrite(dir.file("c" + std::to_string(i) + ".jpg"), capture.picture);
    if (i < 5) list << "./c" << i << ".jpg,cap" << i << "\n";
  }
}

// Splits at every `separator`.
inline std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

// "best score: S\nalignment time: Nms\n" gives S; any other form gives "".
inline std::string printed_score(const std::string& out) {
  char score[64] = {};
  unsigned ms = 0;
  int end = 0;
  const bool ok = std::sscanf(out.c_str(), "best score: %63[^\n]\nalignment time: %ums%n", score, &ms, &end) == 2 &&
                  out.substr(end) == "\n";
  return ok ? score : "";
}

