#include "batch/result_row.h"

#include <cstdio>

namespace {

std::string format(const char* pattern, double value) {
  char text[64];
  std::snprintf(text, sizeof(text), pattern, value);
  return text;
}

}  // namespace

std::vector<std::string> result_values(const framealign::AlignResult* result,
                                       const BatchOptions& options, double seconds,
                                       const std::string& message) {
  std::vector<std::string> values(11);  // best_score, best_slot, slot_scores, x1 .. y4
  std::string estimate, path;
  if (result != nullptr) {
    values[0] = format("%.9g", result->score);
    path = result->path;
  }
  if (result != nullptr && result->best_slot) {
    values[1] = std::to_string(*result->best_slot);
    for (size_t i = 0; i < result->slot_scores.size(); ++i) {
      values[2] += (i ? ";" : "") + format("%.9g", result->slot_scores[i]);
    }
    for (int c = 0; c < 8; ++c) values[3 + c] = format("%f", (*result->corners)[c]);
    if (result->est_error_px) estimate = format("%.3f", *result->est_error_px);
  }
  if (align_options_of(options).refines()) values.push_back(estimate);
  if (options.fast) values.push_back(path);
  values.push_back(format("%.2f", seconds));
  values.push_back(message);
  return values;
}

std::string one_line(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return text;
}

