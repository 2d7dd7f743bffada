// Command-line options of framealign.
#pragma once

#include <string>
#include <vector>

// Every option of the tool, with its default. Sizes and paths are taken as
// given: nothing here checks one value against another.
struct Arguments {
  std::string input_file;      // captured picture: image file or raw .yuv
  std::string reference_file;  // reference frame; also names its feature cache
  bool advanced = false;       // advanced pre-pass (mirror / affine detection)
  bool no_rectify = false;     // keep the input unwarped
  bool jpeg_output = false;    // write JPEG previews
  bool undo_barrel = false;    // accepted and stored; has no effect
  int width = 1920;            // embedded (reference) width
  int height = 1080;           // embedded (reference) height
  int input_width = 0;         // 0: not set
  int input_height = 0;        // 0: not set
  int crop_width = 0;          // target aspect for padding with --pts; 0: off
  int crop_height = 0;
  double pts[8] = {};          // corners x1 y1 .. x4 y4; pts[7] == 0: none given
  std::string result_folder;   // empty: write no results
  int frame_number = 0;        // frame of the reference file to read
  std::vector<int> outputs;    // distinct output variants 0..4, first-seen order
};

// What parse_arguments decided.
enum ParseStatus : int {
  PARSE_RUN = 0,
  PARSE_SHOWED_USAGE = 1,
  PARSE_SHOWED_VERSION = 2,
  PARSE_ERROR = 3,
};

// Fills `args` from argv[1..argc-1]; fields of options not met keep the
// values the caller gave. Errors are written to standard error.
int parse_arguments(int argc, char** argv, Arguments& args);

// Writes the usage text to standard output.
void print_usage(const std::string& program_name);
