#include "core/stop.h"

#include "framealign/framealign.h"

namespace framealign {

void stop_if_asked(const std::atomic<bool>* stop) {
  if (stop != nullptr && stop->load()) throw Cancelled("the alignment was stopped");
}

}  // namespace framealign
