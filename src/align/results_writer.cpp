// The result folder: what the extraction step after the alignment reads.
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/parallel_for.h"

namespace framealign {

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

void write_result_file(const std::string& path, const void* data, std::size_t size) {
  // A reader of the folder never sees half a file.
  if (!replace_file(path, data, size)) {
    throw std::runtime_error("Cannot write result file: " + path);
  }
}

}  // namespace

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
  // message, once every slot thread has ended.
  parallel_for(0, count, write_slot, count);

  char score[64];
  const int length = std::snprintf(score, sizeof(score), "%f\n", best_score);
  // Written last: its presence tells that the run finished.
  write_result_file(folder + "/best_result.txt", score, static_cast<std::size_t>(length));
}

}  // namespace framealign
