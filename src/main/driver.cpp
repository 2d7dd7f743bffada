#include "main/driver.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include "align/align.h"
#include "main/feature_cache.h"
#include "main/options.h"
#include "main/readers.h"

namespace fs = std::filesystem;

namespace {

constexpr int kExitError = -1;

// Creates the result folder when it does not exist yet; an existing entry of
// any type is accepted as it is. False after reporting an error.
bool prepare_result_folder(const std::string& folder) {
  try {
    const fs::file_type type = fs::status(folder).type();
    if (type == fs::file_type::not_found || type == fs::file_type::none) {
      if (!fs::create_directories(folder)) {
        std::cerr << "Failed to create result folder\n";
        return false;
      }
    }
  } catch (const fs::filesystem_error& e) {
    std::cerr << "Filesystem error: " << e.what() << "\n";
    return false;
  }
  return true;
}

}  // namespace

// A search allocates and frees SIFT pyramids of hundreds of megabytes per
// layer. By default glibc maps each one freshly and unmaps it on free, so
// every attempt pays for faulting gigabytes of zeroed pages again (on a
// 4032 x 3024 capture more than half of the CPU time when three attempts
// fault at once, two fifths with the pipelined search). Keeping freed memory
// in one heap for reuse removes that; the tool is a one-shot process, so
// memory it does not give back early costs nothing, and the peak stays that
// of the largest live set.
void keep_freed_memory_for_reuse() {
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, -1);
}

int run_program(int argc, char** argv) {
  Arguments args;
  const int status = parse_arguments(argc, argv, args);
  if (status == PARSE_SHOWED_USAGE || status == PARSE_SHOWED_VERSION) return 0;
  if (status != PARSE_RUN) return kExitError;

  if (!args.result_folder.empty() && !prepare_result_folder(args.result_folder)) {
    return kExitError;
  }

  const auto start = std::chrono::steady_clock::now();
  keep_freed_memory_for_reuse();

  LumaFrame input;
  if (!read_input_frame(args.input_file, args.input_width, args.input_height, args.width,
                        args.height, input)) {
    std::cerr << "Failed to read image file: " << args.input_file << "\n";
    return kExitError;
  }

  // When the reference file is missing its features come from the feature
  // cache. The plane is zeroed then, so that a missing cache too gives a
  // defined (featureless) reference rather than stray memory.
  std::vector<unsigned char> reference(luma_plane_size(args.width, args.height), 0);
  if (!args.reference_file.empty() && file_exists(args.reference_file)) {
    extract_frame_from_yuv420_file(args.reference_file, reference.data(), args.width,
                                   args.height, args.frame_number);
  }

  double best_score = 0.0;
  {
    const FeatureLoadCallback load = make_feature_load_callback(args);
    const FeatureSaveCallback save = make_feature_save_callback(args);
    best_score = align_frame(input.plane.data(), reference.data(), args.width, args.height,
                             input.width, input.height, args.crop_width, args.crop_height,
                             args.no_rectify ? 1 : 0, args.pts,
                             args.result_folder.empty() ? nullptr : args.result_folder.c_str(),
                             load, save, args.advanced, args.outputs, args.jpeg_output);
  }
  std::cout << "best score: " << best_score << "\n";
  input = LumaFrame();
  reference = std::vector<unsigned char>();

  const auto elapsed = std::chrono::steady_clock::now() - start;
  std::cout << "alignment time: "
            << std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 1000000
            << "ms" << std::endl;
  return 0;
}
