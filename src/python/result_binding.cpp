// framealign.AlignResult (also framealign.Result, its earlier name): what
// align() found, its mapping, its files.
#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <optional>

#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include "framealign/framealign.h"
#include "python/bindings.h"

namespace py = pybind11;
using framealign::AlignResult;

namespace {

// N x 2 points through `map` (one of the result's mappings), as N x 2.
py::array_t<double> map_points(const AlignResult& r, const py::array_t<double, py::array::c_style | py::array::forcecast>& points,
                               std::vector<cv::Point2d> (AlignResult::*map)(const std::vector<cv::Point2d>&) const) {
  if (points.ndim() != 2 || points.shape(1) != 2) throw py::value_error("points must be an N x 2 array");
  const std::size_t n = static_cast<std::size_t>(points.shape(0));
  std::vector<cv::Point2d> in;
  for (std::size_t i = 0; i < n; ++i) in.emplace_back(points.data()[2 * i], points.data()[2 * i + 1]);
  const std::vector<cv::Point2d> out = (r.*map)(in);
  py::array_t<double> result({static_cast<py::ssize_t>(n), py::ssize_t{2}});
  for (std::size_t i = 0; i < n; ++i) {
    result.mutable_data()[2 * i] = out[i].x;
    result.mutable_data()[2 * i + 1] = out[i].y;
  }
  return result;
}

std::string result_repr(const AlignResult& r) {
  std::string text = "<framealign.AlignResult status='" + r.status + "' score=" + py::repr(py::float_(r.score)).cast<std::string>();
  if (r.best_slot) text += " best_slot=" + std::to_string(*r.best_slot);
  if (r.est_error_px) text += " est_error_px=" + py::repr(py::float_(*r.est_error_px)).cast<std::string>();
  if (!r.path.empty()) text += " path='" + r.path + "'";
  if (r.mapping) text += std::string(" model='") + (r.mapping->has_lens() ? "lens" : "homography") + "'";
  return text + " frames=" + std::to_string(r.frames.size()) + ">";
}

std::optional<py::dict> mapping_dict(const AlignResult& r) {
  if (!r.mapping) return std::nullopt;
  const framealign::Mapping& m = *r.mapping;
  py::array_t<double> h({3, 3});
  std::memcpy(h.mutable_data(), m.homography.val, 9 * sizeof(double));
  py::dict d;
  d["model"] = m.has_lens() ? "lens" : "homography";
  d["homography"] = h;
  d["centre"] = py::make_tuple(m.centre.x, m.centre.y);
  d["scale"] = m.scale;
  d["k1"] = m.k1;
  d["k2"] = m.k2;
  return d;
}

}  // namespace

void bind_result(py::module_& m) {
  py::class_<AlignResult>(m, "AlignResult", "What align() found.")
      .def("__repr__", &result_repr)
      // Pickled by __reduce__, which every protocol honours, as the class
      // called with the result's bytes (AlignResult::to_bytes), which are
      // checked when read back: results travel back from Dask's workers.
      .def(py::init([](const py::bytes& state) { return AlignResult::from_bytes(state); }),
           py::arg("state"), "An AlignResult rebuilt from the state pickle saved of one.")
      .def("__reduce__",
           [](const py::object& self) {
             return py::make_tuple(
                 self.get_type(),
                 py::make_tuple(py::bytes(self.cast<const AlignResult&>().to_bytes())));
           })
      .def_readonly(
          "status", &AlignResult::status,
          "'aligned' or 'not_found' ('unrectified' with no_rectify, 'hint_unverified' with a hint)")
      .def_readonly(
          "reason", &AlignResult::reason,
          "why not found, a hint not verified or the quick path's answer refused; '' otherwise")
      .def_readonly("score", &AlignResult::score,
                    "the best score, lower is better; 999999 when not found")
      .def_readonly("best_slot", &AlignResult::best_slot, "the best attempt's result slot, or None")
      .def_readonly("slot_scores", &AlignResult::slot_scores,
                    "every successful attempt's score, by slot")
      .def_readonly("est_error_px", &AlignResult::est_error_px,
                    "with refine=True: the best slot's estimated largest error over the frame, "
                    "reference pixels")
      .def_readonly("path", &AlignResult::path,
                    "with fast=True: 'fast' or 'full'; with a hint: 'hint'")
      .def_property_readonly(
          "corners",
          [](const AlignResult& r) -> std::optional<py::array_t<double>> {
            if (!r.corners) return std::nullopt;
            py::array_t<double> out({4, 2});
            std::copy(r.corners->begin(), r.corners->end(), out.mutable_data());
            return out;
          },
          "4 x 2: top-left, top-right, bottom-left, bottom-right in capture pixels (best slot), or "
          "None")
      .def_property_readonly(
          "homography",
          [](const AlignResult& r) -> std::optional<py::array_t<double>> {
            if (!r.homography) return std::nullopt;
            py::array_t<double> out({3, 3});
            std::memcpy(out.mutable_data(), r.homography->val, 9 * sizeof(double));
            return out;
          },
          "3 x 3, reference pixels to capture pixels (best slot), or None")
      .def_property_readonly(
          "matches",
          [](const AlignResult& r) {
            py::array_t<double> out({static_cast<py::ssize_t>(r.matches.size()), py::ssize_t{3}});
            double* at = out.mutable_data();
            for (const framealign::MatchPoint& m : r.matches) {
              for (double v : {m.x, m.y, m.residual}) *at++ = v;
            }
            return out;
          },
          "N x 3: the matches that located the answer, x, y on the reference and the residual "
          "(reference pixels; NaN when not refined)")
      .def_property_readonly(
          "frames",
          [](const AlignResult& r) {
            std::vector<py::array_t<uint8_t>> frames;
            for (const cv::Mat& f : r.frames) frames.push_back(to_array(f));
            return frames;
          },
          "the result slots' frames, height x width uint8, as the result folder holds them")
      .def_property_readonly("mapping", &mapping_dict,
                             "the best slot's mapping from reference to capture as a dict (model "
                             "'lens' or 'homography', "
                             "homography, centre, scale, k1, k2; see mapping_i.txt), or None")
      .def(
          "to_capture",
          [](const AlignResult& r,
             const py::array_t<double, py::array::c_style | py::array::forcecast>& p) {
            return map_points(r, p, &AlignResult::to_capture);
          },
          py::arg("points"),
          "N x 2 reference points to capture points through the best slot's mapping")
      .def(
          "to_reference",
          [](const AlignResult& r,
             const py::array_t<double, py::array::c_style | py::array::forcecast>& p) {
            return map_points(r, p, &AlignResult::to_reference);
          },
          py::arg("points"),
          "N x 2 capture points to reference points (NaN where the lens cannot have imaged them)")
      .def(
          "save",
          [](const AlignResult& r, const std::filesystem::path& folder) {
            py::gil_scoped_release release;
            r.save(folder.string());
          },
          py::arg("folder"), "Writes the files framealign --result-folder writes.");
  m.attr("Result") = m.attr("AlignResult");
}

