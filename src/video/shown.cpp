// What each row of a filmed screen's aligned frame shows: the tears fitted
// once a frame's answer stands, and the files that tell them.
#include <cstdio>

#include "core/as_error.h"
#include "core/plane_io.h"
#include "video/doubts.h"
#include "video/tears.h"
#include "video/video_state.h"

namespace framealign {

void VideoAligner::State::tell_rows(VideoFrame& frame) {
  const AlignResult& result = frame.result;
  if (frame.ref_frame < 0 || !result.corners || !result.best_slot) return;
  Identity identity = told;
  if (identity.ref_frames.empty()) identity.ref_frames = {frame.ref_frame};
  const auto read = [this](int n) { return plane(n); };
  const ShownModel model =
      fit_tears(result.frames[*result.best_slot], identity, *result.corners, read);
  frame.tear_rows = tear_rows(model);
  frame.shown_rows = shown_rows(model);
  frame.shown = shown_picture(model, read);
  const Doubts doubt = doubts(frame, result.frames[*result.best_slot], identity,
                              capture_pixel(*result.corners, width));
  frame.unsure = doubt.reasons;
  corners_in_doubt = doubt.corners;
}

void save_shown(const VideoFrame& frame, const std::string& folder) {
  const AlignResult& result = frame.result;
  if (!result.best_slot || frame.shown_rows.empty()) return;
  const std::string name = folder + "/shown_" + std::to_string(*result.best_slot);
  std::string text;
  char entry[64];
  for (const ShownRows& band : frame.shown_rows) {
    text += std::to_string(band.first_row) + " " + std::to_string(band.last_row);
    for (std::size_t k = 0; k < band.frames.size(); ++k) {
      std::snprintf(entry, sizeof(entry), " %d:%.2f", band.frames[k], band.weights[k]);
      text += entry;
    }
    text += "\n";
  }
  auto write = [](const std::string& path, const void* data, std::size_t size) {
    if (!replace_file(path, data, size)) throw Error("Cannot write result file: " + path);
  };
  write(name + ".txt", text.data(), text.size());
  if (!frame.mixed || frame.shown.empty()) return;
  const cv::Mat& shown = frame.shown;
  const cv::Mat whole = shown.isContinuous() ? shown : shown.clone();
  write(name + "__" + std::to_string(shown.cols) + "xx" + std::to_string(shown.rows) + ".yuv",
        whole.data, luma_plane_size(shown.cols, shown.rows));
}

}  // namespace framealign
