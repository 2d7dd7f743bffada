// One builder of feature-cache callbacks, with the rule that says when a
// cache file belongs to the picture at hand.
#pragma once

#include <functional>
#include <string>

#include "align/align.h"

namespace framealign {

// When a cache file is taken as the picture's own.
enum class CacheTrust {
  // Its name alone: the file beside the picture is its features
  // (framealign's rule, as its users know it).
  BY_NAME,
  // Only when the note beside it names the picture's fingerprint
  // (cache_made_from); a damaged or unproven file is a miss, and the
  // features computed again are stored with their note.
  BY_NOTE,
};

struct CacheCallbacks {
  FeatureLoadCallback load;
  FeatureSaveCallback save;
};

// Callbacks over the cache file `path_of(name)` of each entry ("": the
// entry is not cached). With BY_NOTE, `fingerprint` is the picture's
// (picture_fingerprint). A damaged file is a miss; with BY_NAME its damage
// goes to `on_damage` first, when given. Safe to call from several threads
// when `path_of` and `on_damage` are.
CacheCallbacks cache_callbacks(std::function<std::string(const char* name)> path_of,
                               CacheTrust trust, const std::string& fingerprint = "",
                               std::function<void(const std::string& damage)> on_damage = nullptr);

}  // namespace framealign
