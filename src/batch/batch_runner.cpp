#include "batch/batch_runner.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "batch/batch_run.h"
#include "batch/hints.h"
#include "batch/keep_result.h"
#include "batch/progress.h"
#include "batch/references.h"
#include "batch/report.h"
#include "batch/result_root.h"
#include "batch/result_row.h"
#include "batch/say.h"
#include "batch/summary.h"
#include "batch/video_files.h"
#include "batch/video_runner.h"
#include "batch/workers.h"
#include "framealign/framealign.h"

namespace fs = std::filesystem;

namespace {

// Set by SIGINT and SIGTERM; read by every worker before its next capture.
// A lock-free atomic may be written from a signal handler.
std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);

void on_signal(int signal) { g_signal = signal; }

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Aligns one capture and keeps its result.
SummaryRow run_capture(const BatchRun& run, const CaptureJob& job, References& references) {
  const BatchOptions& options = run.options;
  return keep_result(run, job.id, job.input, Clock::now(), [&] {
    const framealign::Reference reference = references.get(job.reference);
    Made made;
    made.capture = read_picture(job);
    framealign::AlignOptions align_options = align_options_of(options);
    if (options.capture_cache) align_options.capture_cache = job.input;
    align_options.hint = job.hint;
    made.result = framealign::align(made.capture, reference, align_options);
    made.reference = reference.picture();
    return made;
  });
}

std::string shard_tag(const BatchOptions& options) {
  return options.shards == 1 ? ""
                             : "." + std::to_string(options.shard) + "-of-" +
                                   std::to_string(options.shards);
}

// Runs the pending captures on `options.jobs` workers (or default_jobs()),
// each taking the next capture until none is left or the run is stopped;
// the capture in flight always finishes. Every row is kept (journalled,
// then recorded). A failure to journal stops every worker after its capture
// and is thrown on. Returns how many captures were run.
size_t run_pending(const BatchRun& run, const std::vector<const CaptureJob*>& pending) {
  const BatchOptions& options = run.options;
  References references(pending);
  Progress progress(static_cast<int>(pending.size()), options.verbosity);
  const int workers = std::min<int>(options.jobs > 0 ? options.jobs : default_jobs(),
                                    std::max<size_t>(pending.size(), 1));
  if (options.verbosity == 2) {
    say(std::to_string(pending.size()) + " captures to run, --jobs " + std::to_string(workers) +
        " (" + (options.jobs > 0 ? "given" : "from the usable CPUs and the memory") + ")");
  }
  const auto run_one = [&](size_t i, const std::function<bool()>&) {
    const SummaryRow row = run_capture(run, *pending[i], references);
    references.done(pending[i]->reference);
    run.keep(row);
    progress.finished(row, pending[i]->input, std::stod(row.values[row.values.size() - 2]));
  };
  try {
    const size_t count = run_on_workers(pending.size(), workers, run.stopped, run_one);
    progress.end();
    return count;
  } catch (...) {
    progress.end();
    throw;
  }
}

// The captures of `jobs` still to run; `rows` receives what earlier runs
// recorded of the others. What they finished stays: a folder that is
// complete, and its row recorded as aligned or not_found.
std::vector<const CaptureJob*> still_to_run(const std::vector<CaptureJob>& jobs,
                                            const BatchOptions& options,
                                            const std::vector<std::string>& columns,
                                            ResultRoot& root,
                                            std::map<std::string, SummaryRow>& rows) {
  std::vector<std::string> warnings;
  rows = read_recorded_rows(options.result_root, columns, warnings);
  for (const std::string& warning : warnings) say(warning);
  std::set<std::string> recorded;
  for (const auto& [id, row] : rows) {
    if (row.status != kError) recorded.insert(id);  // its folder was the batch's result
  }
  root.add_recorded(recorded);
  const size_t path_value = std::find(columns.begin(), columns.end(), "path") - columns.begin() - 3;
  // A hint is given to be used: a capture runs again unless this hint made
  // its row (verified, or unverified with these very corners).
  const auto hint_done = [&](const SummaryRow& row, const std::array<double, 8>& hint) {
    if (row.status == framealign::kHintUnverified) {
      return row.values.size() > 10 &&
             corner_texts(hint) ==
                 std::vector<std::string>(row.values.begin() + 3, row.values.begin() + 11);
    }
    return row.status == framealign::kAligned && path_value < row.values.size() &&
           row.values[path_value] == "hint";
  };
  std::vector<const CaptureJob*> pending;
  for (const CaptureJob& job : jobs) {
    root.discard(job.id);
    const auto it = rows.find(job.id);
    const bool done = !options.force && it != rows.end() && it->second.input == job.input &&
                      it->second.status != kError && root.has_result(job.id) &&
                      (!job.hint || hint_done(it->second, *job.hint));
    if (done) continue;
    rows.erase(job.id);
    pending.push_back(&job);
  }
  return pending;
}

