// framealign-sim: synthetic captures with known corners.
#include <sched.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "sim/render.h"
#include "sim/sim_options.h"

namespace {

bool read_corners(const std::string& path, double* corners) {
  std::ifstream in(path);
  for (int i = 0; i < 8; ++i) {
    if (!(in >> corners[i])) return false;
  }
  return true;
}

bool write_file(const std::string& path, const void* data, size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  return static_cast<bool>(out);
}

bool write_file(const std::string& path, const std::string& text) {
  return write_file(path, text.data(), text.size());
}

// The grid.txt lines: 17 x 17 reference points over the frame, edges
// included, and where the capture shows them.
std::string grid_text(const Capture& capture, int width, int height) {
  constexpr int kSteps = 16;
  std::string text;
  char line[160];
  for (int i = 0; i <= kSteps; ++i) {
    for (int j = 0; j <= kSteps; ++j) {
      const cv::Point2d q(width * j / double(kSteps), height * i / double(kSteps));
      const cv::Point2d seen = capture.seen_at(q);
      std::snprintf(line, sizeof(line), "%.6f %.6f %.6f %.6f\n", q.x, q.y, seen.x, seen.y);
      text += line;
    }
  }
  return text;
}

int fail(const std::string& message) {
  std::cerr << "framealign-sim: " << message << "\n";
  return 2;
}

// Films the reference video and writes reference.yuv, the capture video
// and truth.csv; returns the exit status.
// The writer, opened while this thread may run on one CPU only: x264 sizes
// its pool of encoding threads by the CPUs it may use, and with more than
// one its output is not always the same from run to run on a busy machine.
// One thread gives the same clip for the same seed every time.
bool open_writer(cv::VideoWriter& writer, const std::string& video, bool h264, const SimOptions& options) {
  cpu_set_t all, one;
  const bool pinned = sched_getaffinity(0, sizeof(all), &all) == 0;
  if (pinned) {
    CPU_ZERO(&one);
    for (int c = 0; c < CPU_SETSIZE; ++c) {
      if (CPU_ISSET(c, &all)) {
        CPU_SET(c, &one);
        break;
      }
    }
    sched_setaffinity(0, sizeof(one), &one);
  }
  const int fourcc = h264 ? cv::VideoWriter::fourcc('a', 'v', 'c', '1') : cv::VideoWriter::fourcc('M', 'J', 'P', 'G');
  const bool opened = writer.open(video, cv::CAP_FFMPEG, fourcc, options.filming.camera_fps,
                                  cv::Size(options.capture.capture_width, options.capture.capture_height));
  if (pinned) sched_setaffinity(0, sizeof(all), &all);
  return opened;
}

int render_video(const SimOptions& options) {
  if (!options.reference.empty()) return fail("--video films its own reference video; --reference is for stills");
  const VideoSettings& f = options.filming;
  const std::vector<cv::Mat> reference = make_reference_video(options.width, options.height, options.capture.seed,
                                                              f.reference_frames, f.motion, f.content, f.letterbox);
  std::error_code ec;
  std::filesystem::create_directories(options.out_dir + (options.codec == "png" ? "/frames" : ""), ec);
  const std::string dir = options.out_dir + "/";
  std::string frames;
  for (const cv::Mat& frame : reference) {
    std::vector<unsigned char> plane(frame.datastart, frame.dataend);
    plane.resize(plane.size() * 3 / 2, 128);
    frames.append(plane.begin(), plane.end());
  }
  if (!write_file(dir + "reference.yuv", frames)) return fail("cannot write " + dir + "reference.yuv");
  const bool h264 = options.codec == "h264";
  const std::string video = dir + (h264 ? "capture.mp4" : "capture.avi");
  cv::VideoWriter writer;
  if (options.codec != "png" && !open_writer(writer, video, h264, options)) {
    return fail("cannot write " + video + " (OpenCV's FFmpeg writer)");
  }
  std::string truth = "capture_frame,ref_frame,ref_frames,mixed,x1,y1,x2,y2,x3,y3,x4,y4,tear_rows,occluded,in_view\n";
  bool written = true;
  film(reference, options.capture, options.filming, [&](const cv::Mat& picture, const FrameTruth& t) {
    char name[64], line[512];
    if (writer.isOpened()) {
      cv::Mat colour;
      cv::cvtColor(picture, colour, cv::COLOR_GRAY2BGR);
      writer.write(colour);
    } else {
      std::snprintf(name, sizeof(name), "frames/%06d.png", t.capture_frame);
      written = written && cv::imwrite(dir + name, picture);
    }
    std::string shown;
    for (int k : t.ref_frames) shown += (shown.empty() ? "" : ";") + std::to_string(k);
    const double* c = t.corners;
    std::snprintf(line, sizeof(line), "%d,%d,%s,%d,%f,%f,%f,%f,%f,%f,%f,%f,", t.capture_frame, t.ref_frame,
                  shown.c_str(), t.mixed() ? 1 : 0, c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]);
    truth += line;
    for (std::size_t k = 0; k < t.tear_rows.size(); ++k) {
      std::snprintf(line, sizeof(line), "%s%.2f", k ? ";" : "", t.tear_rows[k]);
      truth += line;
    }
    std::snprintf(line, sizeof(line), ",%.3f,%.3f\n", t.occluded, t.in_view);
    truth += line;
  });
  writer.release();
  if (!written || !write_file(dir + "truth.csv", truth)) return fail("cannot write the captured frames or truth.csv");
  std::cout << dir << "reference.yuv " << options.width << "x" << options.height << ", "
            << reference.size() << " frames\n"
            << (options.codec == "png" ? dir + "frames/" : video) << "\n" << dir << "truth.csv\n";
  return 0;
}

