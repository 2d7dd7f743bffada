#include "main/cache_callbacks.h"

#include <iostream>

#include "io/feature_cache.h"
#include "main/messages.h"

std::string feature_cache_path(const Arguments& args, const char* name) {
  if (name != nullptr) return framealign::feature_cache_path(args.input_file, name);
  return framealign::feature_cache_path(args.reference_file, std::to_string(args.frame_number));
}

framealign::CacheCallbacks make_feature_callbacks(const Arguments& args) {
  return framealign::cache_callbacks(
      [&args](const char* name) { return feature_cache_path(args, name); },
      framealign::CacheTrust::BY_NAME, "",
      [](const std::string& damage) { std::cerr << kCacheReadError << damage << "\n"; });
}
