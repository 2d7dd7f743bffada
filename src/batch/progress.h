// What the batch says while it runs.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "batch/summary.h"

// One line on standard error per finished capture, rewritten in place on a
// terminal; with verbosity 0 (--quiet) only the captures that ended in
// error; with 2 (--verbose) a line per capture with its input, terminal or
// not.
class Progress {
 public:
  Progress(int total, int verbosity);
  void finished(const SummaryRow& row, const std::string& input, double seconds);
  void end() const;

 private:
  std::mutex lock_;
  const int total_;
  const int verbosity_;
  int done_ = 0;
  std::map<std::string, int> counts_;
  const std::chrono::steady_clock::time_point start_;
  const bool tty_;
};
