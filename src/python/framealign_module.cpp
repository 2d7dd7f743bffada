// The Python module `framealign`: the alignment on numpy arrays. A small,
// stable facade over the library: references, align, warp by corners.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/internal.h"
#include "main/feature_cache.h"
#include "main/readers.h"
#include "main/options.h"
#include "main/reference_frame.h"

namespace py = pybind11;

namespace {

using Reference = std::shared_ptr<PreparedReference>;  // never changed once made

// An 8-bit grey picture from Python, checked: uint8, two dimensions, rows
// packed one after another (C order).
cv::Mat grey_picture(const py::object& value, const char* argument) {
  if (!py::isinstance<py::array>(value) || !py::array_t<uint8_t>::check_(value)) {
    throw py::type_error(std::string(argument) + " must be a numpy array of dtype uint8");
  }
  const auto array = py::reinterpret_borrow<py::array>(value);
  if (array.ndim() != 2) {
    throw py::value_error(std::string(argument) + " must have two dimensions (height, width), not " +
                          std::to_string(array.ndim()));
  }
  if (!(array.flags() & py::array::c_style)) {
    throw py::value_error(std::string(argument) + " must be C-contiguous (numpy.ascontiguousarray)");
  }
  if (array.shape(0) < 1 || array.shape(1) < 1) throw py::value_error(std::string(argument) + " is empty");
  return cv::Mat(static_cast<int>(array.shape(0)), static_cast<int>(array.shape(1)), CV_8UC1,
                 const_cast<void*>(array.data()));
}

py::array_t<uint8_t> to_array(const unsigned char* data, int width, int height) {
  py::array_t<uint8_t> out({height, width});
  std::memcpy(out.mutable_data(), data, static_cast<size_t>(width) * height);
  return out;
}

// Runs library code without the GIL; its failures become RuntimeError with
// the library's message.
template <typename F>
auto unlocked(F work) {
  py::gil_scoped_release release;
  try {
    return work();
  } catch (const std::exception& e) {
    throw std::runtime_error(e.what());
  }
}

Reference checked(PreparedReference reference) {
  if (!reference.error.empty()) throw std::runtime_error(reference.error);
  return std::make_shared<PreparedReference>(std::move(reference));
}

// What align() found, with what save() needs to write the result folder.
struct Result {
  std::string status;
  double score = kFailedScore;
  AlignmentReport report;
  std::vector<unsigned char> capture;
  int capture_width = 0, capture_height = 0, width = 0, height = 0;
  bool jpeg_output = false;

  int best_slot() const {
    if (report.scores.empty()) return -1;
    return static_cast<int>(std::min_element(report.scores.begin(), report.scores.end()) -
                            report.scores.begin());
  }
  const double* best_corners() const {
    return best_slot() < 0 ? nullptr : report.corners[best_slot()].data();
  }
};

Result align(const py::object& capture_value, const Reference& reference, bool advanced, bool refine,
             const std::vector<int>& outputs, bool jpeg_output) {
  const cv::Mat capture = grey_picture(capture_value, "capture");
  Result result;
  result.capture.assign(capture.data, capture.data + capture.total());
  result.capture_width = capture.cols;
  result.capture_height = capture.rows;
  result.width = reference->width;
  result.height = reference->height;
  result.jpeg_output = jpeg_output;
  result.report.keep_slots = true;
  result.report.refine = refine;
  unlocked([&] {
    const double none[8] = {};
    result.score = align_frame(result.capture.data(), const_cast<unsigned char*>(reference->plane.data()),
                               reference->width, reference->height, capture.cols, capture.rows, 0, 0, 0,
                               none, nullptr, reference_loader(*reference, nullptr), nullptr, advanced,
                               outputs, jpeg_output, &result.report);
    return 0;
  });
  result.status = result.score < kFailedScore ? "aligned" : "not_found";
  return result;
}

void save(const Result& r, const std::string& folder) {
  unlocked([&] {
    std::filesystem::create_directories(folder);
    std::vector<unsigned char*> frames;
    for (const auto& frame : r.report.frames) frames.push_back(const_cast<unsigned char*>(frame.data()));
    double pts[6][8], content[6][20];
    for (int i = 0; i < 6; ++i) {
      std::copy(r.report.pts_rows[i].begin(), r.report.pts_rows[i].end(), pts[i]);
      std::copy(r.report.content_rows[i].begin(), r.report.content_rows[i].end(), content[i]);
    }
    save_alignment_results(folder.c_str(), r.capture.data(), frames.data(), pts, content,
                           r.report.slots, r.width, r.height, r.capture_width, r.capture_height,
                           r.score, r.jpeg_output);
    return 0;
  });
}

}  // namespace

