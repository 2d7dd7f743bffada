// Readers of the input picture and the reference frame into packed luma planes.
//
// Raw .yuv files are headerless sequences of planar 4:2:0 (I420) frames; only
// the Y plane of a frame is read. Image files (see is_input_file_compressed)
// are decoded by OpenCV as 8-bit grey.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace framealign {

// True when `path` names an existing file system entry of any type. Errors
// other than "not found" are thrown as std::filesystem::filesystem_error.
bool file_exists(const std::string& path);

// The extension of the last path component ("" for none), lower-cased.
std::string lower_extension(const std::string& path);

// True when the lower-cased extension is one OpenCV decodes for us: .png .jpg
// .bmp .tif .jpeg .tiff .webp.
bool is_input_file_compressed(const std::string& path);

// Size of a compressed picture (decoded in colour); leaves width and height
// alone for any other file. Throws std::runtime_error when decoding fails.
void get_resolution(const std::string& path, int& width, int& height);

// Raises every non-zero sample by 16 (saturating); zeros stay zero. Applied to
// PNG luma only.
void fix_png_luma_offset(cv::Mat& luma);

// Byte size of one 4:2:0 frame: W*H luma plus two ((W+1)/2)*((H+1)/2) chroma planes.
std::int64_t yuv420_frame_size(int width, int height);

// Decodes an image file as 8-bit grey; for a .png (any letter case) every
// non-zero sample is raised by 16. Empty when it cannot be decoded.
cv::Mat read_luma_picture(const std::string& path);

// Fills `buffer` with width*height luma bytes: from frame `frame_number` of a
// raw .yuv file (a negative number reads the first frame without seeking), or
// from a decoded image file. Throws std::runtime_error / std::invalid_argument
// with the message to show. A picture smaller than width x height is refused
// rather than read past its end.
void extract_frame_from_yuv420_file(std::string path, unsigned char* buffer, int width,
                                    int height, int frame_number);

// A luma plane with its size.
struct LumaFrame {
  std::vector<unsigned char> plane;
  int width = 0;
  int height = 0;
};

// The capture as the tool reads it: an image file decoded as grey (the PNG
// rule applied) at its own size, unless input_width and input_height are
// both given; any other file as the first frame of a raw 4:2:0 file of the
// input size, else of width x height. False when an image file cannot be
// decoded; other failures throw as extract_frame_from_yuv420_file does.
bool read_input_frame(const std::string& path, int input_width, int input_height, int width,
                      int height, LumaFrame& frame);

}  // namespace framealign
