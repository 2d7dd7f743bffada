// Aligns many captures in one process: reference features computed or
// loaded once per reference frame, several captures in flight, a journal
// that lets a rerun resume, a summary, progress on standard error.
#pragma once

#include <string>
#include <vector>

#include "batch/capture_list.h"
#include "framealign/framealign.h"

struct BatchOptions {
  std::string list;                 // CSV list; or else
  std::vector<std::string> inputs;  // captures named on the command line
  std::vector<std::string> videos;  // capture videos (--video): every frame a capture
  int first_reference = 0;          // --reference-frames A:B, the frames videos may show
  int last_reference = -1;          // -1: to the reference file's last
  int first_frame = 0;              // --frames A:B, the captured frames of each video
  int last_frame = -1;              // -1: to the video's end
  bool video_files = false;         // --video-files: each video's answers as two videos too
  bool video_columns = false;       // the summary has the video columns (set by run_batch)
  std::string result_root;
  ReferenceFrame defaults;          // --reference-file, --width, --height, --frame-number
  bool advanced = false;
  bool jpeg_output = false;
  std::vector<int> outputs;
  int shard = 1;                    // this process takes rows shard, shard + shards, ...
  int shards = 1;
  int jobs = 0;                     // captures in flight; 0: from the CPUs and memory
  bool capture_cache = false;       // read and write the captures' .ftrs files
  bool force = false;               // redo captures already done
  bool refine = false;              // refine each found frame, estimate its error
  bool fast = false;                // the quick path first (with refine)
  std::string hints;                // CSV of rough corners by capture id; "": none
  int verbosity = 1;                // 0 --quiet: errors only; 2 --verbose: jobs, paths, timings
  std::string command;              // the command line, quoted for a shell: the report's next step
};

// The summary's columns for a run of `options`: a run with hints has those
// of --fast (the estimate and the path); every run has the reasons.
std::vector<std::string> run_columns(const BatchOptions& options);

// The alignment options the batch's options ask for.
framealign::AlignOptions align_options_of(const BatchOptions& options);

// Captures in flight when --jobs is not given: one per usable CPU, as far as
// the available memory holds a 12 MP capture's search (3.5 GB) for each.
int default_jobs();

// Runs the batch. Returns the exit status: 0 when every capture ended
// aligned or not_found, 1 when any ended in error, 2 when the list cannot
// be run, 128 + the signal's number after SIGINT or SIGTERM. A failure to
// record a result (the journal or the summary cannot be written) is thrown
// once every capture in flight has finished.
int run_batch(const BatchOptions& options);
