// framealign's two feature-cache callbacks: the capture's entries beside the
// input file, the reference's beside the reference file, tagged with the
// frame number; a file is taken by its name.
#pragma once

#include <string>

#include "io/cache_callbacks.h"
#include "main/options.h"

// Cache file of an entry: the input picture's for a named entry, the
// reference's (tagged with the frame number) for a null name.
std::string feature_cache_path(const Arguments& args, const char* name);

// Callbacks bound to `args` by reference; safe to call from several threads.
// The load callback reports a damaged file on standard error and misses.
framealign::CacheCallbacks make_feature_callbacks(const Arguments& args);
