// A caller's request to stop a long alignment.
#pragma once

#include <atomic>

namespace framealign {

// Throws Cancelled when `stop` is set: checked before every stage.
void stop_if_asked(const std::atomic<bool>* stop);

}  // namespace framealign
