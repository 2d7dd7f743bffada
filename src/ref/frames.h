// What framealign-ref does to pictures: fitting them to a frame size,
// turning them into the raw YUV planes framealign reads, and back.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

// How a picture of another aspect is fitted to the frame: whole, with black
// bars (letterbox), or filling the frame with its overflow cut off (crop).
enum class Fit { LETTERBOX, CROP };

// `picture` (BGR) scaled to width x height without stretching. `said`
// receives one plain sentence of what was done.
cv::Mat fit_to_frame(const cv::Mat& picture, int width, int height, Fit fit, std::string& said);

// One frame as raw YUV, full-range BT.601 (the luma is the grey value
// framealign reads captures as): 4:4:4 (three full planes) or 4:2:0 (the
// chroma planes at half size in both directions; even sizes only).
std::vector<unsigned char> yuv_frame(const cv::Mat& bgr, bool chroma_444);

// The luma of frame `index` of a raw file of frames of `frame_bytes` bytes,
// each beginning with a width x height luma plane. Throws
// std::runtime_error when the file holds no such frame.
cv::Mat read_luma(const std::string& path, int width, int height, std::size_t frame_bytes, long index);

// Writes `bytes` to `path` (or adds them to a file begun with `append`)
// through a temporary file renamed into place, flushed to the disk first; an
// existing file is replaced only with `replace`. Throws std::runtime_error
// naming the file.
class OutputFile {
 public:
  OutputFile(const std::string& path, bool replace);
  ~OutputFile();
  void write(const std::vector<unsigned char>& bytes);
  void finish();  // renames into place

 private:
  std::string path_, partial_;
  int fd_ = -1;
};
