// What the module's bindings share: pictures, corners and output variants
// taken from Python and checked, and pictures given back.
#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "framealign/framealign.h"
#include "python/bindings.h"

namespace py = pybind11;

cv::Mat grey_picture(const py::object& value, const char* argument) {
  if (!py::isinstance<py::array>(value) || !py::array_t<uint8_t>::check_(value)) {
    throw py::type_error(std::string(argument) + " must be a numpy array of dtype uint8");
  }
  const auto array = py::reinterpret_borrow<py::array>(value);
  if (array.ndim() != 2) {
    throw py::value_error(std::string(argument) +
                          " must have two dimensions (height, width), not " +
                          std::to_string(array.ndim()));
  }
  if (!(array.flags() & py::array::c_style)) {
    throw py::value_error(std::string(argument) +
                          " must be C-contiguous (numpy.ascontiguousarray)");
  }
  if (array.shape(0) < 1 || array.shape(1) < 1)
    throw py::value_error(std::string(argument) + " is empty");
  const py::ssize_t most = std::numeric_limits<int>::max();
  if (array.shape(0) > most || array.shape(1) > most) {
    throw py::value_error(std::string(argument) + " is larger than the library can hold");
  }
  return cv::Mat(static_cast<int>(array.shape(0)), static_cast<int>(array.shape(1)), CV_8UC1,
                 const_cast<void*>(array.data()));
}

py::array_t<uint8_t> to_array(const cv::Mat& picture) {
  py::array_t<uint8_t> out({picture.rows, picture.cols});
  for (int r = 0; r < picture.rows; ++r) {
    std::memcpy(out.mutable_data(r, 0), picture.ptr(r), static_cast<size_t>(picture.cols));
  }
  return out;
}

std::array<double, 8> corner_values(const py::object& value) {
  const auto corners =
      py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(value);
  if (!corners || corners.size() != 8) throw py::value_error("corners must hold 4 x 2 numbers");
  std::array<double, 8> out;
  std::copy(corners.data(), corners.data() + 8, out.begin());
  return out;
}

// Output variants as framealign's --output takes them: a number 0..4, a
// preset name, or a comma-separated text of them, or a list of any of
// these; the program's message in a ValueError otherwise.
std::vector<int> output_list(const py::object& outputs) {
  std::vector<std::string> values;
  if (py::isinstance<py::str>(outputs) || py::isinstance<py::int_>(outputs)) {
    values.push_back(py::str(outputs));
  } else {
    for (const py::handle item : outputs) values.push_back(py::str(item));
  }
  std::vector<int> codes;
  try {
    for (const std::string& value : values) {
      for (int code : framealign::parse_outputs(value)) {
        if (std::find(codes.begin(), codes.end(), code) == codes.end()) codes.push_back(code);
      }
    }
  } catch (const framealign::Error& e) {
    throw py::value_error(e.what());
  }
  return codes;
}