// Renders the capture and writes its three files; returns the exit status.
int render(const SimOptions& options) {
  if (options.video) return render_video(options);
  if (options.corner_files.size() == 2) {
    double truth[8], found[8];
    if (!read_corners(options.corner_files[0], truth)) return fail("cannot read " + options.corner_files[0]);
    if (!read_corners(options.corner_files[1], found)) return fail("cannot read " + options.corner_files[1]);
    const CornerError e = corner_error(truth, found, options.width, options.height);
    std::printf("mean corner error: %.3f px\nmax corner error: %.3f px\n", e.mean, e.max);
    return 0;
  }

  cv::Mat reference;
  if (options.reference.empty()) {
    reference = make_reference_frame(options.width, options.height, options.capture.seed);
  } else {
    const cv::Mat picture = cv::imread(options.reference, cv::IMREAD_GRAYSCALE);
    if (picture.empty()) return fail("cannot read picture " + options.reference);
    cv::resize(picture, reference, cv::Size(options.width, options.height), 0, 0, cv::INTER_AREA);
  }
  // A picture of its own whenever it differs: rotating into a header of
  // `reference` would turn the reference written as well.
  cv::Mat shown = reference;
  if (options.unrelated) {
    shown = make_reference_frame(options.width, options.height, options.capture.seed + 1000003);
  } else if (options.other_frame) {
    shown = make_reference_frame(options.width, options.height, options.capture.seed, options.capture.seed + 1);
  } else if (options.upside_down) {
    shown = cv::Mat();
    cv::rotate(reference, shown, cv::ROTATE_180);
  }
  const Capture capture = render_capture(shown, options.capture);

  std::error_code ec;
  std::filesystem::create_directories(options.out_dir, ec);
  const std::string dir = options.out_dir + "/";

  if (!write_yuv420(dir + "reference.yuv", reference)) {
    return fail("cannot write " + dir + "reference.yuv");
  }

  std::vector<unsigned char> encoded;
  const std::string capture_name = options.png ? "capture.png" : "capture.jpg";
  const std::vector<int> params =
      options.png ? std::vector<int>{} : std::vector<int>{cv::IMWRITE_JPEG_QUALITY, options.jpeg_quality};
  if (!cv::imencode(options.png ? ".png" : ".jpg", capture.picture, encoded, params) ||
      !write_file(dir + capture_name, encoded.data(), encoded.size())) {
    return fail("cannot write " + dir + capture_name);
  }

  char line[256];
  const int length = std::snprintf(line, sizeof(line), "%f %f %f %f %f %f %f %f\n",
                                   capture.corners[0], capture.corners[1], capture.corners[2],
                                   capture.corners[3], capture.corners[4], capture.corners[5],
                                   capture.corners[6], capture.corners[7]);
  if (!write_file(dir + "corners.txt", line, static_cast<size_t>(length))) {
    return fail("cannot write " + dir + "corners.txt");
  }
  if (!write_file(dir + "grid.txt", grid_text(capture, reference.cols, reference.rows))) {
    return fail("cannot write " + dir + "grid.txt");
  }
  std::cout << dir << "reference.yuv " << options.width << "x" << options.height << "\n"
            << dir << capture_name << " " << options.capture.capture_width << "x"
            << options.capture.capture_height << "\n"
            << dir << "corners.txt " << line;
  return 0;
}

}  // namespace

// The program's one edge: option errors exit 2 with CLI11's message, any
// other failure exits 2 with its own.
int main(int argc, char** argv) {
  SimOptions options;
  CLI::App app{"", "framealign-sim"};
  add_sim_options(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::cerr << "framealign-sim: " << e.what() << " (see --help)\n";
    return 2;
  }
  try {
    return render(options);
  } catch (const std::exception& e) {
    return fail(e.what());
  }
}
