// One capture's result kept in the result root: built aside, swapped in
// whole, its row for the summary and its pictures for the report.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <opencv2/core.hpp>

#include "batch/batch_run.h"
#include "batch/batch_runner.h"
#include "batch/summary.h"
#include "framealign/framealign.h"

// What an alignment gives the batch to keep.
struct Made {
  framealign::AlignResult result;
  cv::Mat capture;    // as aligned
  cv::Mat reference;  // the reference frame, for the report's pictures
  std::vector<std::string> video_values;  // the video columns, when a video's frame
  // Writes what else belongs in the result's folder (given), when set.
  std::function<void(const std::string&)> more_files;
  // The report's pictures of it are made (a video's sure frames are only
  // on its timeline, and need none).
  bool report_pictures = true;
};

// Runs `make` for capture `input` and keeps its result as <run.root>/<id>:
// saved into <root>/.partial/<id>, then swapped in, so that a folder under
// its own name is always complete. Any failure becomes the row's status
// "error" and its message, and leaves an earlier result of the capture
// where it was; a folder the batch did not make is left alone. `start` is
// when the capture's work began (its seconds are counted from it).
SummaryRow keep_result(const BatchRun& run, const std::string& id, const std::string& input,
                       std::chrono::steady_clock::time_point start,
                       const std::function<Made()>& make);

// A row of status "error" with `message`, for capture `input` as <id>.
SummaryRow error_row(const std::string& id, const std::string& input, const BatchOptions& options,
                     std::chrono::steady_clock::time_point start, const std::string& message);
