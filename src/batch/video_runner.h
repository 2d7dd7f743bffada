// The batch's capture videos: every decoded frame a capture of its own,
// with id <video's id>_<frame, six digits>, aligned against the reference video
// and told which reference frames it shows.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "batch/batch_run.h"
#include "batch/batch_runner.h"
#include "batch/summary.h"

// The capture of a picture in the batch; a video given as one is said so.
cv::Mat read_picture(const CaptureJob& job);

// The batch's videos: the list's rows marked video and the --video ones
// (id: the file's stem; reference: --reference-file), the list's first.
std::vector<CaptureJob> video_jobs(const std::vector<CaptureJob>& listed, const BatchOptions& options);

// Two videos whose frames would have the same ids, said as the refusal; or "".
std::string shared_video_id(const std::vector<CaptureJob>& videos);

// Runs the frames of every video that are in this run's share (--frames,
// --shard) and not recorded as done, one video per worker, until the run is
// stopped. Every row is kept (journalled, then recorded). Returns how many
// frames were run. A failure to journal is thrown once the workers have
// stopped.
std::size_t run_videos(const BatchRun& run, const std::vector<CaptureJob>& videos);

// The rows of this run's share of every video, video by video, frame by
// frame.
std::vector<SummaryRow> video_rows(const std::vector<CaptureJob>& videos, const BatchOptions& options,
                                   const std::map<std::string, SummaryRow>& rows);