PYBIND11_MODULE(framealign, m) {
  m.doc() = "Brings camera captures of a displayed picture back into the reference frame's geometry.";
  m.attr("__version__") = kVersion;

  py::class_<PreparedReference, Reference>(m, "Reference",
      "A reference frame and its SIFT features, computed once for every align() against it.")
      .def_static("from_yuv", [](const std::string& path, int width, int height, int frame) {
            return checked(unlocked([&] { return prepare_reference(path, width, height, frame); }));
          },
          py::arg("path"), py::arg("width") = 1920, py::arg("height") = 1080, py::arg("frame") = 0,
          "Frame `frame` of a raw YUV file; features from its .ftrs cache beside it, or computed and cached.")
      .def_static("from_array", [](const py::object& picture) {
            const cv::Mat plane = grey_picture(picture, "picture");
            PreparedReference reference;
            reference.width = plane.cols;
            reference.height = plane.rows;
            reference.plane.assign(plane.data, plane.data + plane.total());
            return checked(unlocked([&] {
              SIFTdetectAndCompute(plane, reference.keypoints, reference.descriptors, false);
              return reference;
            }));
          },
          py::arg("picture"), "A uint8 height x width array; features computed here.")
      .def_static("from_ftrs", [](const std::string& path, int width, int height) {
            return checked(unlocked([&] {
              PreparedReference reference;
              reference.width = width;
              reference.height = height;
              reference.plane.assign(luma_plane_size(width, height), 0);
              if (!load_reference_features(path, reference)) {
                reference.error = "Cannot read the feature cache " + path;
              }
              return reference;
            }));
          },
          py::arg("path"), py::arg("width") = 1920, py::arg("height") = 1080,
          "Features from a .ftrs file alone (the frame itself unknown).")
      .def_readonly("width", &PreparedReference::width)
      .def_readonly("height", &PreparedReference::height)
      .def_property_readonly("keypoints", [](const PreparedReference& r) { return r.keypoints.size(); })
      .def(py::pickle(
          [](const PreparedReference& r) {
            std::vector<float> points;
            std::vector<int> octaves;
            for (const cv::KeyPoint& k : r.keypoints) {
              points.insert(points.end(), {k.pt.x, k.pt.y, k.size, k.angle, k.response});
              octaves.insert(octaves.end(), {k.octave, k.class_id});
            }
            const cv::Mat d = r.descriptors.isContinuous() ? r.descriptors : r.descriptors.clone();
            return py::make_tuple(r.width, r.height, py::bytes(reinterpret_cast<const char*>(r.plane.data()), r.plane.size()),
                                  points, octaves, d.rows, d.cols, d.type(),
                                  py::bytes(reinterpret_cast<const char*>(d.data), d.total() * d.elemSize()));
          },
          [](const py::tuple& t) {
            PreparedReference r;
            r.width = t[0].cast<int>();
            r.height = t[1].cast<int>();
            const std::string plane = t[2].cast<std::string>();
            r.plane.assign(plane.begin(), plane.end());
            const auto points = t[3].cast<std::vector<float>>();
            const auto octaves = t[4].cast<std::vector<int>>();
            for (size_t i = 0; i + 5 <= points.size() && 2 * (i / 5) + 1 < octaves.size(); i += 5) {
              r.keypoints.emplace_back(points[i], points[i + 1], points[i + 2], points[i + 3],
                                       points[i + 4], octaves[2 * (i / 5)], octaves[2 * (i / 5) + 1]);
            }
            const std::string data = t[8].cast<std::string>();
            r.descriptors.create(t[5].cast<int>(), t[6].cast<int>(), t[7].cast<int>());
            if (r.descriptors.total() * r.descriptors.elemSize() != data.size()) {
              throw std::runtime_error("damaged Reference state");
            }
            std::memcpy(r.descriptors.data, data.data(), data.size());
            return std::make_shared<PreparedReference>(std::move(r));
          }));

  py::class_<Result>(m, "Result", "What align() found.")
      .def_readonly("status", &Result::status, "'aligned' or 'not_found'")
      .def_readonly("score", &Result::score, "the best score, lower is better; 999999 when not found")
      .def_property_readonly("best_slot", [](const Result& r) { return r.best_slot() < 0 ? py::object(py::none()) : py::int_(r.best_slot()); })
      .def_property_readonly("slot_scores", [](const Result& r) { return r.report.scores; })
      .def_property_readonly("est_error_px", [](const Result& r) -> py::object {
            if (r.best_slot() < 0 || r.report.est_error_px.empty()) return py::none();
            return py::float_(r.report.est_error_px[r.best_slot()]);
          }, "with refine=True: the best slot's estimated largest corner error in reference pixels")
      .def_property_readonly("corners", [](const Result& r) -> py::object {
            const double* c = r.best_corners();
            if (c == nullptr) return py::none();
            py::array_t<double> out({4, 2});
            std::copy(c, c + 8, out.mutable_data());
            return out;
          }, "4 x 2: top-left, top-right, bottom-left, bottom-right in capture pixels (best slot)")
      .def_property_readonly("homography", [](const Result& r) -> py::object {
            const double* c = r.best_corners();
            if (c == nullptr) return py::none();
            double frame[8];
            frame_corners(r.width, r.height, frame);
            const cv::Mat h = cv::getPerspectiveTransform(corner_points(frame), corner_points(c));
            py::array_t<double> out({3, 3});
            std::memcpy(out.mutable_data(), h.ptr<double>(), 9 * sizeof(double));
            return out;
          }, "3 x 3, reference pixels to capture pixels (best slot)")
      .def_property_readonly("frames", [](const Result& r) {
            py::list frames;
            for (const auto& f : r.report.frames) frames.append(to_array(f.data(), r.width, r.height));
            return frames;
          }, "the result slots' frames, height x width uint8, as the result folder holds them")
      .def("save", &save, py::arg("folder"), "Writes the files framealign --result-folder writes.");

  m.def("read_capture", [](const std::string& path, int width, int height) {
          LumaFrame frame;
          const bool read = unlocked([&] { return read_input_frame(path, 0, 0, width, height, frame); });
          if (!read) throw std::runtime_error("Failed to read image file: " + path);
          return to_array(frame.plane.data(), frame.width, frame.height);
        },
        py::arg("path"), py::arg("width") = 1920, py::arg("height") = 1080,
        "A capture as framealign reads it: an image file as grey (PNG luma raised by 16), or the first "
        "frame of a raw YUV file of width x height.");

  m.def("align", [](const py::object& capture, const Reference& reference, bool advanced, bool refine,
                    const std::vector<int>& outputs, bool jpeg_output) {
          if (!reference) throw py::type_error("reference must be a framealign.Reference");
          return align(capture, reference, advanced, refine, outputs, jpeg_output);
        },
        py::arg("capture"), py::arg("reference"), py::arg("advanced") = false, py::arg("refine") = false,
        py::arg("outputs") = std::vector<int>{}, py::arg("jpeg_output") = false,
        "Finds the reference in a uint8 height x width capture; the GIL is released meanwhile.");

  m.def("warp_by_corners", [](const py::object& capture, const py::object& corners_value, int width,
                              int height, int variant) {
          const cv::Mat picture = grey_picture(capture, "capture");
          const auto corners = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(corners_value);
          if (!corners || corners.size() != 8) throw py::value_error("corners must hold 4 x 2 numbers");
          if (variant < 0 || variant > 4) throw py::value_error("variant must be 0 to 4");
          std::vector<unsigned char> frame(luma_plane_size(width, height));
          unlocked([&] {
            double content[20];
            align_by_pts(picture, width, height, 0, 0, corners.data(), frame.data(), content);
            apply_output_variant(frame.data(), width, height, variant);
            return 0;
          });
          return to_array(frame.data(), width, height);
        },
        py::arg("capture"), py::arg("corners"), py::arg("width") = 1920, py::arg("height") = 1080,
        py::arg("variant") = 0, "The capture warped by four corners onto a width x height frame, finished as output variant 0..4.");
}
