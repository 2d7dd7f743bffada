// Filmed screens as people film them, a short simulated clip of each kind
// of trouble: every frame the batch calls aligned without a doubt is right
// (the frame shown, its corners within a pixel and a half), and what goes
// wrong is said (occluded, out of view) rather than passed on.
#include <gtest/gtest.h>

#include "cli/captures.h"
#include "cli/run_tool.h"
#include "cli/video_tables.h"
#include "sim/render.h"

namespace {

struct Kind {
  const char* name;
  std::vector<std::string> filming;
  bool every_frame_found;  // nothing hides the screen: every frame aligned against a frame shown
};

std::array<double, 8> corners_of(const std::map<std::string, std::string>& row) {
  std::array<double, 8> c{};
  const char* names[8] = {"x1", "y1", "x2", "y2", "x3", "y3", "x4", "y4"};
  for (int i = 0; i < 8; ++i) c[i] = std::stod(row.at(names[i]));
  return c;
}

TEST(VideoKinds, NoFrameIsSilentlyWrong) {
  const std::vector<Kind> kinds = {
      {"no bezel", {"--no-bezel", "--seed", "31"}, true},
      {"pillarbox and letterbox",
       {"--bars", "60", "--bezel-grey", "16", "--letterbox", "20", "--seed", "32"},
       true},
      {"a cursor on a still picture",
       {"--content", "small", "--motion", "0", "--seed", "33"},
       true},
      {"paused, then sought",
       {"--pause-at", "0.1", "--pause-for", "0.15", "--seek-at", "0.3", "--seek-to", "30", "--seed",
        "34"},
       true},
      {"a hand in front", {"--hand", "--seed", "35"}, false},
      {"a pan out of view", {"--pan", "600", "--seed", "36"}, false},
  };
  TempDir dir;
  for (const Kind& kind : kinds) {
    std::vector<std::string> sim = {
        "--video", "--out",           "clip", "--width",          "640",  "--height",
        "360",     "--capture-width", "960",  "--capture-height", "540",  "--seconds",
        "0.5",     "--drift",         "4",    "--codec",          "mjpg", "--reference-frames",
        "40"};
    sim.insert(sim.end(), kind.filming.begin(), kind.filming.end());
    std::filesystem::remove_all(dir.file("clip"));
    std::filesystem::remove_all(dir.file("out"));
    ASSERT_EQ(run_tool(sim, dir, FRAMEALIGN_SIM).exit_code, 0) << kind.name;
    const ToolRun run =
        run_tool({"--video", "clip/capture.avi", "--reference-file", "clip/reference.yuv",
                  "--width", "640", "--height", "360", "--fast", "--quiet", "--result-root", "out"},
                 dir, FRAMEALIGN_BATCH);
    ASSERT_EQ(run.exit_code, 0) << kind.name << ": " << run.err;
    const Table truth = read_table(dir.file("clip/truth.csv"), "capture_frame");
    const Table summary = read_table(dir.file("out/summary.csv"), "capture_frame");
    ASSERT_EQ(summary.size(), truth.size()) << kind.name;
    for (const auto& [frame, want] : truth) {
      const auto& got = summary.at(frame);
      const std::string at = std::string(kind.name) + " frame " + frame;
      const std::vector<std::string> shown = split(want.at("ref_frames"), ';');
      const bool shown_frame =
          std::find(shown.begin(), shown.end(), got.at("ref_frame")) != shown.end();
      const bool aligned = got.at("status") == "aligned";
      if (kind.every_frame_found) {
        EXPECT_TRUE(aligned && shown_frame) << at;
      }
      // Hidden or out of view: said so, or not called found.
      if (std::stod(want.at("occluded")) >= 0.08) {
        EXPECT_TRUE(!aligned || got.at("unsure").find("occluded") != std::string::npos) << at;
      }
      if (std::stod(want.at("in_view")) < 0.98) {
        EXPECT_TRUE(!aligned || !got.at("unsure").empty()) << at;
      }
      if (!aligned || !got.at("unsure").empty()) continue;
      const std::array<double, 8> true_corners = corners_of(want), found = corners_of(got);
      EXPECT_TRUE(shown_frame) << at << ": reference frame " << got.at("ref_frame");
      EXPECT_LE(corner_error(true_corners.data(), found.data(), 640, 360).max, 1.5) << at;
    }
  }
}

}  // namespace
