#include "batch/say.h"

#include <iostream>
#include <mutex>

void say(const std::string& message) {
  static std::mutex lock;
  std::lock_guard<std::mutex> guard(lock);
  std::cerr << "framealign-batch: " << message << std::endl;
}
