#include "sim/sim_options.h"

#include <cstdint>
#include <string>

#include "framealign/framealign.h"

namespace {

constexpr char kDescription[] =
    "Renders a synthetic camera capture of a reference frame and writes, into --out:\n"
    "  reference.yuv  the reference, raw YUV 4:2:0 (grey chroma)\n"
    "  capture.jpg    the capture (capture.png with --png)\n"
    "  corners.txt    the true corners: x y of the reference's top-left, top-right,\n"
    "                 bottom-left, bottom-right in the capture (before --mirror)\n"
    "  grid.txt       the truth over the whole frame: one line 'x y X Y' per point of a\n"
    "                 17 x 17 grid, reference point (x, y) seen at capture point (X, Y),\n"
    "                 lens distortion included (before --mirror)";

template <typename T>
void ranged(CLI::App& app, const char* name, T& field, T lo, T hi, const std::string& help) {
  app.add_option(name, field, help)->check(CLI::Range(lo, hi))->capture_default_str();
}

}  // namespace

void add_sim_options(CLI::App& app, SimOptions& o) {
  app.description(kDescription);
  CaptureSettings& c = o.capture;
  app.add_option("--out", o.out_dir, "Folder for the files, created if missing")->capture_default_str();
  app.add_option("--reference", o.reference,
                 "Picture to show, resized to the reference size (default: a built-in frame)");
  ranged(app, "--width", o.width, 16, 8192, "Reference width");
  ranged(app, "--height", o.height, 16, 8192, "Reference height");
  ranged(app, "--capture-width", c.capture_width, 64, 4032, "Capture width");
  ranged(app, "--capture-height", c.capture_height, 64, 3024, "Capture height");
  ranged<std::uint64_t>(app, "--seed", c.seed, 0, INT64_MAX, "Seed of every random choice");
  ranged(app, "--screen-scale", c.screen_scale, 0.1, 1.0, "Screen width as a share of the capture width");
  ranged(app, "--perspective", c.perspective, 0.0, 0.3,
         "Largest corner displacement as a share of the screen");
  ranged(app, "--blur", c.blur, 0.0, 20.0, "Blur sigma in capture pixels");
  ranged(app, "--noise", c.noise, 0.0, 50.0, "Sensor noise sigma in grey levels");
  ranged(app, "--gamma", c.gamma, 0.2, 5.0, "Gamma");
  ranged(app, "--brightness", c.brightness, 0.1, 5.0, "Brightness gain");
  ranged(app, "--vignette", c.vignette, 0.0, 1.0, "Darkening towards the corners");
  ranged(app, "--moire", c.moire, 0.0, 1.0, "Moire fringe amplitude over the screen");
  ranged(app, "--barrel", c.barrel, 0.0, 0.3,
         "Barrel distortion of the lens (0.02 mild to 0.08 strong; see grid.txt)");
  ranged(app, "--bezel-grey", c.bezel_grey, 0, 255, "Grey of the screen's bezel");
  app.add_flag("--no-bezel", [&c](std::int64_t) { c.bezel = false; },
               "No bezel: the frame's content meets the room behind the screen");
  ranged(app, "--bars", c.bars, 0, 4096, "Bezel-grey columns left and right of the frame (pillarbox), reference pixels");
  ranged(app, "--jpeg-quality", o.jpeg_quality, 1, 100, "JPEG quality");
  app.add_flag("--png", o.png, "Write the capture as PNG");
  app.add_flag("--mirror", c.mirror, "Mirror the capture left-right");
  app.add_flag("--unrelated", o.unrelated, "Show another built-in frame than the reference written");
  app.add_flag("--other-frame", o.other_frame,
               "Show the reference's background with other shapes on it, as a later frame of the "
               "same video");
  app.add_flag("--upside-down", o.upside_down, "Show the reference turned by 180 degrees");
  app.add_option("--corner-error", o.corner_files,
                 "TRUTH FOUND: only compare two corner files (pts format) and print the mean and "
                 "largest error in reference pixels (--width, --height)")
      ->expected(2);
  VideoSettings& v = o.filming;
  app.add_flag("--video", o.video,
               "Film a screen playing a reference video (a slow pan, --reference-frames frames) and write "
               "reference.yuv (every frame), the capture video and truth.csv (see the README)");
  ranged(app, "--reference-frames", v.reference_frames, 2, 10000, "--video: frames of the reference video");
  ranged(app, "--motion", v.motion, 0.0, 100.0, "--video: the reference video's pan, pixels per frame");
  ranged(app, "--display-fps", v.display_fps, 1.0, 240.0, "--video: the screen's frame rate");
  ranged(app, "--camera-fps", v.camera_fps, 1.0, 240.0, "--video: the camera's frame rate");
  ranged(app, "--seconds", v.seconds, 0.05, 600.0, "--video: length of the capture video");
  ranged(app, "--phase", v.phase, -10.0, 10.0, "--video: when reference frame 0 starts, seconds after the first capture");
  ranged(app, "--readout", v.readout, 0.0, 1.0, "--video: rolling shutter, first to last row, share of a camera frame");
  ranged(app, "--exposure", v.exposure, 0.0, 1.0, "--video: each row's exposure, share of a camera frame");
  ranged(app, "--drift", v.drift, 0.0, 200.0, "--video: hand-held wander of the camera, capture pixels");
  ranged(app, "--pause-at", v.pause_at, -1.0, 600.0, "--video: the player pauses at this second (-1: never)");
  ranged(app, "--pause-for", v.pause_for, 0.0, 600.0, "--video: for this many seconds");
  ranged(app, "--seek-at", v.seek_at, -1.0, 600.0, "--video: the player seeks at this second (-1: never)");
  ranged(app, "--seek-to", v.seek_to, 0, 100000, "--video: to this reference frame");
  app.add_option("--content", v.content,
                 "--video: pan (the whole picture pans by --motion) or small (a still picture, a cursor moves)")
      ->check(CLI::IsMember({"pan", "small"}))->capture_default_str();
  ranged(app, "--letterbox", v.letterbox, 0, 4096, "--video: dark rows at the top and bottom of every reference frame");
  app.add_flag("--hand", v.hand, "--video: a hand passes in front of the screen (truth: occluded)");
  ranged(app, "--pan", v.pan, -10000.0, 10000.0,
         "--video: the camera turns, capture pixels per second to the right (truth: in_view)");
  ranged(app, "--exposure-drift", v.exposure_drift, 0.0, 0.9, "--video: auto exposure, the gain wanders by this share");
  ranged(app, "--pwm", v.pwm_hz, 0.0, 10000.0, "--video: PWM-dimmed backlight at this frequency (Hz); 0: steady");
  app.add_option("--codec", o.codec, "--video: h264 (capture.mp4), mjpg (capture.avi) or png (frames/NNNNNN.png)")
      ->check(CLI::IsMember({"h264", "mjpg", "png"}))->capture_default_str();
  app.set_version_flag("--version", framealign::version());
  app.footer("Exit status: 0 the files were written (or the corners compared), 2 a bad option or a\n"
             "file that cannot be read or written.");
}
