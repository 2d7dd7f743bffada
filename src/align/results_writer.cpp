#include <cstdio>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/parallel_for.h"

namespace {

const std::vector<int> kJpegQuality = {cv::IMWRITE_JPEG_QUALITY, 85};

std::string format_values(const double* values, int count, const char* separator_last) {
  std::string text;
  char number[64];
  for (int i = 0; i < count; ++i) {
    std::snprintf(number, sizeof(number), "%f", values[i]);
    text += number;
    text += i + 1 < count ? " " : separator_last;
  }
  return text;
}

}  // namespace

void write_result_file(const std::string& path, const void* data, std::size_t size) {
  // Written under a temporary name and renamed into place, so that a reader
  // of the folder never sees half a file.
  const std::string temporary = path + "." + std::to_string(::getpid()) + ".part";
  std::FILE* file = std::fopen(temporary.c_str(), "wb");
  if (file == nullptr) throw std::runtime_error("Cannot write result file: " + path);
  const bool written = std::fwrite(data, 1, size, file) == size;
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed || std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    throw std::runtime_error("Cannot write result file: " + path);
  }
}

void save_alignment_results(const char* result_folder, const unsigned char* input,
                            unsigned char* const* aligned, const double (*pts)[8],
                            const double (*content_pts)[20], int count, int width, int height,
                            int input_width, int input_height, double best_score,
                            bool jpeg_output) {
  const std::string folder = result_folder;
  const cv::Mat input_plane(input_height, input_width, CV_8UC1, const_cast<unsigned char*>(input));
  const std::size_t frame_bytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);

  auto write_slot = [&](int i) {
    // Point rows follow i modulo half the slot count: the enhanced copies in
    // the back half share the corners of their originals.
    const int row = count <= 1 ? 0 : i % (count / 2);
    const std::string slot = std::to_string(i);
    if (jpeg_output) {
      cv::Mat outlined;
      cv::cvtColor(input_plane, outlined, cv::COLOR_GRAY2BGR);
      cv::Point corner[4];
      for (int c = 0; c < 4; ++c) {
        corner[c] = cv::Point(cvRound(static_cast<float>(pts[row][2 * c])),
                              cvRound(static_cast<float>(pts[row][2 * c + 1])));
      }
      const cv::Scalar green(0, 255, 0);
      cv::line(outlined, corner[0], corner[1], green, 2, cv::LINE_8, 0);
      cv::line(outlined, corner[1], corner[3], green, 2, cv::LINE_8, 0);
      cv::line(outlined, corner[0], corner[2], green, 2, cv::LINE_8, 0);
      cv::line(outlined, corner[2], corner[3], green, 2, cv::LINE_8, 0);
      std::vector<unsigned char> jpeg;
      if (cv::imencode(".jpg", outlined, jpeg, kJpegQuality)) {
        write_result_file(folder + "/in_" + slot + ".jpg", jpeg.data(), jpeg.size());
      }
      const cv::Mat frame(height, width, CV_8UC1, aligned[i]);
      if (cv::imencode(".jpg", frame, jpeg, kJpegQuality)) {
        write_result_file(folder + "/aligned_" + slot + ".jpg", jpeg.data(), jpeg.size());
      }
    }
    write_result_file(folder + "/aligned_" + slot + "__" + std::to_string(width) + "xx" +
                          std::to_string(height) + ".yuv",
                      aligned[i], frame_bytes);
    const std::string corners = format_values(pts[row], 8, "\n");
    write_result_file(folder + "/pts_" + slot + ".txt", corners.data(), corners.size());
    const std::string polygon = format_values(content_pts[row], 20, "\n");
    write_result_file(folder + "/content_pts_" + slot + ".txt", polygon.data(), polygon.size());
  };

  // A slot that cannot be written ends the run with the first failure's
  // message, rethrown here once every slot thread has ended rather than
  // escaping from several threads at once.
  std::mutex failure_lock;
  std::exception_ptr failure;
  parallel_for(
      0, count,
      [&](int i) {
        try {
          write_slot(i);
        } catch (...) {
          std::lock_guard<std::mutex> guard(failure_lock);
          if (!failure) failure = std::current_exception();
        }
      },
      count);
  if (failure) std::rethrow_exception(failure);

  char score[64];
  const int length = std::snprintf(score, sizeof(score), "%f\n", best_score);
  // Written last: its presence tells that the run finished.
  write_result_file(folder + "/best_result.txt", score, static_cast<std::size_t>(length));
}

