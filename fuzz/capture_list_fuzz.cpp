// The batch's capture list parser on the fuzz bytes as a CSV file. It either
// returns captures whose ids are plain, distinct file names, or throws a
// ListError naming the file and a line; nothing else escapes.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <set>
#include <string>

#include "batch/capture_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string file = "/tmp/framealign_fuzz_" + std::to_string(::getpid()) + ".csv";
  if (std::FILE* f = std::fopen(file.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  ReferenceFrame defaults;
  defaults.path = "ref.yuv";
  try {
    std::set<std::string> ids;
    for (const CaptureJob& job : read_capture_list(file, defaults)) {
      const bool plain = !job.id.empty() && job.id[0] != '.' && job.id.find('/') == std::string::npos;
      if (!plain || !ids.insert(job.id).second || job.input.empty() || job.reference.width < 1 ||
          job.line < 2) {
        __builtin_trap();
      }
    }
  } catch (const ListError& e) {
    const std::string what = e.what();
    const size_t colon = what.find(':', file.size() + 1);
    if (what.compare(0, file.size() + 1, file + ":") != 0 || colon == std::string::npos ||
        what.find_first_not_of("0123456789", file.size() + 1) != colon || colon == file.size() + 1) {
      __builtin_trap();
    }
  }
  return 0;
}
