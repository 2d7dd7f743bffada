// What the module's source files share.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <array>
#include <filesystem>
#include <optional>

#include <opencv2/core.hpp>

#include "framealign/framealign.h"

// Arguments taken as any Python object and checked by the functions that
// take them, with their own messages, but shown in signatures, help() and
// the type stub as the arrays they must be.
struct GreyArray {
  pybind11::object value;  // numpy.ndarray[numpy.uint8], height x width
};
struct PointArray {
  pybind11::object value;  // numpy.ndarray[numpy.float64]
};

namespace pybind11::detail {
template <>
struct type_caster<GreyArray> {
  PYBIND11_TYPE_CASTER(GreyArray, const_name("numpy.ndarray[numpy.uint8]"));
  bool load(handle source, bool) {
    value.value = reinterpret_borrow<object>(source);
    return true;
  }
  static handle cast(const GreyArray& a, return_value_policy, handle) { return a.value.inc_ref(); }
};
template <>
struct type_caster<PointArray> {
  PYBIND11_TYPE_CASTER(PointArray, const_name("numpy.ndarray[numpy.float64]"));
  bool load(handle source, bool) {
    value.value = reinterpret_borrow<object>(source);
    return true;
  }
  static handle cast(const PointArray& a, return_value_policy, handle) { return a.value.inc_ref(); }
};
}  // namespace pybind11::detail

// A picture as a height x width uint8 array sharing nothing with it.
pybind11::array_t<uint8_t> to_array(const cv::Mat& picture);

// framealign.AlignResult (also named Result, its earlier name).
void bind_result(pybind11::module_& m);

// framealign.AlignOptions.
void bind_options(pybind11::module_& m);

// AlignOptions from align()'s keywords, checked as the record's setters
// check them; and whether options are all at their defaults.
framealign::AlignOptions align_options(bool advanced, bool refine, bool fast,
                                       const pybind11::object& outputs, bool jpeg_output,
                                       const pybind11::object& corners, int crop_width,
                                       int crop_height, bool no_rectify,
                                       const std::optional<std::filesystem::path>& capture_cache,
                                       const pybind11::object& hint);
bool is_default(const framealign::AlignOptions& options);

// An 8-bit grey picture from Python, checked: uint8, two dimensions, rows
// packed one after another (C order). Shares the array's memory.
cv::Mat grey_picture(const pybind11::object& value, const char* argument);

// Four corners (any 8 numbers, as 4 x 2) from Python, checked.
std::array<double, 8> corner_values(const pybind11::object& value);

// framealign.align_video, VideoFrames and VideoFrame.
void bind_video(pybind11::module_& m);

// The variants of align()'s `outputs`, validated as framealign's --output.
std::vector<int> output_list(const pybind11::object& outputs);
