#include "batch/video_runner.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "batch/keep_result.h"
#include "batch/progress.h"
#include "batch/result_row.h"
#include "batch/workers.h"
#include "framealign/video.h"

namespace fs = std::filesystem;

namespace {

// A video frame's file of the corners followed from it.
constexpr char kFollowed[] = "followed.txt";

std::string frame_id(const CaptureJob& video, int frame) {
  char digits[16];
  std::snprintf(digits, sizeof(digits), "_%06d", frame);
  return video.id + digits;
}

// Whether captured frame `frame` is in this run's share.
bool in_share(const BatchOptions& options, int frame) {
  return frame >= options.first_frame && (options.last_frame < 0 || frame <= options.last_frame) &&
         (frame - options.first_frame) % options.shards == options.shard - 1;
}

// What an earlier run kept of a frame that is done (its row and folder
// there, not an error), for the frames after it to be followed from.
std::optional<framealign::KeptFrame> done(const BatchOptions& options,
                                          const std::map<std::string, SummaryRow>& recorded,
                                          ResultRoot& root, const CaptureJob& video, int frame) {
  const std::string id = frame_id(video, frame);
  const auto it = recorded.find(id);
  if (options.force || it == recorded.end() || it->second.input != video.input ||
      it->second.status == kError || !root.has_result(id)) {
    return std::nullopt;
  }
  const std::vector<std::string>& values = it->second.values;
  if (values.size() < 11 + kVideoColumns + 2) return std::nullopt;
  const std::size_t told = values.size() - 2 - kVideoColumns;  // capture_frame ...
  framealign::KeptFrame kept;
  kept.ref_frame = values[told + 1].empty() ? -1 : std::atoi(values[told + 1].c_str());
  kept.unsure = values[told + 5];
  if (!values[3].empty()) {
    // Exactly, from the frame's folder; the summary's to the micro-pixel
    // when that file is missing (a folder of an older run).
    std::array<double, 8> corners;
    std::ifstream exact(root.folder(id) + "/" + kFollowed);
    std::size_t read = 0;
    for (std::string word; read < 8 && exact >> word; ++read) {
      char* end = nullptr;
      corners[read] = std::strtod(word.c_str(), &end);  // reads hexadecimal, as streams do not
      if (*end != '\0') break;
    }
    if (read < 8) {
      for (int i = 0; i < 8; ++i) corners[i] = std::strtod(values[3 + i].c_str(), nullptr);
    }
    kept.corners = corners;
  }
  return kept;
}

// Writes the corners of `frame`'s answer exactly (hexadecimal), for a
// resumed run to follow the screen on from them as one run does.
void save_followed(const framealign::VideoFrame& frame, const std::string& folder) {
  if (!frame.result.corners) return;
  std::string text;
  char number[40];
  for (double v : *frame.result.corners) {
    std::snprintf(number, sizeof(number), "%a ", v);
    text += number;
  }
  text.back() = '\n';
  std::ofstream out(folder + "/" + kFollowed);
  out << text;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + folder + "/" + kFollowed);
}

// Why a video gave no frame of this run's share, when the video itself
// says: it holds none, or none of --frames.
std::string no_frames(const BatchOptions& options, const CaptureJob& video, int length) {
  if (length < 0 || length > options.first_frame) return "";  // not at its end, or frames in range
  if (length == 0) return "The capture video " + video.input + " holds no frame";
  return "The capture video " + video.input + " holds frames 0 to " + std::to_string(length - 1) +
         ", none of --frames " + std::to_string(options.first_frame) + ":" +
         (options.last_frame < 0 ? std::string() : std::to_string(options.last_frame));
}

std::vector<std::string> video_values(const framealign::VideoFrame& frame) {
  std::string shown;
  for (int n : frame.ref_frames) shown += (shown.empty() ? "" : ";") + std::to_string(n);
  std::string tears;
  char number[32];
  for (double row : frame.tear_rows) {
    std::snprintf(number, sizeof(number), "%.1f", row);
    tears += (tears.empty() ? "" : ";") + std::string(number);
  }
  std::snprintf(number, sizeof(number), "%.4f", frame.sync_score);
  return {std::to_string(frame.capture_frame), frame.ref_frame < 0 ? "" : std::to_string(frame.ref_frame),
          shown, frame.mixed ? "1" : "0", tears, frame.unsure, number};
}

// Where a video's time went, for --verbose.
void say_stages(const CaptureJob& video, std::size_t frames, std::vector<std::pair<std::string, double>> stages,
                double writing) {
  stages.emplace_back("write", writing);
  std::string text = video.input + ": " + std::to_string(frames) + " frames run; seconds in";
  char part[64];
  for (const auto& [stage, seconds] : stages) {
    std::snprintf(part, sizeof(part), " %s %.2f", stage.c_str(), seconds);
    text += part;
  }
  std::fprintf(stderr, "%s\n", text.c_str());
}

