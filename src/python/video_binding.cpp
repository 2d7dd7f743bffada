// framealign.align_video and what it yields: the C++ VideoAligner's frames
// as a Python iterator, one VideoFrame per captured frame.
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <filesystem>
#include <memory>

#include "bindings.h"
#include "framealign/video.h"

namespace py = pybind11;
using framealign::VideoFrame;

namespace {

// "A:B" as a pair of frame numbers, or None for every frame.
void take_range(const py::object& range, const char* name, int& first, int& last) {
  if (range.is_none()) return;
  const auto pair = range.cast<std::pair<int, int>>();
  if (pair.first < 0 || pair.second < pair.first) {
    throw py::value_error(std::string(name) + " must be (A, B) with 0 <= A <= B");
  }
  first = pair.first;
  last = pair.second;
}

class VideoFrames {
 public:
  VideoFrames(const std::string& path, const std::string& reference, int width, int height,
              const framealign::VideoOptions& options)
      : aligner_(std::make_unique<framealign::VideoAligner>(path, reference, width, height, options)) {}

  VideoFrame next() {
    VideoFrame frame;
    bool more;
    {
      py::gil_scoped_release release;
      more = aligner_->next(frame);
    }
    if (!more) throw py::stop_iteration();
    return frame;
  }
  int frame_count() const { return aligner_->frame_count(); }
  int length() const { return aligner_->length(); }
  std::vector<std::pair<std::string, double>> stage_seconds() const { return aligner_->stage_seconds(); }

 private:
  std::unique_ptr<framealign::VideoAligner> aligner_;
};

}  // namespace

void bind_video(py::module_& m) {
  py::class_<VideoFrame>(m, "VideoFrame", "One captured frame of a video and what became of it.")
      .def_readonly("capture_frame", &VideoFrame::capture_frame,
                    "its index in the capture video, from 0")
      .def_readonly(
          "ref_frame", &VideoFrame::ref_frame,
          "the reference frame at the screen's middle; -1 when none of those given is shown")
      .def_readonly("ref_frames", &VideoFrame::ref_frames,
                    "every reference frame on the screen, top to bottom")
      .def_readonly("mixed", &VideoFrame::mixed, "more than one reference frame on the screen")
      .def_readonly("unsure", &VideoFrame::unsure,
                    "empty when the answer is sure; else why it may be wrong although found "
                    "(out of view, occluded, unsure which frame, corners uncertain, coarse capture)")
      .def_readonly("tear_rows", &VideoFrame::tear_rows,
                    "aligned-frame rows (at the middle column) where the picture changes from one "
                    "reference frame to the next, top to bottom; empty unless mixed")
      .def_property_readonly(
          "shown_rows",
          [](const VideoFrame& f) {
            py::list bands;
            for (const framealign::ShownRows& b : f.shown_rows) {
              bands.append(py::make_tuple(b.first_row, b.last_row, b.frames, b.weights));
            }
            return bands;
          },
          "every row of the aligned frame told: (first_row, last_row, frames, weights) per band")
      .def_property_readonly(
          "shown",
          [](const VideoFrame& f) {
            return f.shown.empty() ? py::object(py::none()) : py::object(to_array(f.shown));
          },
          "the reference as the camera saw it (each pixel the blend of the frames its capture row "
          "shows), height x width uint8; None without an answer")
      .def("save_shown", [](const VideoFrame& f, const std::filesystem::path& folder) {
            framealign::save_shown(f, folder.string());
          }, py::arg("folder"), "writes shown_i.txt and, when mixed, shown_i__WxxH.yuv into folder")
      .def_readonly(
          "sync_score", &VideoFrame::sync_score,
          "mean over the screen's bands of 1 - correlation with the frames told; 0 is perfect")
      .def_readonly("result", &VideoFrame::result, "the frame's AlignResult, against ref_frame")
      .def_property_readonly(
          "capture", [](const VideoFrame& f) { return to_array(f.capture); },
          "the frame as aligned, height x width uint8")
      .def("__repr__", [](const VideoFrame& f) {
        return "<framealign.VideoFrame " + std::to_string(f.capture_frame) + " " + f.result.status +
               " ref_frame=" + std::to_string(f.ref_frame) + (f.mixed ? " mixed" : "") + ">";
      });
  py::class_<VideoFrames>(m, "VideoFrames", "The frames of a capture video, aligned one by one.")
      .def("__iter__", [](VideoFrames& self) -> VideoFrames& { return self; })
      .def("__next__", &VideoFrames::next)
      .def_property_readonly("frame_count", &VideoFrames::frame_count,
                             "frames the capture video says it holds (an estimate for some files)")
      .def_property_readonly("length", &VideoFrames::length,
                             "frames the video was found to hold, once its end was met; -1 before")
      .def_property_readonly("stage_seconds", &VideoFrames::stage_seconds,
                             "(stage, seconds) so far for each stage of a frame: decode, identify, track, "
                             "search, edges, rows");

  m.def("align_video", [](const std::filesystem::path& path, const std::filesystem::path& reference, int width,
                          int height, bool refine, bool fast, const py::object& reference_frames,
                          const py::object& frames, bool advanced, const py::object& outputs, bool jpeg_output) {
          framealign::VideoOptions options;
          options.align.refine = refine;
          options.align.fast = fast;
          options.align.advanced = advanced;
          options.align.jpeg_output = jpeg_output;
          const std::vector<int> variants = output_list(outputs);
          if (!variants.empty()) options.align.outputs = variants;
          take_range(reference_frames, "reference_frames", options.first_reference, options.last_reference);
          take_range(frames, "frames", options.first_frame, options.last_frame);
          return VideoFrames(path.string(), reference.string(), width, height, options);
        },
        py::arg("path"), py::arg("reference"), py::arg("width") = 1920, py::arg("height") = 1080,
        py::arg("refine") = true, py::arg("fast") = true, py::arg("reference_frames") = py::none(),
        py::arg("frames") = py::none(), py::arg("advanced") = false, py::arg("outputs") = py::list(),
        py::arg("jpeg_output") = false,
        "Aligns every frame of a capture video against a raw 4:2:0 reference video of width x height, "
        "yielding a VideoFrame per captured frame; reference_frames and frames are (A, B) ranges, both "
        "included. With fast, the screen is tracked from frame to frame.");
}
