// framealign-batch: many captures in one run. See README "Batches".
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>

#include <opencv2/core/utils/logger.hpp>

#include "batch/batch_runner.h"
#include "batch/report.h"
#include "batch/say.h"
#include "framealign/framealign.h"

namespace {

// What the command line says beyond BatchOptions' own fields.
struct CommandLine {
  std::vector<std::string> outputs;
  std::string shard, reference_frames, frames;
  bool quiet = false, verbose = false, report_only = false;
};

void declare_options(CLI::App& app, BatchOptions& options, CommandLine& line) {
  app.add_option("--list", options.list, "CSV list of captures: column input, optional id, "
                 "reference, width, height, frame_number, video (1: a capture video)");
  app.add_option("inputs", options.inputs, "Captures, when there is no list");
  app.add_option("--result-root", options.result_root, "A folder <id> per capture, summary.csv")
      ->required();
  app.add_option("--video", options.videos,
                 "Capture video (repeatable): each frame a capture <stem>_<frame>, told which "
                 "reference frame it shows; see the README's \"Videos\"")
      ->allow_extra_args(false);
  app.add_option("--reference-frames", line.reference_frames,
                 "A:B, the frames of the reference video the --video captures may show (default: all)");
  app.add_option("--frames", line.frames, "A:B, the captured frames of each --video to run (default: all)");
  app.add_flag("--video-files", options.video_files,
               "Each --video's aligned frames and what its screen showed as <id>.aligned.mkv and "
               "<id>.shown.mkv (lossless, one frame per row), beside the summary");
  app.add_option("--reference-file", options.defaults.path, "Reference frame file (raw YUV)");
  app.add_option("--width", options.defaults.width, "Reference width (default 1920)");
  app.add_option("--height", options.defaults.height, "Reference height (default 1080)");
  app.add_option("--frame-number", options.defaults.frame_number, "Frame of the reference file");
  app.add_flag("--advanced", options.advanced, "Advanced alignment (mirror and affine pre-pass)");
  app.add_flag("--jpeg-output", options.jpeg_output, "JPEG previews in every result folder");
  app.add_option("--output", line.outputs, "Output variant or preset, as framealign's --output")
      ->take_all()->allow_extra_args(false);
  app.add_option("--shard", line.shard, "K/N: take rows K, K+N, K+2N, ... of the list");
  app.add_option("--jobs", options.jobs, "Captures in flight (default: from CPUs and memory)")
      ->check(CLI::PositiveNumber);
  app.add_flag("--capture-cache", options.capture_cache, "Read and write captures' .ftrs files");
  app.add_flag("--force", options.force, "Redo captures that are already done");
  app.add_flag("--refine", options.refine,
               "Refine each found frame below a pixel; summary column est_error_px");
  app.add_flag("--fast", options.fast,
               "A quick path first, the full search when it cannot be verified (implies --refine)");
  app.add_option("--hints", options.hints,
                 "CSV id,x1,y1,..,y4: rough corners of some captures, refined and verified (path "
                 "hint; status hint_unverified when they cannot be); see the README's \"Hints\"");
  app.add_flag("--report-only", line.report_only,
               "Only write report.html and overview.png again from the root's summary (no --list)");
  app.add_flag("--quiet", line.quiet, "No progress and no closing counts; only warnings and errors");
  app.add_flag("--verbose", line.verbose,
               "The --jobs chosen, and each capture's input and time; OpenCV's own log lines too");
  app.set_version_flag("--version", framealign::version());
  app.footer(
      "Exit status: 0 every capture aligned or not_found, 1 some capture ended in error, 2 the\n"
      "command or the list cannot be run, 3 the run stopped on a system error (a write failed,\n"
      "memory ran out), 128 + N after signal N. See the README's \"Batches\".");
}

// Checks what the parser cannot and completes `options`; throws
// CLI::ValidationError with the reason.
// "A:B" with 0 <= A <= B into `first` and `last`; "" leaves them.
void parse_range(const std::string& name, const std::string& text, int& first, int& last) {
  if (text.empty()) return;
  char colon = 0, rest = 0;
  if (std::sscanf(text.c_str(), "%d%c%d%c", &first, &colon, &last, &rest) != 3 || colon != ':' ||
      first < 0 || last < first) {
    throw CLI::ValidationError(name, "must be A:B with 0 <= A <= B, got '" + text + "'");
  }
}

void complete_options(BatchOptions& options, const CommandLine& line) {
  if (!options.list.empty() && !options.inputs.empty()) {
    throw CLI::ValidationError("give either --list or captures, not both");
  }
  if (options.list.empty() && options.inputs.empty() && options.videos.empty()) {
    throw CLI::ValidationError("give --list, captures or --video");
  }
  if ((!options.inputs.empty() || !options.videos.empty()) && options.defaults.path.empty()) {
    throw CLI::ValidationError("--reference-file is needed for captures and videos named here");
  }
  parse_range("--reference-frames", line.reference_frames, options.first_reference, options.last_reference);
  parse_range("--frames", line.frames, options.first_frame, options.last_frame);
  for (const std::string& value : line.outputs) {
    try {
      for (int code : framealign::parse_outputs(value)) {
        if (std::find(options.outputs.begin(), options.outputs.end(), code) == options.outputs.end()) {
          options.outputs.push_back(code);
        }
      }
    } catch (const framealign::Error& e) {
      throw CLI::ValidationError(e.what());
    }
  }
  if (line.quiet && line.verbose) throw CLI::ValidationError("give --quiet or --verbose, not both");
  options.verbosity = line.quiet ? 0 : line.verbose ? 2 : 1;
  if (!line.shard.empty()) {
    char slash = 0, rest = 0;
    if (std::sscanf(line.shard.c_str(), "%d%c%d%c", &options.shard, &slash, &options.shards, &rest) != 3 ||
        slash != '/' || options.shard < 1 || options.shard > options.shards) {
      throw CLI::ValidationError("--shard", "must be K/N with 1 <= K <= N, got '" + line.shard + "'");
    }
  }
}

// The command line as a shell takes it back: words with anything but
// letters, digits and -_./=:, in single quotes. Without a --hints and its
// file, which the report's next step gives anew.
std::string quoted_command(int argc, char** argv) {
  std::string command;
  for (int i = 0; i < argc; ++i) {
    std::string word = argv[i];
    if (word == "--hints") {
      ++i;
      continue;
    }
    if (word.rfind("--hints=", 0) == 0) continue;
    const bool plain =
        !word.empty() &&
        word.find_first_not_of(
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./=:") ==
            std::string::npos;
    if (!plain) {
      std::string q = "'";
      for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
      word = q + "'";
    }
    command += (i ? " " : "") + word;
  }
  return command;
}

int run(int argc, char** argv) {
  BatchOptions options;
  options.command = quoted_command(argc, argv);
  CommandLine line;
  CLI::App app{"Aligns many captures of known reference frames; see framealign for one.",
               "framealign-batch"};
  declare_options(app, options, line);
  try {
    app.parse(argc, argv);
    if (!line.report_only) complete_options(options, line);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    say(std::string(e.what()) + " (see --help)");
    return 2;
  }
  // OpenCV's log lines (a picture it cannot open, say) only on request: the
  // batch reports every failure in its own words.
  // The same for FFmpeg's own lines on a damaged video (its frames' rows
  // say what could not be decoded); the reader takes this level when it
  // first opens a file.
  if (!line.verbose) {
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
    setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);
  }
  return line.report_only ? rebuild_report(options.result_root) : run_batch(options);
}

}  // namespace

// The program's one edge: whatever the run could not turn into a row or a
// status of its own ends here with its message. Exit statuses: 0 all
// aligned or not_found, 1 some capture in error, 2 the command or list
// cannot be run, 3 the run stopped on a system error (a write that failed,
// memory exhausted), 128 + N after signal N.
int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    say(e.what());
    return 3;
  } catch (...) {
    say("stopped by an unknown failure");
    return 3;
  }
}
