#include "main/options.h"

#include <cctype>
#include <exception>
#include <iostream>
#include <string>

#include "align/output_variants.h"
#include "framealign/version.h"

namespace {

const char* const kUsageBody =
    "Options:\n"
    "  --help                    Show this help message\n"
    "  --version                 Show version information\n"
    "  --input-file <path>       Specify image for extraction\n"
    "  --input-width <value>     (Optional) Width of input image, if not set --width value will be used\n"
    "  --input-height <value>    (Optional) Height of input image, if not set --height value will be used\n"
    "  --reference-file <path>   Specify reference image in yuv420p for video inputs or yuv444p for images\n"
    "                            In case if file does not exist, features will be loaded from disk according to the specified <path>\n"
    "  --width <value>           Embedded width\n"
    "  --height <value>          Embedded height\n"
    "  --no-rectify              Do no alignment on the input\n"
    "  --undo-barrel             Do something about barrel distortion\n"
    "  --pts <x1 y1 ... x4 y4>   8 corner points\n"
    "  --overlay-size <value>    Square overlay size (enables automatic padding)\n"
    "  --result-folder <path>    Output all alignment info to this folder\n"
    "  --frame-number <value>    Frame number\n"
    "  --advanced                Use advanced alignment algorithm\n"
    "  --output <value>          Output variant or preset (repeatable and comma-separated, default: medium (3,0))\n"
    "                            variants: 0=raw, 1=CLAHE(40,12x8), 2=CLAHE(20,32x32), 3=CLAHE(18,40x64), 4=CLAHE(20,80x45)\n"
    "                            presets: fast=3, medium=3,0, slow=3,0,4, slowest=3,0,4,2,1\n"
    "  --jpeg-output             Generate JPEG preview files\n";

struct IntOption {
  const char* name;   // as typed on the command line
  const char* label;  // as named in the conversion error
  int Arguments::*field;
};

const IntOption kIntOptions[] = {
    {"--width", "width", &Arguments::width},
    {"--height", "height", &Arguments::height},
    {"--input-width", "input width", &Arguments::input_width},
    {"--input-height", "input height", &Arguments::input_height},
    {"--frame-number", "frame number", &Arguments::frame_number},
    {"--crop-width", "crop width", &Arguments::crop_width},
    {"--crop-height", "crop height", &Arguments::crop_height},
};

struct StringOption {
  const char* name;
  std::string Arguments::*field;
};

const StringOption kStringOptions[] = {
    {"--input-file", &Arguments::input_file},
    {"--reference-file", &Arguments::reference_file},
    {"--result-folder", &Arguments::result_folder},
};

struct FlagOption {
  const char* name;
  bool Arguments::*field;
};

const FlagOption kFlagOptions[] = {
    {"--advanced", &Arguments::advanced},
    {"--no-rectify", &Arguments::no_rectify},
    {"--jpeg-output", &Arguments::jpeg_output},
    {"--undo-barrel", &Arguments::undo_barrel},
};

void report_missing_value(const std::string& option) {
  std::cerr << "Error: " << option << " option requires an argument\n";
}

}  // namespace

void print_usage(const std::string& program_name) {
  std::cout << "Usage: " << program_name << " <options>\n" << kUsageBody;
}

int parse_arguments(int argc, char** argv, Arguments& args) {
  if (argc < 2) return PARSE_RUN;

  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;

    if (arg == "--help" || arg == "-h") {
      print_usage(argv[0]);
      return PARSE_SHOWED_USAGE;
    }
    if (arg == "--version") {
      std::cout << FRAMEALIGN_VERSION << std::endl;
      return PARSE_SHOWED_VERSION;
    }

    bool handled = false;
    for (const StringOption& opt : kStringOptions) {
      if (arg != opt.name) continue;
      if (!has_value) {
        report_missing_value(arg);
        return PARSE_ERROR;
      }
      args.*opt.field = argv[++i];
      handled = true;
    }
    for (const IntOption& opt : kIntOptions) {
      if (arg != opt.name) continue;
      if (!has_value) {
        report_missing_value(arg);
        return PARSE_ERROR;
      }
      try {
        args.*opt.field = std::stoi(argv[++i]);
      } catch (const std::exception& e) {
        std::cerr << "Error: Invalid " << opt.label << " value: " << e.what() << "\n";
        return PARSE_ERROR;
      }
      handled = true;
    }
    for (const FlagOption& opt : kFlagOptions) {
      if (arg != opt.name) continue;
      args.*opt.field = true;
      handled = true;
    }
    if (handled) continue;

    if (arg == "--pts") {
      if (i + 8 >= argc) {
        std::cerr << "Error: --pts option requires 8 arguments\n";
        return PARSE_ERROR;
      }
      for (int k = 0; k < 8; ++k) {
        const char* value = argv[++i];
        try {
          args.pts[k] = std::stod(value);
        } catch (const std::exception& e) {
          std::cerr << "Error: Invalid point value: " << value << ", " << e.what() << "\n";
          return PARSE_ERROR;
        }
      }
    } else if (arg == "--output") {
      if (!has_value) {
        report_missing_value(arg);
        return PARSE_ERROR;
      }
      const std::string error = framealign::append_output_list(argv[++i], args.outputs);
      if (!error.empty()) {
        std::cerr << error << "\n";
        return PARSE_ERROR;
      }
    } else {
      std::cerr << "Error: Unknown option " << arg << "\n";
      return PARSE_ERROR;
    }
  }
  return PARSE_RUN;
}