void draw_matches_combined(const cv::Mat& image1, const cv::Mat& image2,
                           const std::vector<cv::DMatch>& matches,
                           const std::vector<cv::KeyPoint>& keypoints1,
                           const std::vector<cv::KeyPoint>& keypoints2,
                           const std::string& file_name) {
  auto colour_copy = [](const cv::Mat& image) {
    cv::Mat out;
    if (image.channels() > 1) {
      out = image.clone();
    } else {
      cv::cvtColor(image, out, cv::COLOR_GRAY2BGR);
    }
    return out;
  };
  const cv::Mat colour1 = colour_copy(image1);
  const cv::Mat colour2 = colour_copy(image2);

  // One scale for both, so that both fit an 800 x 600 box.
  const double s = std::min({600.0 / image1.rows, 800.0 / image1.cols, 600.0 / image2.rows,
                             800.0 / image2.cols});
  const int w1 = cvRound(image1.cols * s), h1 = cvRound(image1.rows * s);
  const int w2 = cvRound(image2.cols * s), h2 = cvRound(image2.rows * s);
  cv::Mat scaled1, scaled2;
  cv::resize(colour1, scaled1, cv::Size(w1, h1), 0, 0, cv::INTER_LINEAR);
  cv::resize(colour2, scaled2, cv::Size(w2, h2), 0, 0, cv::INTER_LINEAR);

  const int canvas_height = std::max(h1, h2);
  cv::Mat canvas(canvas_height, w1 + w2, CV_8UC3, cv::Scalar(0, 0, 0));
  const int off1 = (canvas_height - h1) / 2;
  const int off2 = (canvas_height - h2) / 2;
  scaled1.copyTo(canvas(cv::Rect(0, off1, w1, h1)));
  scaled2.copyTo(canvas(cv::Rect(w1, off2, w2, h2)));

  cv::RNG rng(12345);  // the same colours on every run
  for (const cv::DMatch& m : matches) {
    const cv::Point2f& p1 = keypoints1[m.queryIdx].pt;
    const cv::Point2f& p2 = keypoints2[m.trainIdx].pt;
    const cv::Point a(cvRound(p1.x * s), cvRound(p1.y * s + off1));
    const cv::Point b(cvRound(p2.x * s + w1), cvRound(p2.y * s + off2));
    const int red = rng.uniform(0, 255);
    const int green = rng.uniform(0, 255);
    const int blue = rng.uniform(0, 255);
    const cv::Scalar colour(blue, green, red);
    cv::circle(canvas, a, 4, colour, 2, cv::LINE_8, 0);
    cv::circle(canvas, b, 4, colour, 2, cv::LINE_8, 0);
    cv::line(canvas, a, b, colour, 1, cv::LINE_8, 0);
  }
  const std::string caption = "Matches: " + std::to_string(matches.size());
  cv::putText(canvas, caption, cv::Point(10, 30), cv::FONT_HERSHEY_SIMPLEX, 1.0,
              cv::Scalar(255, 255, 255), 2, cv::LINE_8);
  cv::putText(canvas, caption, cv::Point(10, 30), cv::FONT_HERSHEY_SIMPLEX, 1.0,
              cv::Scalar(0, 0, 0), 1, cv::LINE_8);
  if (!cv::imwrite(file_name, canvas, kJpegQuality)) std::printf("Failed to save image\n");
}
