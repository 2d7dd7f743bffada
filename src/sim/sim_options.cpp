#include "sim/sim_options.h"

#include <cstdint>
#include <string>

const char* const kSimUsage =
    "Usage: framealign-sim [options]\n"
    "Renders a synthetic camera capture of a reference frame and writes, into --out:\n"
    "  reference.yuv  the reference, raw YUV 4:2:0 (grey chroma)\n"
    "  capture.jpg    the capture (capture.png with --png)\n"
    "  corners.txt    the true corners: x y of the reference's top-left, top-right,\n"
    "                 bottom-left, bottom-right in the capture (before --mirror)\n"
    "Options:\n"
    "  --help                       Show this help message\n"
    "  --out <dir>                  Folder for the files, created if missing (default .)\n"
    "  --reference <path>           Picture to show, resized to the reference size\n"
    "                               (default: a built-in frame)\n"
    "  --width <value>              Reference width, 16..8192 (default 1920)\n"
    "  --height <value>             Reference height, 16..8192 (default 1080)\n"
    "  --capture-width <value>      Capture width, 64..4032 (default 3000)\n"
    "  --capture-height <value>     Capture height, 64..3024 (default 2000)\n"
    "  --seed <value>               Seed of every random choice, 0 or more (default 1)\n"
    "  --screen-scale <value>       Screen width as a share of the capture width, 0.1..1 (default 0.7)\n"
    "  --perspective <value>        Largest corner displacement as a share of the screen, 0..0.3 (default 0.06)\n"
    "  --blur <value>               Blur sigma in capture pixels, 0..20 (default 0.8)\n"
    "  --noise <value>              Sensor noise sigma in grey levels, 0..50 (default 2)\n"
    "  --gamma <value>              Gamma, 0.2..5 (default 1)\n"
    "  --brightness <value>         Brightness gain, 0.1..5 (default 1)\n"
    "  --vignette <value>           Darkening towards the corners, 0..1 (default 0.25)\n"
    "  --moire <value>              Moire fringe amplitude over the screen, 0..1 (default 0)\n"
    "  --jpeg-quality <value>       JPEG quality, 1..100 (default 92)\n"
    "  --png                        Write the capture as PNG\n"
    "  --mirror                     Mirror the capture left-right\n"
    "  --unrelated                  Show another built-in frame than the reference written\n"
    "  --other-frame                Show the reference's background with other shapes on it,\n"
    "                               as a later frame of the same video\n"
    "  --upside-down                Show the reference turned by 180 degrees\n"
    "  --corner-error <truth> <found>\n"
    "                               Only compare two corner files (pts format) and print the\n"
    "                               mean and largest error in reference pixels (--width, --height)\n";

namespace {

bool parse_int(const std::string& text, long long lo, long long hi, long long& value) {
  try {
    size_t used = 0;
    value = std::stoll(text, &used);
    return used == text.size() && value >= lo && value <= hi;
  } catch (const std::exception&) {
    return false;
  }
}

bool parse_real(const std::string& text, double lo, double hi, double& value) {
  try {
    size_t used = 0;
    value = std::stod(text, &used);
    return used == text.size() && value >= lo && value <= hi;
  } catch (const std::exception&) {
    return false;
  }
}

struct IntOption {
  const char* name;
  long long lo, hi;
  int SimOptions::*field;
};

struct RealOption {
  const char* name;
  double lo, hi;
  double CaptureSettings::*field;
};

}  // namespace

bool parse_sim_options(int argc, char** argv, SimOptions& o, std::string& error) {
  const IntOption ints[] = {{"--width", 16, 8192, &SimOptions::width},
                            {"--height", 16, 8192, &SimOptions::height},
                            {"--jpeg-quality", 1, 100, &SimOptions::jpeg_quality}};
  const RealOption reals[] = {{"--screen-scale", 0.1, 1.0, &CaptureSettings::screen_scale},
                              {"--perspective", 0.0, 0.3, &CaptureSettings::perspective},
                              {"--blur", 0.0, 20.0, &CaptureSettings::blur},
                              {"--noise", 0.0, 50.0, &CaptureSettings::noise},
                              {"--gamma", 0.2, 5.0, &CaptureSettings::gamma},
                              {"--brightness", 0.1, 5.0, &CaptureSettings::brightness},
                              {"--vignette", 0.0, 1.0, &CaptureSettings::vignette},
                              {"--moire", 0.0, 1.0, &CaptureSettings::moire}};

  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) {
        error = arg + " needs a value";
        return false;
      }
      out = argv[++i];
      return true;
    };
    auto bad = [&](const std::string& text, const std::string& range) {
      error = arg + " needs " + range + ", got '" + text + "'";
      return false;
    };
    std::string text;
    bool known = false;

    for (const IntOption& opt : ints) {
      if (arg != opt.name) continue;
      long long v = 0;
      if (!value(text)) return false;
      if (!parse_int(text, opt.lo, opt.hi, v)) {
        return bad(text, "a whole number from " + std::to_string(opt.lo) + " to " +
                             std::to_string(opt.hi));
      }
      o.*opt.field = static_cast<int>(v);
      known = true;
    }
    for (const RealOption& opt : reals) {
      if (arg != opt.name) continue;
      double v = 0;
      if (!value(text)) return false;
      if (!parse_real(text, opt.lo, opt.hi, v)) {
        char range[96];
        std::snprintf(range, sizeof(range), "a number from %g to %g", opt.lo, opt.hi);
        return bad(text, range);
      }
      o.capture.*opt.field = v;
      known = true;
    }
    if (known) continue;

    if (arg == "--help" || arg == "-h") {
      o.help = true;
    } else if (arg == "--out") {
      if (!value(o.out_dir)) return false;
    } else if (arg == "--reference") {
      if (!value(o.reference)) return false;
    } else if (arg == "--capture-width" || arg == "--capture-height") {
      const bool is_width = arg == "--capture-width";
      long long v = 0;
      if (!value(text)) return false;
      if (!parse_int(text, 64, is_width ? 4032 : 3024, v)) {
        return bad(text, is_width ? "a whole number from 64 to 4032" : "a whole number from 64 to 3024");
      }
      (is_width ? o.capture.capture_width : o.capture.capture_height) = static_cast<int>(v);
    } else if (arg == "--seed") {
      long long v = 0;
      if (!value(text)) return false;
      if (!parse_int(text, 0, INT64_MAX, v)) return bad(text, "a whole number, 0 or more");
      o.capture.seed = static_cast<std::uint64_t>(v);
    } else if (arg == "--png") {
      o.png = true;
    } else if (arg == "--mirror") {
      o.capture.mirror = true;
    } else if (arg == "--unrelated") {
      o.unrelated = true;
    } else if (arg == "--other-frame") {
      o.other_frame = true;
    } else if (arg == "--upside-down") {
      o.upside_down = true;
    } else if (arg == "--corner-error") {
      if (!value(o.truth_file) || !value(o.found_file)) return false;
    } else {
      error = "unknown option " + arg;
      return false;
    }
  }
  return true;
}
