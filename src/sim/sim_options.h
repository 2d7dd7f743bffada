// Command line of framealign-sim.
#pragma once

#include <string>

#include "sim/render.h"

struct SimOptions {
  std::string out_dir = ".";
  std::string reference;  // picture file; empty: the built-in frame
  int width = 1920;
  int height = 1080;
  int jpeg_quality = 92;
  bool png = false;
  bool unrelated = false;  // the capture shows another frame than the reference written
  bool other_frame = false;  // ... the reference's background with other shapes on it
  bool upside_down = false;  // ... the reference turned by 180 degrees
  std::string truth_file;  // with found_file: only compare corners
  std::string found_file;
  bool help = false;
  CaptureSettings capture;
};

extern const char* const kSimUsage;

// Fills `options` from argv; on a bad option returns false with the reason
// in `error`.
bool parse_sim_options(int argc, char** argv, SimOptions& options, std::string& error);
