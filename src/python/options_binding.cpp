// framealign.AlignOptions: what align() is asked to do, the C++ record's
// fields under the same names.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include "framealign/framealign.h"
#include "python/bindings.h"

namespace py = pybind11;
using framealign::AlignOptions;

namespace {

py::object corners_array(const std::optional<std::array<double, 8>>& corners) {
  if (!corners) return py::none();
  py::array_t<double> out({4, 2});
  std::copy(corners->begin(), corners->end(), out.mutable_data());
  return std::move(out);
}

std::optional<std::array<double, 8>> optional_corners(const py::object& corners) {
  if (corners.is_none()) return std::nullopt;
  return corner_values(corners);
}

void set_corners(AlignOptions& o, const py::object& corners) {
  o.corners = optional_corners(corners);
}

void set_outputs(AlignOptions& o, const py::object& outputs) {
  const std::vector<int> variants = output_list(outputs);
  o.outputs = variants.empty() ? AlignOptions().outputs : variants;
}

std::string options_repr(const AlignOptions& o) {
  auto flag = [](const char* name, bool on) {
    return on ? std::string(" ") + name : std::string();
  };
  std::string outputs;
  for (int code : o.outputs) outputs += (outputs.empty() ? "" : ",") + std::to_string(code);
  std::string text = "<framealign.AlignOptions outputs=" + outputs + flag("advanced", o.advanced) +
                     flag("refine", o.refine) + flag("fast", o.fast) +
                     flag("jpeg_output", o.jpeg_output) + flag("no_rectify", o.no_rectify) +
                     flag("corners", o.corners.has_value()) + flag("hint", o.hint.has_value());
  if (o.crop_width > 0 || o.crop_height > 0) {
    text += " crop=" + std::to_string(o.crop_width) + "x" + std::to_string(o.crop_height);
  }
  if (!o.capture_cache.empty()) text += " capture_cache='" + o.capture_cache + "'";
  return text + ">";
}

}  // namespace

AlignOptions align_options(bool advanced, bool refine, bool fast, const py::object& outputs,
                           bool jpeg_output, const py::object& corners, int crop_width,
                           int crop_height, bool no_rectify,
                           const std::optional<std::filesystem::path>& capture_cache,
                           const py::object& hint) {
  AlignOptions o;
  o.advanced = advanced;
  o.refine = refine;
  o.fast = fast;
  set_outputs(o, outputs);
  o.jpeg_output = jpeg_output;
  set_corners(o, corners);
  o.crop_width = crop_width;
  o.crop_height = crop_height;
  o.no_rectify = no_rectify;
  if (capture_cache) o.capture_cache = capture_cache->string();
  o.hint = optional_corners(hint);
  return o;
}

bool is_default(const AlignOptions& o) {
  const AlignOptions d;
  return o.advanced == d.advanced && o.refine == d.refine && o.fast == d.fast &&
         o.outputs == d.outputs && o.jpeg_output == d.jpeg_output && o.corners == d.corners &&
         o.crop_width == d.crop_width && o.crop_height == d.crop_height &&
         o.no_rectify == d.no_rectify && o.capture_cache == d.capture_cache && o.hint == d.hint;
}

void bind_options(py::module_& m) {
  py::class_<AlignOptions>(m, "AlignOptions",
                           "What align() is asked to do; the defaults are framealign's.")
      .def(py::init(&align_options), py::arg("advanced") = false, py::arg("refine") = false,
           py::arg("fast") = false, py::arg("outputs") = py::list(), py::arg("jpeg_output") = false,
           py::arg("corners") = py::none(), py::arg("crop_width") = 0, py::arg("crop_height") = 0,
           py::arg("no_rectify") = false, py::arg("capture_cache") = std::nullopt,
           py::arg("hint") = py::none())
      .def("__repr__", &options_repr)
      .def_readwrite("advanced", &AlignOptions::advanced,
                     "plain, affine and mirrored trials first (steep, mirrored views)")
      .def_readwrite("refine", &AlignOptions::refine,
                     "refine each found frame below a pixel; the result gains est_error_px")
      .def_readwrite("fast", &AlignOptions::fast,
                     "a quick path first, taken only when verified (implies refine)")
      .def_property(
          "outputs", [](const AlignOptions& o) { return o.outputs; }, &set_outputs,
          "output variants with corners given: numbers 0..4 or presets, as framealign's --output")
      .def_readwrite("jpeg_output", &AlignOptions::jpeg_output,
                     "whether save() writes JPEG previews")
      .def_property(
          "corners", [](const AlignOptions& o) { return corners_array(o.corners); }, &set_corners,
          "4 x 2 corners given by hand (top-left, top-right, bottom-left, bottom-right), or None")
      .def_readwrite("crop_width", &AlignOptions::crop_width,
                     "with corners: pad to this crop's aspect; 0: none")
      .def_readwrite("crop_height", &AlignOptions::crop_height,
                     "with corners: pad to this crop's aspect; 0: none")
      .def_readwrite("no_rectify", &AlignOptions::no_rectify,
                     "the capture as it lies, no search and no warp")
      .def_property(
          "capture_cache",
          [](const AlignOptions& o) -> std::optional<std::string> {
            if (o.capture_cache.empty()) return std::nullopt;
            return o.capture_cache;
          },
          [](AlignOptions& o, const std::optional<std::filesystem::path>& path) {
            o.capture_cache = path ? path->string() : "";
          },
          "the capture's file path, when its features may be cached beside it; None: no cache")
      .def_property(
          "hint", [](const AlignOptions& o) { return corners_array(o.hint); },
          [](AlignOptions& o, const py::object& hint) { o.hint = optional_corners(hint); },
          "4 x 2 rough corners (as corners, a few percent off): matched there, refined and "
          "verified; None")
      .def("refines", &AlignOptions::refines, "whether found frames are refined (refine, or fast)");
}
