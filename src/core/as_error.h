// The library's edge towards its users: failures of the stages below the
// public API, reported as framealign::Error with their own text.
#pragma once

#include <exception>
#include <new>

#include "framealign/framealign.h"

namespace framealign {

// Runs `work`; a standard exception from it is thrown on as Error with the
// same what(). Error itself and memory exhaustion pass unchanged.
template <typename F>
auto as_error(F&& work) {
  try {
    return work();
  } catch (const Error&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    throw Error(e.what());
  }
}

}  // namespace framealign
