#include "io/readers.h"

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "align/align.h"

namespace framealign {

namespace fs = std::filesystem;

std::string lower_extension(const std::string& path) {
  std::string ext = fs::path(path).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

namespace {

bool is_compressed_extension(const std::string& ext) {
  if (ext.size() == 4) {
    return ext == ".png" || ext == ".jpg" || ext == ".bmp" || ext == ".tif";
  }
  if (ext.size() == 5) {
    return ext == ".jpeg" || ext == ".tiff" || ext == ".webp";
  }
  return false;
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

}  // namespace

bool file_exists(const std::string& path) {
  const fs::file_type type = fs::status(path).type();
  return type != fs::file_type::not_found && type != fs::file_type::none;
}

bool is_input_file_compressed(const std::string& path) {
  return is_compressed_extension(lower_extension(path));
}

void get_resolution(const std::string& path, int& width, int& height) {
  if (!is_input_file_compressed(path)) return;
  const cv::Mat picture = cv::imread(path, cv::IMREAD_COLOR);
  if (picture.empty()) throw std::runtime_error("Failed to read image file: " + path);
  width = picture.cols;
  height = picture.rows;
}

void fix_png_luma_offset(cv::Mat& luma) {
  cv::add(luma, cv::Scalar(16), luma, luma != 0);
}

std::int64_t yuv420_frame_size(int width, int height) {
  const std::int64_t chroma =
      (static_cast<std::int64_t>(width) + 1) / 2 * ((static_cast<std::int64_t>(height) + 1) / 2);
  return static_cast<std::int64_t>(width) * height + 2 * chroma;
}

cv::Mat read_luma_picture(const std::string& path) {
  cv::Mat picture = cv::imread(path, cv::IMREAD_GRAYSCALE);
  if (!picture.empty() && lower_extension(path) == ".png") fix_png_luma_offset(picture);
  return picture;
}

void extract_frame_from_yuv420_file(std::string path, unsigned char* buffer, int width,
                                    int height, int frame_number) {
  const std::string ext = lower_extension(path);
  if (ext == ".yuv") {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    if (!file) throw std::runtime_error("Failed to open file: " + path);
    if (frame_number >= 0) {
      // Frame offsets exceed 2 GiB for long high-resolution files.
      std::int64_t offset = 0;
      const bool overflow = __builtin_mul_overflow(static_cast<std::int64_t>(frame_number),
                                                   yuv420_frame_size(width, height), &offset);
      if (overflow || fseeko(file.get(), static_cast<off_t>(offset), SEEK_SET) != 0) {
        throw std::runtime_error("Failed to seek to frame " + std::to_string(frame_number) +
                                 " in file: " + path);
      }
    }
    const std::size_t bytes = luma_plane_size(width, height);
    if (std::fread(buffer, 1, bytes, file.get()) < bytes) {
      throw std::runtime_error("Failed to read complete YUV420 data from file: " + path +
                               " with resolution " + std::to_string(width) + "x" +
                               std::to_string(height));
    }
    return;
  }

  if (!is_compressed_extension(ext)) {
    throw std::invalid_argument("Unsupported input file format (" + ext + ")");
  }
  const cv::Mat picture = read_luma_picture(path);
  if (picture.empty()) throw std::runtime_error("Failed to read image file: " + path);
  copy_plane(picture, buffer, width, height);
}

bool read_input_frame(const std::string& path, int input_width, int input_height, int width,
                      int height, LumaFrame& frame) {
  const bool sized = input_width != 0 && input_height != 0;
  if (is_input_file_compressed(path)) {
    const cv::Mat picture = read_luma_picture(path);
    if (picture.empty()) return false;
    frame.width = sized ? input_width : picture.cols;
    frame.height = sized ? input_height : picture.rows;
    frame.plane.resize(luma_plane_size(frame.width, frame.height));
    copy_plane(picture, frame.plane.data(), frame.width, frame.height);
    return true;
  }
  frame.width = sized ? input_width : width;
  frame.height = sized ? input_height : height;
  frame.plane.resize(luma_plane_size(frame.width, frame.height));
  // The input is always the first frame of its file.
  extract_frame_from_yuv420_file(path, frame.plane.data(), frame.width, frame.height, -1);
  return true;
}

}  // namespace framealign