// Writes the summary (and the report) of `jobs` and `videos` from `rows`,
// says the counts, and returns the exit status.
int finish_run(const BatchOptions& options, const std::vector<CaptureJob>& jobs,
               const std::vector<CaptureJob>& videos, const std::map<std::string, SummaryRow>& rows,
               const std::vector<std::string>& columns, const Report& report, size_t run,
               Clock::time_point start) {
  const fs::path root_path(options.result_root);
  std::vector<SummaryRow> summary;
  std::map<std::string, int> counts;
  const size_t path_value = std::find(columns.begin(), columns.end(), "path") - columns.begin() - 3;
  for (const CaptureJob& job : jobs) {
    const auto it = rows.find(job.id);
    if (it != rows.end()) summary.push_back(it->second);
  }
  const size_t pictures = summary.size();
  for (SummaryRow& row : video_rows(videos, options, rows)) summary.push_back(std::move(row));
  const bool paths = path_value < columns.size() - 3;
  for (const SummaryRow& row : summary) {
    ++counts[row.status];
    if (paths) ++counts["path " + row.values.at(path_value)];
  }
  write_summary((root_path / ("summary" + shard_tag(options) + ".csv")).string(), columns, summary);
  if (options.video_files && options.shards == 1) write_video_files(options, videos, summary);
  try {
    report.write(columns, summary, options.command);
  } catch (const std::exception& e) {
    say(e.what());  // summary.csv stands
  }
  const double seconds = seconds_since(start);
  const int status = g_signal != 0 ? 128 + g_signal : counts[kError] > 0 ? 1 : 0;
  if (options.verbosity == 0) return status;
  std::fprintf(stderr,
               "%zu of %zu captures recorded: %d aligned, %d not_found, %d error%s; %zu run now in "
               "%.1f s, %.1f s per capture\n",
               summary.size(), jobs.size() + summary.size() - pictures,
               counts[framealign::kAligned], counts[framealign::kNotFound], counts[kError],
               options.hints.empty() ? ""
                                     : (", " + std::to_string(counts[framealign::kHintUnverified]) +
                                        " " + framealign::kHintUnverified)
                                           .c_str(),
               run, seconds, run == 0 ? 0.0 : seconds / run);
  if (!options.hints.empty()) {
    std::fprintf(stderr, "paths: %d hint, %d fast, %d full\n", counts["path hint"],
                 counts["path fast"], counts["path full"]);
  } else if (options.fast) {
    if (counts["path tracked"] > 0) {
      std::fprintf(stderr, "paths: %d tracked, %d fast, %d full\n", counts["path tracked"], counts["path fast"],
                   counts["path full"]);
    } else {
      std::fprintf(stderr, "paths: %d fast, %d full\n", counts["path fast"], counts["path full"]);
    }
  }
  return status;
}

}  // namespace

std::vector<std::string> run_columns(const BatchOptions& options) {
  const bool hinted = !options.hints.empty();
  return summary_columns(align_options_of(options).refines() || hinted, options.fast || hinted,
                         options.video_columns, true);
}

framealign::AlignOptions align_options_of(const BatchOptions& options) {
  framealign::AlignOptions align;
  align.advanced = options.advanced;
  align.refine = options.refine;
  align.fast = options.fast;
  align.jpeg_output = options.jpeg_output;
  if (!options.outputs.empty()) align.outputs = options.outputs;
  return align;
}

int default_jobs() {
  long long available_kb = 0;
  std::ifstream meminfo("/proc/meminfo");
  for (std::string key; meminfo >> key;) {
    if (key == "MemAvailable:") meminfo >> available_kb;
  }
  const long long per_job_kb = 3584LL * 1024;  // a 12 MP capture's search
  const int by_memory = static_cast<int>(std::max(1LL, available_kb / per_job_kb));
  return std::max(1, std::min(framealign::usable_cpu_count(), by_memory));
}

int run_batch(const BatchOptions& given) {
  const auto start = Clock::now();
  BatchOptions options = given;
  std::vector<CaptureJob> all;
  try {
    all = options.list.empty() ? capture_jobs(options.inputs, options.defaults)
                               : read_capture_list(options.list, options.defaults);
  } catch (const ListError& e) {
    say(e.what());
    return 2;
  }
  // A video's frames are shared out among shards, not the video itself.
  const std::vector<CaptureJob> videos = video_jobs(all, options);
  all.erase(std::remove_if(all.begin(), all.end(), [](const CaptureJob& job) { return job.video; }), all.end());
  options.video_columns = !videos.empty();
  try {
    if (!options.hints.empty()) attach_hints(options.hints, all);
  } catch (const ListError& e) {
    say(e.what());
    return 2;
  }
  std::string clash = options.capture_cache ? shared_capture_cache(all) : "";
  if (clash.empty()) clash = shared_video_id(videos);
  if (!clash.empty()) {
    say(clash);
    return 2;
  }
  const std::vector<CaptureJob> jobs = shard_of(all, options.shard, options.shards);
  std::unique_ptr<ResultRoot> root;
  try {
    root = std::make_unique<ResultRoot>(options.result_root, shard_tag(options));
  } catch (const RootError& e) {
    say(e.what());
    return 2;
  }
  framealign::keep_freed_memory_for_reuse();
  // The report belongs to the whole list: a shard leaves it to the run
  // that gathers the shards.
  const Report report(options.shards == 1 ? options.result_root : "");
  if (options.shards == 1 && !report.enabled()) say(report.why());

  const std::vector<std::string> columns = run_columns(options);
  std::map<std::string, SummaryRow> rows;
  const std::vector<const CaptureJob*> pending = still_to_run(jobs, options, columns, *root, rows);

  const fs::path root_path(options.result_root);
  Journal journal((root_path / (".journal" + shard_tag(options))).string());
  struct sigaction action = {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // A file size limit then shows as a failed write, reported, not as death.
  signal(SIGXFSZ, SIG_IGN);

  std::mutex rows_lock;
  const auto record = [&](const SummaryRow& row) {
    std::lock_guard<std::mutex> guard(rows_lock);
    rows[row.id] = row;
  };
  const std::map<std::string, SummaryRow> recorded = rows;
  const BatchRun run{
      options, *root, report, journal, recorded, record, [] { return g_signal != 0; }};
  size_t count = run_pending(run, pending);
  count += run_videos(run, videos);

  return finish_run(options, jobs, videos, rows, columns, report, count, start);
}
