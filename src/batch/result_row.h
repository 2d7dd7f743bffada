// A capture's summary row, from what became of it.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "batch/batch_runner.h"
#include "framealign/framealign.h"

// The summary columns after id, input and status; `result` is null for a
// capture that ended in error.
std::vector<std::string> result_values(const framealign::AlignResult* result,
                                       const BatchOptions& options, double seconds,
                                       const std::string& message);

// Corners as the summary writes them, x1 .. y4.
std::vector<std::string> corner_texts(const std::array<double, 8>& corners);

// One line of text: the journal keeps a row to a line.
std::string one_line(std::string text);
