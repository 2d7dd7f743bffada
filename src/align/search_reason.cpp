// Why a search found nothing, in words a user can act on: for each attempt,
// how many features and matches it had and the step that ended it.
#include <cstdio>
#include <string>

#include "align/search.h"

namespace framealign {

std::string search_reason(const AttemptStory* stories, const char* const* names, int count) {
  std::string reason = "no attempt found the reference";
  for (int i = 0; i < count; ++i) {
    const AttemptStory& story = stories[i];
    char text[200];
    std::snprintf(text, sizeof(text),
                  "; %s: %zu features, %zu matches, %zu kept spanning %.0f%% of the reference, ",
                  names[i], story.features, story.matches, story.kept, 100.0 * story.spread);
    reason += text;
    reason += story.gave_up.empty() ? "stopped" : story.gave_up;
  }
  return reason;
}

}  // namespace framealign
