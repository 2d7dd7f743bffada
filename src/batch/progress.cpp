#include "batch/progress.h"

#include <unistd.h>

#include <cstdio>

Progress::Progress(int total, int verbosity)
    : total_(total),
      verbosity_(verbosity),
      start_(std::chrono::steady_clock::now()),
      tty_(::isatty(2) && verbosity == 1) {}

void Progress::finished(const SummaryRow& row, const std::string& input, double seconds) {
  std::lock_guard<std::mutex> guard(lock_);
  ++done_;
  ++counts_[row.status];
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const double per_capture = elapsed / done_;
  if (verbosity_ == 0 && row.status != kError) return;
  if (verbosity_ == 2) {
    std::fprintf(stderr, "%d/%d %s %s %.1f s %s\n", done_, total_, row.id.c_str(),
                 row.status.c_str(), seconds, input.c_str());
  } else if (tty_ && verbosity_ == 1) {
    const int left = static_cast<int>(per_capture * (total_ - done_));
    std::fprintf(stderr,
                 "\r%d/%d  aligned %d  not_found %d  error %d  %.1f s/capture  %d:%02d left ",
                 done_, total_, counts_[framealign::kAligned], counts_[framealign::kNotFound],
                 counts_[kError], per_capture, left / 60, left % 60);
  } else {
    std::fprintf(stderr, "%d/%d %s %s %.1f s\n", done_, total_, row.id.c_str(),
                 row.status.c_str(), seconds);
  }
  std::fflush(stderr);
}

void Progress::end() const {
  if (tty_ && done_ > 0) std::fprintf(stderr, "\n");
}
