// Command line of framealign-sim.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "sim/render.h"
#include "sim/video.h"

struct SimOptions {
  std::string out_dir = ".";
  std::string reference;  // picture file; empty: the built-in frame
  int width = 1920;
  int height = 1080;
  int jpeg_quality = 92;
  bool png = false;
  bool unrelated = false;    // the capture shows another frame than the reference written
  bool other_frame = false;  // ... the reference's background with other shapes on it
  bool upside_down = false;  // ... the reference turned by 180 degrees
  std::vector<std::string> corner_files;  // truth and found: only compare corners
  CaptureSettings capture;
  bool video = false;          // film a reference video instead of one frame
  VideoSettings filming;
  std::string codec = "h264";  // the capture video's: h264 (.mp4), mjpg (.avi) or png (frames/)
};

// Declares every option of framealign-sim on `app`, bound to `options`.
void add_sim_options(CLI::App& app, SimOptions& options);