// One video, frame after frame. A video that cannot be opened gives one
// error row under its id.
std::size_t run_video(const BatchRun& run, const CaptureJob& video,
                      const std::function<bool()>& stopped) {
  const BatchOptions& options = run.options;
  framealign::VideoOptions video_options;
  video_options.align = align_options_of(options);
  video_options.first_reference = options.first_reference;
  video_options.last_reference = options.last_reference;
  video_options.first_frame = options.first_frame + options.shard - 1;
  video_options.last_frame = options.last_frame;
  video_options.step = options.shards;
  video_options.kept = [&](int frame) {
    return done(options, run.recorded, run.root, video, frame);
  };
  std::unique_ptr<framealign::VideoAligner> aligner;
  const auto opened = std::chrono::steady_clock::now();
  try {
    aligner = std::make_unique<framealign::VideoAligner>(video.input, video.reference.path,
                                                         video.reference.width, video.reference.height,
                                                         video_options);
  } catch (const std::exception& e) {
    run.keep(error_row(video.id, video.input, options, opened, e.what()));
    return 0;
  }
  const int total = std::max(0, aligner->frame_count() - options.first_frame) / options.shards;
  Progress progress(total, options.verbosity);
  std::size_t count = 0;
  double writing = 0;  // result folders, shown files and the report's pictures
  while (!stopped()) {
    const auto start = std::chrono::steady_clock::now();
    framealign::VideoFrame frame;
    std::exception_ptr failure;
    try {
      if (!aligner->next(frame)) break;
    } catch (const std::exception&) {
      // The frame is read; its alignment failed: an error row, and on.
      failure = std::current_exception();
      frame.capture_frame = aligner->last_read();
    }
    const auto made = std::chrono::steady_clock::now();
    SummaryRow row =
        keep_result(run, frame_id(video, frame.capture_frame), video.input, start, [&] {
          if (failure) std::rethrow_exception(failure);
          // As the report tells which frames need a look.
          const bool sure = frame.result.status == framealign::kAligned && frame.unsure.empty() &&
                            frame.result.est_error_px.value_or(0.0) <= 1.0;
          return Made{frame.result, frame.capture, frame.reference, video_values(frame),
                      [&frame](const std::string& folder) {
                        framealign::save_shown(frame, folder);
                        save_followed(frame, folder);
                      },
                      !sure};
        });
    writing += std::chrono::duration<double>(std::chrono::steady_clock::now() - made).count();
    // A frame that failed is still that frame of the video.
    row.values[row.values.size() - 2 - kVideoColumns] = std::to_string(frame.capture_frame);
    run.keep(row);
    progress.finished(row, video.input, std::stod(row.values[row.values.size() - 2]));
    ++count;
  }
  progress.end();
  if (options.verbosity == 2) say_stages(video, count, aligner->stage_seconds(), writing);
  const std::string none = stopped() ? "" : no_frames(options, video, aligner->length());
  if (!none.empty()) run.keep(error_row(video.id, video.input, options, opened, none));
  return count;
}

}  // namespace

cv::Mat read_picture(const CaptureJob& job) {
  try {
    return framealign::read_capture(job.input, job.reference.width, job.reference.height);
  } catch (const std::exception&) {
    // A file no picture reader takes, but the video reader does.
    if (!cv::haveImageReader(job.input) && cv::VideoCapture(job.input).isOpened()) {
      throw std::invalid_argument(job.input + " is a video, not a picture: give it with --video (or 1 in " +
                                  "the list's video column)");
    }
    throw;
  }
}

std::vector<CaptureJob> video_jobs(const std::vector<CaptureJob>& listed, const BatchOptions& options) {
  std::vector<CaptureJob> videos;
  for (const CaptureJob& job : listed) {
    if (job.video) videos.push_back(job);
  }
  int line = 0;
  for (const std::string& path : options.videos) {
    const bool named = std::any_of(videos.begin(), videos.end(),
                                   [&](const CaptureJob& v) { return v.line < 0 && v.input == path; });
    if (named) continue;
    CaptureJob video;
    video.line = --line;
    video.id = fs::path(path).stem().string();
    video.input = path;
    video.reference = options.defaults;
    video.video = true;
    videos.push_back(video);
  }
  return videos;
}

std::string shared_video_id(const std::vector<CaptureJob>& videos) {
  std::map<std::string, std::string> by_id;
  for (const CaptureJob& video : videos) {
    const auto [it, fresh] = by_id.emplace(video.id, video.input);
    if (!fresh) {
      return "the videos " + it->second + " and " + video.input + " would give their frames the same ids (" +
             it->first + "_NNNNNN); give one another id";
    }
  }
  return "";
}

std::size_t run_videos(const BatchRun& run, const std::vector<CaptureJob>& videos) {
  std::atomic<std::size_t> count{0};
  const int workers = std::min<int>(run.options.jobs > 0 ? run.options.jobs : default_jobs(),
                                    static_cast<int>(videos.size()));
  run_on_workers(videos.size(), workers, run.stopped,
                 [&](std::size_t i, const std::function<bool()>& halted) {
                   count += run_video(run, videos[i], halted);
                 });
  return count;
}

std::vector<SummaryRow> video_rows(const std::vector<CaptureJob>& videos, const BatchOptions& options,
                                   const std::map<std::string, SummaryRow>& rows) {
  std::vector<SummaryRow> kept;
  for (const CaptureJob& video : videos) {
    const std::string& stem = video.id;
    const SummaryRow* whole = nullptr;  // why the video gave no frame
    const std::size_t first = kept.size();
    // Ids of one video sort by frame: the numbers have six digits.
    for (auto it = rows.lower_bound(stem); it != rows.end() && it->first.compare(0, stem.size(), stem) == 0; ++it) {
      const std::string& id = it->first;
      if (it->second.input != video.input) continue;
      if (id == stem) whole = &it->second;
      if (id.size() != stem.size() + 7 || id[stem.size()] != '_') continue;
      const int frame = std::atoi(id.c_str() + stem.size() + 1);
      if (in_share(options, frame)) kept.push_back(it->second);
    }
    // Once the video gives frames, their rows tell.
    if (whole && kept.size() == first) kept.push_back(*whole);
  }
  return kept;
}
