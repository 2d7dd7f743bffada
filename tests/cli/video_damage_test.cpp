// framealign-batch --video on what goes wrong around a filmed video: a
// damaged or cut file, files that are no video or no picture, a range the
// video does not have, a run killed and run again.
#include <sys/wait.h>

#include <fstream>
#include <random>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "cli/batch_fixture.h"
#include "cli/video_tables.h"

namespace {

const std::string kSim = FRAMEALIGN_SIM;

class DamagedVideo : public testing::Test {
 protected:
  // One clip of 15 frames in each codec: Motion JPEG (frames stand alone)
  // and H.264 (frames lean on the ones before).
  static void SetUpTestSuite() {
    for (const char* codec : {"mjpg", "h264"}) {
      const ToolRun sim = run_tool({"--video", "--out", codec, "--width", "640", "--height", "360",
                                    "--capture-width", "960", "--capture-height", "540", "--seconds", "0.5",
                                    "--drift", "4", "--seed", "4", "--reference-frames", "16", "--codec", codec},
                                   dir_, kSim);
      ASSERT_EQ(sim.exit_code, 0) << sim.err;
    }
  }
  static ToolRun batch(const std::string& video, const std::string& root, std::vector<std::string> more = {}) {
    std::vector<std::string> a = {"--video", video,   "--reference-file", "mjpg/reference.yuv", "--width", "640",
                                  "--height", "360", "--fast",           "--result-root",      root};
    a.insert(a.end(), more.begin(), more.end());
    return run_tool(a, dir_, kBatch);
  }
  static inline TempDir dir_;
};

// A file cut short or damaged in its middle: every frame the video
// announces has its row, those that cannot be decoded an error saying so;
// with the file mended, a rerun runs exactly those again.
TEST_F(DamagedVideo, EveryAnnouncedFrameHasItsRowAndErrorsAreRetried) {
  struct Case {
    const char* name;
    const char* intact;
    std::size_t from, to;  // the bytes lost (cut from `from` when `to` is 0)
  };
  const std::vector<unsigned char> mjpg = read_bytes(dir_.file("mjpg/capture.avi"));
  const std::vector<unsigned char> h264 = read_bytes(dir_.file("h264/capture.mp4"));
  const Case cases[] = {{"cut.avi", "mjpg/capture.avi", mjpg.size() / 2, 0},
                        {"hurt.mp4", "h264/capture.mp4", h264.size() / 2, h264.size() / 2 + 3000}};
  for (const Case& c : cases) {
    std::vector<unsigned char> bytes = read_bytes(dir_.file(c.intact));
    if (c.to == 0) bytes.resize(c.from);
    for (std::size_t i = c.from; i < c.to; ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    write_bytes(dir_.file(c.name), bytes);
    const std::string root = std::string("r_") + c.name;
    const ToolRun damaged = batch(c.name, root);
    EXPECT_EQ(damaged.exit_code, 1) << c.name << damaged.err;
    const std::string stem = std::string(c.name).substr(0, std::string(c.name).find('.'));
    const Table rows = read_table(dir_.file(root + "/summary.csv"), "id");
    ASSERT_EQ(rows.size(), 15u) << c.name;
    int errors = 0;
    for (const auto& [id, row] : rows) {
      if (row.at("status") != "error") continue;
      ++errors;
      EXPECT_NE(row.at("message").find("could not be decoded (the video announces 15 frames"), std::string::npos)
          << id << ": " << row.at("message");
    }
    EXPECT_GT(errors, 0) << c.name;
    EXPECT_EQ(damaged.err.find("[h264"), std::string::npos) << "the decoder's own lines: " << damaged.err;

    write_bytes(dir_.file(c.name), read_bytes(dir_.file(c.intact)));
    const ToolRun mended = batch(c.name, root);
    EXPECT_EQ(mended.exit_code, 0) << c.name << mended.err;
    EXPECT_NE(mended.err.find("15 of 15 captures recorded: 15 aligned, 0 not_found, 0 error; " +
                              std::to_string(errors) + " run now"),
              std::string::npos)
        << c.name << mended.err;
  }
}

// Each file or range that gives no frame to align: one error row under the
// video's id (or the capture's), saying why.
TEST_F(DamagedVideo, WhatIsNoVideoOrHasNoFrameIsSaidSo) {
  std::ofstream(dir_.file("words.mp4")) << std::string(4000, 'w');
  {
    cv::VideoWriter none(dir_.file("none.avi"), cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), 30,
                         cv::Size(960, 540), false);
  }
  cv::Mat grey(540, 960, CV_8UC1, cv::Scalar(90));
  cv::imwrite(dir_.file("still.png"), grey);
  struct Case {
    std::vector<std::string> args;
    std::string id, message;
  };
  const Case cases[] = {
      {{"--video", "words.mp4"}, "words", "Cannot read the capture video words.mp4"},
      {{"--video", "none.avi"}, "none", "holds no frame"},
      {{"--video", "still.png"}, "still", "still.png is a picture, not a video: give it as a capture"},
      {{"--video", "mjpg/capture.avi", "--frames", "100:200"}, "capture",
       "holds frames 0 to 14, none of --frames 100:200"},
      {{"--video", "mjpg/capture.avi", "--reference-frames", "0:20"}, "capture", "holds frames 0 to 15"},
      {{"mjpg/capture.avi"}, "capture", "mjpg/capture.avi is a video, not a picture: give it with --video"},
  };
  int n = 0;
  for (const Case& c : cases) {
    const std::string root = "said" + std::to_string(n++);
    std::vector<std::string> a = c.args;
    a.insert(a.end(), {"--reference-file", "mjpg/reference.yuv", "--width", "640", "--height", "360",
                       "--result-root", root});
    const ToolRun run = run_tool(a, dir_, kBatch);
    EXPECT_EQ(run.exit_code, 1) << c.args[1] << run.err;
    const Table rows = read_table(dir_.file(root + "/summary.csv"), "id");
    ASSERT_EQ(rows.size(), 1u) << c.args[1];
    EXPECT_EQ(rows.at(c.id).at("status"), "error") << c.args[1];
    EXPECT_NE(rows.at(c.id).at("message").find(c.message), std::string::npos) << rows.at(c.id).at("message");
  }
}

// Killed at seeded moments (any of its file operations) while it tracks a
// video, then run again: the same rows and folders as one run, the frames
// after the kill tracked on from the frames kept.
TEST_F(DamagedVideo, KilledAtAnyMomentEndsAsOneRun) {
  const std::vector<std::string> frames = {"--frames", "0:7", "--jobs", "1"};
  ASSERT_EQ(batch("mjpg/capture.avi", "whole", frames).exit_code, 0);
  std::mt19937 rng(2026);
  for (int trial = 0; trial < 4; ++trial) {
    const std::string root = "killed" + std::to_string(trial);
    const std::string at = "kill:" + std::to_string(std::uniform_int_distribution<int>(5, 60)(rng));
    setenv("FRAMEALIGN_BATCH_FAULT", at.c_str(), 1);
    const ToolRun killed = batch("mjpg/capture.avi", root, frames);
    unsetenv("FRAMEALIGN_BATCH_FAULT");
    EXPECT_EQ(killed.exit_code, 128 + SIGKILL) << at;
    ASSERT_EQ(batch("mjpg/capture.avi", root, frames).exit_code, 0) << at;
    EXPECT_EQ(summary(dir_.file(root + "/summary.csv")), summary(dir_.file("whole/summary.csv"))) << at;
    for (int i = 0; i <= 7; ++i) {
      const std::string id = "/capture_00000" + std::to_string(i);
      EXPECT_TRUE(read_folder(dir_.file(root + id)) == read_folder(dir_.file("whole" + id))) << at << id;
    }
  }
}

}  // namespace
