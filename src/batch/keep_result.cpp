#include "batch/keep_result.h"

#include "batch/result_row.h"
#include "batch/say.h"

namespace {

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The row's values with the video columns (empty for a picture) before
// seconds and message.
std::vector<std::string> with_video(std::vector<std::string> values, const BatchOptions& options,
                                    const std::vector<std::string>& video) {
  if (options.video_columns) {
    std::vector<std::string> columns = video;
    columns.resize(kVideoColumns);
    values.insert(values.end() - 2, columns.begin(), columns.end());
  }
  return values;
}

}  // namespace

SummaryRow keep_result(const BatchRun& run, const std::string& id, const std::string& input,
                       std::chrono::steady_clock::time_point start,
                       const std::function<Made()>& make) {
  const BatchOptions& options = run.options;
  ResultRoot& root = run.root;
  SummaryRow row{id, input, kError, {}};
  std::string foreign = root.foreign(id);
  if (foreign.empty()) foreign = root.other_capture(id, input);
  if (!foreign.empty()) {
    row.values = with_video(result_values(nullptr, options, seconds_since(start), foreign), options, {});
    return row;
  }
  std::vector<std::string> video;
  try {
    const Made made = make();
    video = made.video_values;
    const std::string partial = root.fresh_partial(id);
    made.result.save(partial);
    if (made.more_files) made.more_files(partial);
    root.install(id, input);
    row.status = made.result.status;
    row.values = with_video(result_values(&made.result, options, seconds_since(start), ""), options, video);
    try {
      if (made.report_pictures) run.report.add_pictures(id, made.capture, made.result, made.reference);
    } catch (const std::exception& e) {
      // The result stands; only its pictures in the report are missing.
      say(e.what());
    }
  } catch (const std::exception& e) {
    root.discard(id);
    std::string message = one_line(e.what());
    if (root.has_result(id)) message += " (the earlier result in " + root.folder(id) + " is kept)";
    row.values = with_video(result_values(nullptr, options, seconds_since(start), message), options, video);
  }
  return row;
}

SummaryRow error_row(const std::string& id, const std::string& input, const BatchOptions& options,
                     std::chrono::steady_clock::time_point start, const std::string& message) {
  return SummaryRow{
      id, input, kError,
      with_video(result_values(nullptr, options, seconds_since(start), one_line(message)), options,
                 {})};
}
