// The option parser on argument vectors cut from the fuzz bytes at NULs.
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "main/options.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Messages are part of the parse, but printing them only slows the search.
  std::cout.rdbuf(nullptr);
  std::cerr.rdbuf(nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> words = {"framealign"};
  std::string current;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      words.push_back(current);
      current.clear();
    } else {
      current += static_cast<char>(data[i]);
    }
  }
  if (!current.empty()) words.push_back(current);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  Arguments args;
  const int status = parse_arguments(static_cast<int>(words.size()), argv.data(), args);
  if (status < 0 || status > 3) __builtin_trap();
  // The output list holds distinct variants 0..4 only.
  if (args.outputs.size() > 5) __builtin_trap();
  for (size_t i = 0; i < args.outputs.size(); ++i) {
    if (args.outputs[i] < 0 || args.outputs[i] > 4) __builtin_trap();
    for (size_t j = 0; j < i; ++j) {
      if (args.outputs[i] == args.outputs[j]) __builtin_trap();
    }
  }
  return 0;
}
