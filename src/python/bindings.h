// What the module's source files share.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <opencv2/core.hpp>

// A picture as a height x width uint8 array sharing nothing with it.
pybind11::array_t<uint8_t> to_array(const cv::Mat& picture);

// framealign.Result.
void bind_result(pybind11::module_& m);

// The variants of align()'s `outputs`, validated as framealign's --output.
std::vector<int> output_list(const pybind11::object& outputs);
