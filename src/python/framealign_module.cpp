// The Python module `framealign`: the public C++ API on numpy arrays, with
// the same names (Reference, align, Result, read_capture, warp_by_corners).
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/eval.h>
#include <pybind11/stl/filesystem.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <limits>
#include <string>

#include "framealign/framealign.h"
#include "python/bindings.h"

namespace py = pybind11;
using framealign::AlignResult;
using framealign::Reference;

namespace {

// Pickled as its frame and its features, so that workers of another process
// need not compute them again.
py::tuple reference_state(const Reference& r) {
  std::vector<float> points;
  std::vector<int> octaves;
  for (const cv::KeyPoint& k : r.keypoints()) {
    points.insert(points.end(), {k.pt.x, k.pt.y, k.size, k.angle, k.response});
    octaves.insert(octaves.end(), {k.octave, k.class_id});
  }
  const cv::Mat d = r.descriptors().isContinuous() ? r.descriptors() : r.descriptors().clone();
  const cv::Mat& plane = r.picture();
  return py::make_tuple(r.width(), r.height(),
                        py::bytes(reinterpret_cast<const char*>(plane.data), plane.total()), points,
                        octaves, d.rows, d.cols, d.type(),
                        py::bytes(reinterpret_cast<const char*>(d.data), d.total() * d.elemSize()));
}

Reference reference_from_state(const py::tuple& t) {
  if (t.size() != 9) throw py::value_error("damaged Reference state");
  const int width = t[0].cast<int>(), height = t[1].cast<int>();
  const std::string plane = t[2].cast<std::string>();
  const auto points = t[3].cast<std::vector<float>>();
  const auto octaves = t[4].cast<std::vector<int>>();
  const std::string data = t[8].cast<std::string>();
  if (width < 1 || height < 1 || plane.size() != static_cast<size_t>(width) * height ||
      points.size() % 5 != 0 || octaves.size() != points.size() / 5 * 2) {
    throw py::value_error("damaged Reference state");
  }
  std::vector<cv::KeyPoint> keypoints;
  for (size_t i = 0; i < points.size(); i += 5) {
    keypoints.emplace_back(points[i], points[i + 1], points[i + 2], points[i + 3], points[i + 4],
                           octaves[2 * (i / 5)], octaves[2 * (i / 5) + 1]);
  }
  cv::Mat descriptors(t[5].cast<int>(), t[6].cast<int>(), t[7].cast<int>());
  if (descriptors.total() * descriptors.elemSize() != data.size()) {
    throw py::value_error("damaged Reference state");
  }
  std::memcpy(descriptors.data, data.data(), data.size());
  const cv::Mat picture(height, width, CV_8UC1, const_cast<char*>(plane.data()));
  return Reference::from_features(picture, std::move(keypoints), descriptors);
}

void bind_reference(py::module_& m) {
  py::class_<Reference>(m, "Reference",
      "A reference frame and its SIFT features, computed once for every align() against it.")
      .def_static("from_yuv", [](const std::filesystem::path& path, int width, int height, int frame) {
            py::gil_scoped_release release;
            return Reference::from_yuv(path.string(), width, height, frame);
          },
          py::arg("path"), py::arg("width") = 1920, py::arg("height") = 1080, py::arg("frame") = 0,
          "Frame `frame` of a raw YUV file; features from its .ftrs cache beside it, or computed and cached.")
      .def_static("from_array", [](const GreyArray& picture) {
            const cv::Mat plane = grey_picture(picture.value, "picture");
            py::gil_scoped_release release;
            return Reference::from_picture(plane);
          },
          py::arg("picture"), "A uint8 height x width array; features computed here.")
      .def_static("from_ftrs", [](const std::filesystem::path& path, int width, int height) {
            py::gil_scoped_release release;
            return Reference::from_ftrs(path.string(), width, height);
          },
          py::arg("path"), py::arg("width") = 1920, py::arg("height") = 1080,
          "Features from a .ftrs file alone (the frame itself unknown).")
      .def_property_readonly("width", &Reference::width, "the frame's width in pixels")
      .def_property_readonly("height", &Reference::height, "the frame's height in pixels")
      .def_property_readonly("keypoints", [](const Reference& r) { return r.keypoints().size(); },
                             "the number of SIFT keypoints")
      // Pickled by __reduce__, which every protocol honours (0 and 1 too), as
      // the class called with the state; the state is checked as a cache
      // file is.
      .def(py::init(&reference_from_state), py::arg("state"),
           "A Reference rebuilt from the state pickle saved of one.")
      .def("__reduce__", [](const py::object& self) {
        return py::make_tuple(self.get_type(), py::make_tuple(reference_state(self.cast<const Reference&>())));
      });
}

// Runs the alignment on a thread of its own while this one, without the
// GIL, looks every 100 ms for a signal Python has to handle (Ctrl-C): then
// the alignment is stopped before its next stage and the signal's exception
// (KeyboardInterrupt) raised.
AlignResult align_interruptibly(const cv::Mat& picture, const Reference& reference,
                                framealign::AlignOptions options) {
  std::atomic<bool> stop{false};
  options.stop = &stop;
  bool interrupted = false;
  std::future<AlignResult> running;
  {
    py::gil_scoped_release release;
    running = std::async(std::launch::async, [&] { return framealign::align(picture, reference, options); });
    while (running.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
      py::gil_scoped_acquire acquire;
      if (!interrupted && PyErr_CheckSignals() != 0) {
        interrupted = true;
        stop = true;
      }
    }
  }
  if (!interrupted) return running.get();
  try {
    running.get();
  } catch (const framealign::Cancelled&) {
  }
  throw py::error_already_set();
}

// framealign.align, taking every option of AlignOptions as a keyword, or
// an AlignOptions.
void def_align(py::module_& m) {
  m.def(
      "align",
      [](const GreyArray& capture, const Reference& reference, bool advanced, bool refine,
         const py::object& outputs, bool jpeg_output, bool fast, const py::object& corners,
         int crop_width, int crop_height, bool no_rectify,
         const std::optional<std::filesystem::path>& capture_cache, const py::object& hint,
         const std::optional<framealign::AlignOptions>& options) {
        const cv::Mat picture = grey_picture(capture.value, "capture");
        const framealign::AlignOptions given =
            align_options(advanced, refine, fast, outputs, jpeg_output, corners, crop_width,
                          crop_height, no_rectify, capture_cache, hint);
        if (options && !is_default(given)) {
          throw py::value_error(
              "give the options either as an AlignOptions or as keywords, not both");
        }
        return align_interruptibly(picture, reference, options ? *options : given);
      },
      py::arg("capture"), py::arg("reference"), py::arg("advanced") = false,
      py::arg("refine") = false, py::arg("outputs") = py::list(), py::arg("jpeg_output") = false,
      py::arg("fast") = false, py::arg("corners") = py::none(), py::arg("crop_width") = 0,
      py::arg("crop_height") = 0, py::arg("no_rectify") = false,
      py::arg("capture_cache") = std::nullopt, py::arg("hint") = py::none(),
      py::arg("options") = std::nullopt,
      "Finds the reference in a uint8 height x width capture, with the options as keywords or as "
      "an AlignOptions; the GIL is released meanwhile.");
}

}  // namespace

