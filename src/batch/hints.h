// Hints: rough corners for some captures of a batch (clicked by hand, say),
// from a CSV file with columns id, x1, y1, .. y4 (the summary's corner
// columns, capture pixels).
#pragma once

#include <string>
#include <vector>

#include "batch/capture_list.h"

// Gives each capture of `jobs` its hint from the file at `path`. Throws
// ListError (naming the file and line) for a file that cannot be read,
// malformed CSV, a missing or unknown column, a value that is not a finite
// number, an id given twice, or an id that is no picture capture of `jobs`.
void attach_hints(const std::string& path, std::vector<CaptureJob>& jobs);
