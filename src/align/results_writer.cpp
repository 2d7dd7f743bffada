// The result folder: what the extraction step after the alignment reads.
#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "align/align.h"
#include "align/alignment_driver.h"
#include "align/mapping.h"
#include "core/parallel_for.h"
#include "core/plane_io.h"

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

void write_result_folder(const std::string& folder, const cv::Mat& capture, const SlotSet& slots,
                         double best_score, bool jpeg_output) {
  auto write_slot = [&](int i) {
    const Slot& slot = slots[i];
    const int width = slot.frame.cols, height = slot.frame.rows;
    const std::string name = std::to_string(i);
    if (jpeg_output) {
      cv::Mat outlined;
      cv::cvtColor(capture, outlined, cv::COLOR_GRAY2BGR);
      cv::Point corner[4];
      for (int c = 0; c < 4; ++c) {
        corner[c] = cv::Point(cvRound(static_cast<float>(slot.corners[2 * c])),
                              cvRound(static_cast<float>(slot.corners[2 * c + 1])));
      }
      const cv::Scalar green(0, 255, 0);
      cv::line(outlined, corner[0], corner[1], green, 2, cv::LINE_8, 0);
      cv::line(outlined, corner[1], corner[3], green, 2, cv::LINE_8, 0);
      cv::line(outlined, corner[0], corner[2], green, 2, cv::LINE_8, 0);
      cv::line(outlined, corner[2], corner[3], green, 2, cv::LINE_8, 0);
      std::vector<unsigned char> jpeg;
      if (cv::imencode(".jpg", outlined, jpeg, kJpegQuality)) {
        write_result_file(folder + "/in_" + name + ".jpg", jpeg.data(), jpeg.size());
      }
      if (cv::imencode(".jpg", slot.frame, jpeg, kJpegQuality)) {
        write_result_file(folder + "/aligned_" + name + ".jpg", jpeg.data(), jpeg.size());
      }
    }
    write_result_file(folder + "/aligned_" + name + "__" + std::to_string(width) + "xx" +
                          std::to_string(height) + ".yuv",
                      slot.frame.data, luma_plane_size(width, height));
    const std::string corners = format_values(slot.corners.data(), 8, "\n");
    write_result_file(folder + "/pts_" + name + ".txt", corners.data(), corners.size());
    const std::string polygon = format_values(slot.polygon.data(), 20, "\n");
    write_result_file(folder + "/content_pts_" + name + ".txt", polygon.data(), polygon.size());
    if (slot.mapping) {
      const std::string text = mapping_text(*slot.mapping);
      write_result_file(folder + "/mapping_" + name + ".txt", text.data(), text.size());
    }
  };

  // A slot that cannot be written ends the run with the first failure's
  // message, once every slot thread has ended.
  parallel_for(0, slots.size(), write_slot, slots.size());

  char score[64];
  const int length = std::snprintf(score, sizeof(score), "%f\n", best_score);
  // Written last: its presence tells that the run finished.
  write_result_file(folder + "/best_result.txt", score, static_cast<std::size_t>(length));
}

void save_alignment_results(const char* result_folder, const unsigned char* input,
                            unsigned char* const* aligned, const double (*pts)[8],
                            const double (*content_pts)[20], int count, int width, int height,
                            int input_width, int input_height, double best_score,
                            bool jpeg_output) {
  const cv::Mat capture(input_height, input_width, CV_8UC1, const_cast<unsigned char*>(input));
  write_result_folder(
      result_folder, capture,
      SlotSet::from_rows(std::max(count, 0), aligned, pts, content_pts, width, height), best_score,
      jpeg_output);
}

}  // namespace framealign