PYBIND11_MODULE(framealign, m) {
  m.doc() = "Brings camera captures of a displayed picture back into the reference frame's geometry.";
  m.attr("__version__") = framealign::version();
  py::register_exception<framealign::Error>(m, "Error", PyExc_RuntimeError);
  bind_reference(m);
  bind_options(m);
  bind_result(m);
  bind_video(m);

  m.def("read_capture", [](const std::filesystem::path& path, int width, int height) {
          cv::Mat picture;
          {
            py::gil_scoped_release release;
            picture = framealign::read_capture(path.string(), width, height);
          }
          return to_array(picture);
        },
        py::arg("path"), py::arg("width") = 1920, py::arg("height") = 1080,
        "A capture as framealign reads it: an image file as grey (PNG luma raised by 16), or the first "
        "frame of a raw YUV file of width x height.");

  def_align(m);

  m.def("warp_by_corners", [](const GreyArray& capture, const PointArray& corners, int width,
                              int height, int variant) {
          const cv::Mat picture = grey_picture(capture.value, "capture");
          const std::array<double, 8> values = corner_values(corners.value);
          cv::Mat frame;
          {
            py::gil_scoped_release release;
            frame = framealign::warp_by_corners(picture, values, width, height, variant);
          }
          return to_array(frame);
        },
        py::arg("capture"), py::arg("corners"), py::arg("width") = 1920, py::arg("height") = 1080,
        py::arg("variant") = 0, "The capture warped by four corners onto a width x height frame, finished as output variant 0..4.");

  // The module's functions as Python functions of this module, so that
  // pickle (and Dask's client.map) can name them: a compiled function's
  // own reduction refers to a capsule, which nothing can pickle.
  py::dict scope;
  py::exec(R"(
import ast, functools, inspect
def by_name(function):
    @functools.wraps(function)
    def named(*args, **kwargs):
        return function(*args, **kwargs)
    named.__module__ = "framealign"
    named.__qualname__ = function.__name__
    # The compiled function's signature, from the first line of its
    # docstring, for help() and for checks of the type stub.
    tree = ast.parse("def " + function.__doc__.splitlines()[0] + ": pass").body[0].args
    defaults = [None] * (len(tree.args) - len(tree.defaults)) + tree.defaults
    named.__signature__ = inspect.Signature([
        inspect.Parameter(a.arg, inspect.Parameter.POSITIONAL_OR_KEYWORD, annotation=ast.unparse(a.annotation),
                          default=inspect.Parameter.empty if d is None else ast.literal_eval(d))
        for a, d in zip(tree.args, defaults)])
    return named
)", scope);
  for (const char* name : {"read_capture", "align", "warp_by_corners", "align_video"}) m.attr(name) = scope["by_name"](m.attr(name));
}
