#include "batch/video_files.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>

#include <opencv2/videoio.hpp>

#include "batch/files.h"
#include "batch/say.h"
#include "framealign/framealign.h"

namespace fs = std::filesystem;

namespace {

// The luma plane at the start of `path`, or an empty picture when it is
// not there (a frame with no picture of that kind).
cv::Mat luma_of(const std::string& path, cv::Size size, std::streamoff at = 0) {
  cv::Mat plane(size, CV_8UC1);
  std::ifstream in(path, std::ios::binary);
  in.seekg(at);
  if (!in.read(reinterpret_cast<char*>(plane.data), static_cast<std::streamsize>(plane.total()))) return {};
  return plane;
}

std::string size_tag(cv::Size size) { return "__" + std::to_string(size.width) + "xx" + std::to_string(size.height); }

// One video file: the pictures `picture_of` gives, row by row.
void write_one(const std::string& path, const std::string& aside, double fps, cv::Size size,
               const std::vector<const SummaryRow*>& rows,
               const std::function<cv::Mat(const SummaryRow&)>& picture_of) {
  {
    cv::VideoWriter writer(aside, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('F', 'F', 'V', '1'), fps, size, false);
    if (!writer.isOpened()) throw std::runtime_error("cannot write " + path + ": the video writer refused it");
    const cv::Mat black(size, CV_8UC1, cv::Scalar(0));
    for (const SummaryRow* row : rows) {
      const cv::Mat picture = picture_of(*row);
      writer.write(picture.empty() ? black : picture);
    }
  }
  // The writer says nothing of a full disk: the file read back must hold
  // every frame.
  cv::VideoCapture check(aside, cv::CAP_FFMPEG);
  if (!check.isOpened() || check.get(cv::CAP_PROP_FRAME_COUNT) != static_cast<double>(rows.size()) ||
      check.get(cv::CAP_PROP_FRAME_WIDTH) != size.width) {
    fs::remove(aside);
    throw std::runtime_error("cannot write " + path + ": it does not read back whole (a full disk?)");
  }
  keep_file_durably(aside, path);
}

}  // namespace

void write_video_files(const BatchOptions& options, const std::vector<CaptureJob>& videos,
                       const std::vector<SummaryRow>& summary) {
  const fs::path root(options.result_root);
  for (const CaptureJob& video : videos) {
    std::vector<const SummaryRow*> rows;
    for (const SummaryRow& row : summary) {
      const bool frame = row.id.size() == video.id.size() + 7 && row.id.compare(0, video.id.size() + 1, video.id + "_") == 0;
      if (frame && row.input == video.input) rows.push_back(&row);
    }
    if (rows.empty()) continue;
    const cv::Size size(video.reference.width, video.reference.height);
    double fps = cv::VideoCapture(video.input, cv::CAP_FFMPEG).get(cv::CAP_PROP_FPS);
    if (!(fps > 0 && fps < 1000)) fps = 30;
    const auto folder = [&](const SummaryRow& row) { return (root / row.id).string() + "/"; };
    const auto best = [](const SummaryRow& row) { return row.values.at(1); };
    const auto aligned = [&](const SummaryRow& row) -> cv::Mat {
      if (row.status != framealign::kAligned) return {};
      return luma_of(folder(row) + "aligned_" + best(row) + size_tag(size) + ".yuv", size);
    };
    const auto shown = [&](const SummaryRow& row) -> cv::Mat {
      if (row.status != framealign::kAligned) return {};
      const cv::Mat mixed = luma_of(folder(row) + "shown_" + best(row) + size_tag(size) + ".yuv", size);
      if (!mixed.empty()) return mixed;
      // ref_frame, of the video columns before seconds and message.
      const std::string& ref = row.values.at(row.values.size() - 2 - kVideoColumns + 1);
      if (ref.empty()) return {};
      // Frame n of a 4:2:0 file: n luma planes and their two quarter-size chroma planes before it.
      const std::streamoff frame = std::streamoff(size.area()) + 2 * std::streamoff((size.width + 1) / 2) *
                                                                     ((size.height + 1) / 2);
      return luma_of(video.reference.path, size, frame * std::stoi(ref));
    };
    using picture_of = std::function<cv::Mat(const SummaryRow&)>;
    for (const char* kind : {".aligned.mkv", ".shown.mkv"}) {
      const std::string name = video.id + kind, path = (root / name).string();
      // A file of that name the batch did not write is left as it is.
      const std::string mark = (root / ".made" / name).string();
      if (fs::exists(path) && !fs::exists(mark)) {
        say(path + " is not the batch's own: not replaced");
        continue;
      }
      write_file_durably(mark, video.input + "\n");
      write_one(path, (root / ".partial" / name).string(), fps, size, rows, kind[1] == 'a' ? picture_of(aligned) : picture_of(shown));
    }
  }
}
