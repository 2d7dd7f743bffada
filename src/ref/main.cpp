// framealign-ref: reference files from pictures and videos, and pictures
// from reference and result files.
#include <cstdio>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "framealign/framealign.h"
#include "ref/frames.h"

namespace {

struct Options {
  std::string input, out;
  int width = 0, height = 0;
  Fit fit = Fit::LETTERBOX;
  std::string frames;  // video: A:B
  std::string format;  // view: luma, 420 or 444
  long frame = 0;      // view
  bool force = false;
};

cv::Mat fitted(const cv::Mat& bgr, const Options& o, std::string& said) {
  if (o.width == 0 && o.height == 0) {
    said = "picture " + std::to_string(bgr.cols) + "x" + std::to_string(bgr.rows) + " as it is";
    return bgr;
  }
  if (o.width <= 0 || o.height <= 0) throw std::runtime_error("give both --width and --height, or neither");
  return fit_to_frame(bgr, o.width, o.height, o.fit, said);
}

int picture(const Options& o) {
  const cv::Mat bgr = cv::imread(o.input, cv::IMREAD_COLOR);
  if (bgr.empty()) throw std::runtime_error("cannot read picture " + o.input);
  std::string said;
  const cv::Mat frame = fitted(bgr, o, said);
  OutputFile out(o.out, o.force);
  out.write(yuv_frame(frame, true));
  out.finish();
  std::printf("%s: one %dx%d frame, YUV 4:4:4 (%s)\n", o.out.c_str(), frame.cols, frame.rows, said.c_str());
  return 0;
}

int video(const Options& o) {
  long first = 0, last = -1;
  if (!o.frames.empty()) {
    char colon = 0, rest = 0;
    if (std::sscanf(o.frames.c_str(), "%ld%c%ld%c", &first, &colon, &last, &rest) != 3 || colon != ':' ||
        first < 0 || last < first) {
      throw std::runtime_error("--frames must be A:B with 0 <= A <= B, got '" + o.frames + "'");
    }
  }
  cv::VideoCapture capture(o.input, cv::CAP_FFMPEG);
  if (!capture.isOpened()) throw std::runtime_error("cannot read video " + o.input);
  OutputFile out(o.out, o.force);
  std::string said;
  cv::Mat bgr, frame;
  long index = 0, written = 0;
  for (; (last < 0 || index <= last) && capture.read(bgr); ++index) {
    if (index < first) continue;
    frame = fitted(bgr, o, said);
    out.write(yuv_frame(frame, false));
    ++written;
  }
  if (written == 0) throw std::runtime_error(o.input + " has no frame " + std::to_string(first));
  out.finish();
  std::printf("%s: %ld frames (%ld to %ld of the video), %dx%d, YUV 4:2:0 (%s)\n", o.out.c_str(), written,
              first, first + written - 1, frame.cols, frame.rows, said.c_str());
  return 0;
}

int view(Options o) {
  // A result frame's name (aligned_i__WxxH.yuv) says its size and that it
  // holds luma only.
  const std::string name = o.input.substr(o.input.find_last_of('/') + 1);
  const std::size_t at = name.rfind("__");
  int w = 0, h = 0, end = 0;
  const bool result = at != std::string::npos &&
                      std::sscanf(name.c_str() + at, "__%dxx%d.yuv%n", &w, &h, &end) == 2 &&
                      at + static_cast<std::size_t>(end) == name.size() && w > 0 && h > 0;
  if (result && o.width == 0) o.width = w, o.height = h;
  if (o.format.empty()) o.format = result ? "luma" : "420";
  if (o.width <= 0 || o.height <= 0) throw std::runtime_error("give --width and --height of the frames");
  const std::size_t plane = static_cast<std::size_t>(o.width) * o.height;
  const std::size_t bytes = o.format == "luma" ? plane : o.format == "444" ? 3 * plane : plane * 3 / 2;
  const cv::Mat luma = read_luma(o.input, o.width, o.height, bytes, o.frame);
  std::vector<unsigned char> png;
  if (!cv::imencode(".png", luma, png)) throw std::runtime_error("cannot encode " + o.out);
  OutputFile out(o.out, o.force);
  out.write(png);
  out.finish();
  std::printf("%s: frame %ld of %s, its luma, %dx%d\n", o.out.c_str(), o.frame, o.input.c_str(), o.width,
              o.height);
  return 0;
}

void common(CLI::App* command, Options& o, bool sized) {
  command->add_option("input", o.input, "The file to read")->required();
  command->add_option("--out", o.out, "The file to write (an existing one only with --force)")->required();
  command->add_flag("--force", o.force, "Replace an existing --out file");
  if (!sized) return;
  command->add_option("--width", o.width, "Frame width (default: the picture's own)")->check(CLI::Range(2, 16384));
  command->add_option("--height", o.height, "Frame height (default: the picture's own)")->check(CLI::Range(2, 16384));
  command->add_option("--fit", o.fit, "letterbox: the whole picture, black bars where the aspect differs; "
                                      "crop: the frame filled, the overflow cut (never stretched)")
      ->transform(CLI::CheckedTransformer(std::map<std::string, Fit>{{"letterbox", Fit::LETTERBOX}, {"crop", Fit::CROP}}));
}

}  // namespace

// The program's one edge: option errors exit 2 with CLI11's message, any
// other failure exits 1 with its own.
int main(int argc, char** argv) {
  CLI::App app{"Makes framealign's reference files and shows frames as pictures.", "framealign-ref"};
  app.require_subcommand(1);
  app.set_version_flag("--version", framealign::version());
  app.footer("Exit status: 0 done, 1 a file could not be read or written, 2 a bad command line.");
  Options o;
  CLI::App* pic = app.add_subcommand("picture", "A picture (PNG, JPEG, ...) as one YUV 4:4:4 reference frame");
  common(pic, o, true);
  CLI::App* vid = app.add_subcommand("video", "A video's frames as a YUV 4:2:0 reference file");
  common(vid, o, true);
  vid->add_option("--frames", o.frames, "A:B, frames A to B of the video, both included (default: all)");
  CLI::App* look = app.add_subcommand("view", "One frame of a .yuv reference or result as a grey PNG (its luma)");
  common(look, o, false);
  look->add_option("--width", o.width, "Frame width (default: from a result's name, aligned_i__WxxH.yuv)");
  look->add_option("--height", o.height, "Frame height");
  look->add_option("--format", o.format, "luma (a result), 420 or 444 (default: luma for results, else 420)")
      ->check(CLI::IsMember({"luma", "420", "444"}));
  look->add_option("--frame", o.frame, "Which frame, from 0")->check(CLI::NonNegativeNumber);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "framealign-ref: " << e.what() << " (see --help)\n";
    return 2;
  }
  try {
    if (pic->parsed()) return picture(o);
    if (vid->parsed()) return video(o);
    return view(o);
  } catch (const std::exception& e) {
    std::cerr << "framealign-ref: " << e.what() << "\n";
    return 1;
  }
}
