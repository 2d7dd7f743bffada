#include "ref/frames.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

cv::Mat fit_to_frame(const cv::Mat& picture, int width, int height, Fit fit, std::string& said) {
  const double sx = double(width) / picture.cols, sy = double(height) / picture.rows;
  const double scale = fit == Fit::LETTERBOX ? std::min(sx, sy) : std::max(sx, sy);
  const int w = std::max(1, static_cast<int>(std::lround(picture.cols * scale)));
  const int h = std::max(1, static_cast<int>(std::lround(picture.rows * scale)));
  cv::Mat scaled;
  cv::resize(picture, scaled, cv::Size(w, h), 0, 0, scale < 1.0 ? cv::INTER_AREA : cv::INTER_CUBIC);
  cv::Mat frame(height, width, picture.type(), cv::Scalar::all(0));
  // The overlap of the scaled picture and the frame, both centred.
  const int x = (width - w) / 2, y = (height - h) / 2;
  const cv::Rect in_frame = cv::Rect(x, y, w, h) & cv::Rect(0, 0, width, height);
  scaled(in_frame - cv::Point(x, y)).copyTo(frame(in_frame));
  char text[256];
  std::snprintf(text, sizeof(text), "picture %dx%d scaled by %.4g to %dx%d, ", picture.cols,
                picture.rows, scale, w, h);
  said = text;
  if (w == width && h == height) {
    said += "no bars, nothing cut";
  } else if (fit == Fit::LETTERBOX) {
    std::snprintf(text, sizeof(text), "black bars of %d px %s", w < width ? width - w : height - h,
                  w < width ? "left and right (split evenly)" : "above and below (split evenly)");
    said += text;
  } else {
    std::snprintf(text, sizeof(text), "%d px cut %s", w > width ? w - width : h - height,
                  w > width ? "from the left and right (split evenly)" : "from the top and bottom (split evenly)");
    said += text;
  }
  return frame;
}

std::vector<unsigned char> yuv_frame(const cv::Mat& bgr, bool chroma_444) {
  if (!chroma_444 && (bgr.cols % 2 != 0 || bgr.rows % 2 != 0)) {
    throw std::runtime_error("4:2:0 frames need an even width and height, not " +
                             std::to_string(bgr.cols) + "x" + std::to_string(bgr.rows));
  }
  cv::Mat ycrcb;
  cv::cvtColor(bgr, ycrcb, cv::COLOR_BGR2YCrCb);
  std::vector<cv::Mat> planes;
  cv::split(ycrcb, planes);
  if (!chroma_444) {
    for (int i = 1; i < 3; ++i) cv::resize(planes[i], planes[i], cv::Size(bgr.cols / 2, bgr.rows / 2), 0, 0, cv::INTER_AREA);
  }
  std::vector<unsigned char> bytes;
  for (int i : {0, 2, 1}) {  // Y, U (Cb), V (Cr)
    const cv::Mat plane = planes[i].isContinuous() ? planes[i] : planes[i].clone();
    bytes.insert(bytes.end(), plane.data, plane.data + plane.total());
  }
  return bytes;
}

cv::Mat read_luma(const std::string& path, int width, int height, std::size_t frame_bytes, long index) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + path);
  cv::Mat luma(height, width, CV_8UC1);
  in.seekg(static_cast<std::streamoff>(frame_bytes) * index);
  in.read(reinterpret_cast<char*>(luma.data), static_cast<std::streamsize>(luma.total()));
  if (!in || index < 0) {
    throw std::runtime_error(path + " holds no frame " + std::to_string(index) + " of " +
                             std::to_string(width) + "x" + std::to_string(height));
  }
  return luma;
}

OutputFile::OutputFile(const std::string& path, bool replace)
    : path_(path), partial_(path + ".partial-" + std::to_string(::getpid())) {
  if (!replace && ::access(path.c_str(), F_OK) == 0) {
    throw std::runtime_error(path + " exists; give --force to replace it");
  }
  fd_ = ::open(partial_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd_ < 0) throw std::runtime_error("cannot write " + path_ + ": " + std::strerror(errno));
}

OutputFile::~OutputFile() {
  if (fd_ >= 0) {
    ::close(fd_);
    ::unlink(partial_.c_str());
  }
}

void OutputFile::write(const std::vector<unsigned char>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("cannot write " + path_ + ": " + std::strerror(errno));
    done += static_cast<std::size_t>(n);
  }
}

void OutputFile::finish() {
  if (::fsync(fd_) != 0 || ::close(fd_) != 0) {
    fd_ = -1;
    ::unlink(partial_.c_str());
    throw std::runtime_error("cannot write " + path_ + ": " + std::strerror(errno));
  }
  fd_ = -1;
  if (::rename(partial_.c_str(), path_.c_str()) != 0) {
    ::unlink(partial_.c_str());
    throw std::runtime_error("cannot write " + path_ + ": " + std::strerror(errno));
  }
}
