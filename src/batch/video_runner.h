// The batch's capture videos: every decoded frame a capture of its own,
// with id <video's id>_<frame, six digits>, aligned against the reference video
// and told which reference frames it shows.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "batch/batch_runner.h"
#include "batch/report.h"
#include "batch/result_root.h"
#include "batch/summary.h"

// The batch's videos: the list's rows marked video and the --video ones
// (id: the file's stem; reference: --reference-file), the list's first.
std::vector<CaptureJob> video_jobs(const std::vector<CaptureJob>& listed, const BatchOptions& options);

// Two videos whose frames would have the same ids, said as the refusal; or "".
std::string shared_video_id(const std::vector<CaptureJob>& videos);

// Runs the frames of every video that are in this run's share (--frames,
// --shard) and not recorded as done in `recorded`, one video per worker,
// until `stopped` says so. Every row is journalled, then handed to
// `record`. Returns how many frames were run. A failure to journal is
// thrown once the workers have stopped.
std::size_t run_videos(const std::vector<CaptureJob>& videos, const BatchOptions& options, ResultRoot& root, const Report& report,
                       Journal& journal, const std::map<std::string, SummaryRow>& recorded,
                       const std::function<void(const SummaryRow&)>& record,
                       const std::function<bool()>& stopped);

// The rows of this run's share of every video, video by video, frame by
// frame.
std::vector<SummaryRow> video_rows(const std::vector<CaptureJob>& videos, const BatchOptions& options,
                                   const std::map<std::string, SummaryRow>& rows);
