#include "main/driver.h"

#include <chrono>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "align/align.h"
#include "framealign/framealign.h"
#include "io/readers.h"
#include "main/cache_callbacks.h"
#include "main/messages.h"
#include "main/options.h"

namespace fs = std::filesystem;

namespace {

// Creates the result folder when it does not exist yet; an existing entry of
// any type is accepted as it is. False after reporting an error.
bool prepare_result_folder(const std::string& folder) {
  try {
    const fs::file_type type = fs::status(folder).type();
    if (type == fs::file_type::not_found || type == fs::file_type::none) {
      if (!fs::create_directories(folder)) {
        std::cerr << kFolderNotCreated << "\n";
        return false;
      }
    }
  } catch (const fs::filesystem_error& e) {
    std::cerr << kFilesystemError << e.what() << "\n";
    return false;
  }
  return true;
}

// The alignment from the inputs to the two result lines. Exceptions are not
// caught here: see run_program.
int align_and_report(const Arguments& args) {
  const auto start = std::chrono::steady_clock::now();
  framealign::keep_freed_memory_for_reuse();

  framealign::LumaFrame input;
  if (!framealign::read_input_frame(args.input_file, args.input_width, args.input_height,
                                    args.width, args.height, input)) {
    std::cerr << kImageNotRead << args.input_file << "\n";
    return kExitError;
  }

  // When the reference file is missing its features come from the feature
  // cache. The plane is zeroed then, so that a missing cache too gives a
  // defined (featureless) reference rather than stray memory.
  std::vector<unsigned char> reference(framealign::luma_plane_size(args.width, args.height), 0);
  if (!args.reference_file.empty() && framealign::file_exists(args.reference_file)) {
    framealign::extract_frame_from_yuv420_file(args.reference_file, reference.data(), args.width,
                                               args.height, args.frame_number);
  }

  double best_score = 0.0;
  {
    const framealign::CacheCallbacks cache = make_feature_callbacks(args);
    best_score = framealign::align_frame(
        input.plane.data(), reference.data(), args.width, args.height, input.width, input.height,
        args.crop_width, args.crop_height, args.no_rectify ? 1 : 0, args.pts,
        args.result_folder.empty() ? nullptr : args.result_folder.c_str(), cache.load, cache.save,
        args.advanced, args.outputs, args.jpeg_output);
  }
  std::cout << kBestScore << best_score << "\n";
  input = framealign::LumaFrame();
  reference = std::vector<unsigned char>();

  const auto elapsed = std::chrono::steady_clock::now() - start;
  std::cout << kAlignmentTime
            << std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 1000000
            << "ms" << std::endl;
  return 0;
}

}  // namespace

int run_program(int argc, char** argv) {
  Arguments args;
  const int status = parse_arguments(argc, argv, args);
  if (status == PARSE_SHOWED_USAGE || status == PARSE_SHOWED_VERSION) return 0;
  if (status != PARSE_RUN) return kExitError;

  if (!args.result_folder.empty() && !prepare_result_folder(args.result_folder)) {
    return kExitError;
  }
  // The library's one diagnostic (the match visualisation's) goes where
  // framealign has always printed it.
  framealign::set_diagnostic_sink([](const std::string& line) { std::cout << line << "\n"; });

  // framealign reports the failures above and an undecodable picture, with
  // the texts of messages.h. Every other failure (a raw file that cannot be
  // read, a reference too short, OpenCV's errors, memory exhaustion) is left
  // uncaught on purpose: it ends the process through std::terminate, which
  // shows the exception's text and aborts (exit status 134). Scripts built
  // around framealign tell the two kinds apart by that status.
  return align_and_report(args);
}
