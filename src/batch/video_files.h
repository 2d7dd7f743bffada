// Each capture video's answers as two lossless videos beside the summary,
// for video tools and for users who would rather not open a folder per
// frame.
#pragma once

#include <string>
#include <vector>

#include "batch/batch_runner.h"
#include "batch/summary.h"

// Writes <root>/<id>.aligned.mkv and <id>.shown.mkv for each of `videos`
// (FFV1, grey, the reference's size, the capture's frame rate): one frame
// per row of the video in `summary`, in order; on an aligned row its
// aligned frame (the best slot's) and what the screen showed (shown_i, or
// the reference frame told), black on any other row. Each is written
// aside, checked by reading it back, then put in place; a file of that
// name the batch did not write is left, and said. Throws
// std::runtime_error when one cannot be written.
void write_video_files(const BatchOptions& options, const std::vector<CaptureJob>& videos,
                       const std::vector<SummaryRow>& summary);
