#include "batch/result_row.h"

#include <algorithm>
#include <cstdio>

namespace {

std::string format(const char* pattern, double value) {
  char text[64];
  std::snprintf(text, sizeof(text), pattern, value);
  return text;
}

}  // namespace

std::vector<std::string> corner_texts(const std::array<double, 8>& corners) {
  std::vector<std::string> texts;
  for (double v : corners) texts.push_back(format("%f", v));
  return texts;
}

std::vector<std::string> result_values(const framealign::AlignResult* result,
                                       const BatchOptions& options, double seconds,
                                       const std::string& message) {
  std::vector<std::string> values(11);  // best_score, best_slot, slot_scores, x1 .. y4
  std::string estimate, path, reason;
  if (result != nullptr) {
    values[0] = format("%.9g", result->score);
    path = result->path;
    reason = one_line(result->reason);
  }
  if (result != nullptr && result->best_slot) {
    values[1] = std::to_string(*result->best_slot);
    for (size_t i = 0; i < result->slot_scores.size(); ++i) {
      values[2] += (i ? ";" : "") + format("%.9g", result->slot_scores[i]);
    }
    const std::vector<std::string> corners = corner_texts(*result->corners);
    std::copy(corners.begin(), corners.end(), values.begin() + 3);
    if (result->est_error_px) estimate = format("%.3f", *result->est_error_px);
  }
  const std::vector<std::string> columns = run_columns(options);
  const auto has = [&](const char* name) {
    return std::find(columns.begin(), columns.end(), name) != columns.end();
  };
  if (has("est_error_px")) values.push_back(estimate);
  if (has("path")) values.push_back(path);
  if (has("reason")) values.push_back(reason);
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

