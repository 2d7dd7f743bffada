// framealign-batch as a user runs it, on simulated captures with known
// corners: framealign's result folders in every mode, the summary, the
// refinement and the quick path, the report, faults as rows.
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "batch/csv.h"
#include "cli/batch_fixture.h"

namespace {

// Byte for byte what framealign writes, in each mode; the summary names the
// best slot (the lowest of the slot scores) and its corners.
TEST_F(Batch, FoldersAreFramealignsInEveryMode) {
  ASSERT_EQ(full_.exit_code, 0) << full_.err;
  EXPECT_NE(full_.err.find("4 of 4 captures recorded: 3 aligned, 1 not_found, 0 error"), std::string::npos);
  const std::vector<std::pair<std::vector<std::string>, std::vector<int>>> modes = {
      {{}, {1, 2}}, {{"--advanced"}, {3}}, {{"--jpeg-output", "--output", "slow"}, {4}}};
  for (const auto& [mode, captures] : modes) {
    const std::string root = "mode" + std::to_string(captures[0]);
    std::vector<std::string> inputs = {"--reference-file", "./ref.yuv", "--width", "640", "--height", "360",
                                       "--result-root", root};
    for (int i : captures) inputs.push_back("./c" + std::to_string(i) + ".jpg");
    inputs.insert(inputs.end(), mode.begin(), mode.end());
    ASSERT_EQ(run_tool(inputs, dir_, kBatch).exit_code, 0);
    for (int i : captures) {
      const std::string c = "c" + std::to_string(i);
      std::vector<std::string> single = {"--input-file", "./" + c + ".jpg", "--reference-file", "./ref.yuv", "--width",
                                         "640", "--height", "360", "--result-folder", root + "/fa_" + c};
      single.insert(single.end(), mode.begin(), mode.end());
      ASSERT_EQ(run_tool(single, dir_).exit_code, 0);
      EXPECT_TRUE(read_folder(dir_.file(root + "/fa_" + c)) == read_folder(dir_.file(root + "/" + c))) << c;
    }
  }
  const std::string text = read_text(dir_.file("full/summary.csv"));
  EXPECT_EQ(text.substr(0, text.find('\n')),
            "id,input,status,best_score,best_slot,slot_scores,x1,y1,x2,y2,x3,y3,x4,y4,reason,"
            "seconds,message");
  // cap1: best score, best slot, the slot scores, the first corner.
  const std::vector<std::string> row = split(split(text, '\n').at(1), ',');
  ASSERT_GE(row.size(), 7u);
  EXPECT_EQ(row[0] + row[1] + row[2], "cap1./c1.jpgaligned");
  const std::string first = read_text(dir_.file("full/cap1/pts_" + row[4] + ".txt"));
  EXPECT_EQ(first.substr(0, first.find(' ')), row[6]);
  EXPECT_EQ(read_text(dir_.file("full/cap1/best_result.txt")), std::to_string(std::stod(row[3])) + "\n");
  std::vector<double> scores;
  for (const std::string& score : split(row[5], ';')) scores.push_back(std::stod(score));
  EXPECT_EQ(std::min_element(scores.begin(), scores.end()) - scores.begin(), std::stoi(row[4]));
}

// --refine: the summary gains est_error_px; the best slot's corners come
// within half a pixel of the truth; reruns write the same bytes; a root
// recorded without --refine is run again with it, and then counts as done.
TEST_F(Batch, RefineEstimatesAndRerunsIdentically) {
  std::filesystem::copy(dir_.file("full"), dir_.file("refined"), std::filesystem::copy_options::recursive);
  for (const auto& [root, run] : {std::pair{"refined", "; 4 run now"}, {"again", "; 4 run now"}, {"again", "; 0 run now"}}) {
    const ToolRun r = run_tool(args(root, {"--refine"}), dir_, kBatch);
    EXPECT_NE(r.err.find(run), std::string::npos) << root << r.err;
  }
  const std::string text = summary(dir_.file("refined/summary.csv"));
  EXPECT_EQ(text, summary(dir_.file("again/summary.csv")));
  const std::vector<std::string> rows = split(text, '\n');
  EXPECT_EQ(rows.at(0),
            "id,input,status,best_score,best_slot,slot_scores,x1,y1,x2,y2,x3,y3,x4,y4,est_error_px,"
            "reason,"
            "seconds,message");
  for (int i = 1; i <= 4; ++i) {
    const std::string id = "/cap" + std::to_string(i);
    EXPECT_TRUE(read_folder(dir_.file("refined" + id)) == read_folder(dir_.file("again" + id))) << id;
    const std::vector<std::string> row = parse_csv(rows.at(i) + "\n").at(0).fields;
    ASSERT_EQ(row.size(), 18u) << rows.at(i);
    if (i == 3) {
      // Each attempt's figures and the step that ended it.
      EXPECT_EQ(row[2] + row[14], "not_found");
      EXPECT_EQ(row[15].rfind("no attempt found the reference; blurred: ", 0), 0u) << row[15];
      EXPECT_NE(row[15].find("; opened: "), std::string::npos) << row[15];
      continue;
    }
    EXPECT_EQ(row[15], "") << id;
    double corners[8];
    for (int c = 0; c < 8; ++c) corners[c] = std::stod(row[6 + c]);
    const double error = corner_error(corners_[i], corners, 640, 360).max;
    EXPECT_LT(error, 0.5) << i;
    EXPECT_GE(std::stod(row[14]), error) << i;
    EXPECT_LT(std::stod(row[14]), 1.0) << i;
  }
}

// The report: a row per capture with its pictures, errors first, and a
// contact sheet; --report-only writes the same page again from the root.
// Where a browser is installed, the page is rendered and looked at.
TEST_F(Batch, ReportShowsEveryCapture) {
  const std::string page = read_text(dir_.file("full/report.html"));
  EXPECT_LT(page.find("data-id='cap3'"), page.find("data-id='cap1'"));  // not_found before aligned
  // The not_found capture (cap3) shows where its matches lie, and can have its corners set.
  for (const char* picture :
       {"cap1.capture.jpg", "cap1.frames.jpg", "full/cap1.frames.jpg", "cap3.capture.jpg",
        "cap1.matches.jpg", "cap3.matches.jpg", "full/cap3.plain.jpg"}) {
    EXPECT_FALSE(cv::imread(dir_.file(std::string("full/report/") + picture)).empty()) << picture;
  }
  EXPECT_FALSE(std::filesystem::exists(dir_.file("full/report/cap3.frames.jpg")));
  EXPECT_FALSE(std::filesystem::exists(dir_.file("full/report/full/cap1.plain.jpg")));
  EXPECT_EQ(cv::imread(dir_.file("full/overview.png")).cols, 4 * 320);
  std::filesystem::remove(dir_.file("full/report.html"));
  EXPECT_EQ(run_tool({"--result-root", "full", "--report-only"}, dir_, kBatch).exit_code, 0);
  EXPECT_EQ(read_text(dir_.file("full/report.html")), page);

  const std::string browser = "/usr/bin/chromium";
  if (!std::filesystem::exists(browser)) GTEST_SKIP() << "no browser to render the report in: " << browser << " is not installed";
  const std::vector<std::string> flags = {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                                          "--disable-background-networking", "--disable-component-update", "--disable-sync",
                                          "--user-data-dir=" + dir_.file("browser"), "--virtual-time-budget=10000",
                                          "--window-size=1280,1000"};
  std::vector<std::string> dump = flags, shot = flags;
  dump.insert(dump.end(), {"--dump-dom", "file://" + dir_.file("full/report.html")});
  shot.insert(shot.end(), {"--screenshot=" + dir_.file("shot.png"), "file://" + dir_.file("full/report.html")});
  // Four rows, and each capture's picture and matches, the aligned three also with their frames.
  const std::string dom = run_tool(dump, dir_, browser).out;
  EXPECT_NE(dom.find("data-rows=\"4\" data-pictures-shown=\"11\""), std::string::npos)
      << dom.substr(0, 2000);
  run_tool(shot, dir_, browser);
  cv::Scalar mean, deviation;
  cv::meanStdDev(cv::imread(dir_.file("shot.png"), cv::IMREAD_GRAYSCALE), mean, deviation);
  EXPECT_GT(deviation[0], 20.0);  // a page with pictures on it, not a blank one
}

// --fast: an easy capture takes the quick path and lands within a pixel; a
// small, blurred, moire-striped screen falls back to the search and still
// aligns; a mirrored capture (without --advanced), another frame of the
// same video and an unrelated one end not_found. The quick path leaves the
// frame upside down to the search, which aligns it as framealign does.
// Reruns write the same bytes.
TEST_F(Batch, FastVerifiesOrFallsBack) {
  const cv::Mat reference = make_reference_frame(640, 360, 301);
  cv::Mat upside_down;
  cv::rotate(reference, upside_down, cv::ROTATE_180);
  CaptureSettings plain, hard;
  plain.capture_width = hard.capture_width = 960;
  plain.capture_height = hard.capture_height = 720;
  hard.screen_scale = 0.5, hard.blur = 2.5, hard.moire = 0.5;
  const Capture small = render_capture(reference, hard);
  cv::imwrite(dir_.file("small.jpg"), small.picture);
  const std::vector<std::pair<std::string, cv::Mat>> negatives = {
      {"other", make_reference_frame(640, 360, 301, 302)}, {"upside", upside_down}, {"unrelated", make_reference_frame(640, 360, 9)}};
  std::ofstream list(dir_.file("fast.csv"));
  list << "input\n./c1.jpg\n./small.jpg\n./c3.jpg\n";
  for (const auto& [name, shown] : negatives) {
    cv::imwrite(dir_.file(name + ".jpg"), render_capture(shown, plain).picture);
    list << name << ".jpg\n";
  }
  list.close();
  for (const std::string root : {"fast", "fast_again"}) {
    const ToolRun r = run_tool({"--list", "fast.csv", "--reference-file", "./ref.yuv", "--width", "640", "--height", "360",
                                "--jobs", "1", "--result-root", root, "--fast"}, dir_, kBatch);
    EXPECT_NE(r.err.find("paths: 1 fast, 5 full"), std::string::npos) << r.err;
  }
  const std::vector<std::string> rows = split(summary(dir_.file("fast/summary.csv")), '\n');
  EXPECT_EQ(summary(dir_.file("fast/summary.csv")), summary(dir_.file("fast_again/summary.csv")));
  EXPECT_EQ(rows.at(0).substr(rows.at(0).find("est_error_px")),
            "est_error_px,path,reason,seconds,message");
  const std::vector<std::string> expected = {"c1 aligned fast", "small aligned full", "c3 not_found full",
                                             "other not_found full", "upside aligned full", "unrelated not_found full"};
  for (size_t i = 0; i < expected.size(); ++i) {
    // Every answer the quick path refused says why; a search that found
    // nothing says so first.
    const std::vector<std::string> row = parse_csv(rows.at(i + 1) + "\n").at(0).fields;
    EXPECT_EQ(row.at(0) + " " + row.at(2) + " " + row.at(15), expected[i]);
    const std::string& reason = row.at(16);
    EXPECT_EQ(reason.empty(), i == 0) << reason;
    EXPECT_EQ(reason.find("no attempt found the reference") == 0, row.at(2) == "not_found")
        << reason;
    EXPECT_EQ(reason.find("quick path refused: ") != std::string::npos, i > 0) << reason;
    EXPECT_TRUE(read_folder(dir_.file("fast/" + row[0])) == read_folder(dir_.file("fast_again/" + row[0]))) << row[0];
  }
  double corners[8];
  for (int c = 0; c < 8; ++c) corners[c] = std::stod(split(rows.at(1), ',').at(6 + c));
  EXPECT_LT(corner_error(corners_[1], corners, 640, 360).max, 1.0);
  for (int c = 0; c < 8; ++c) corners[c] = std::stod(split(rows.at(2), ',').at(6 + c));
  EXPECT_LT(corner_error(small.corners, corners, 640, 360).max, 5.0);  // found, if not finely
}

// A capture that cannot be aligned is a row with the tool's message; the
// others go on. A reference cache made for another size is refused.
TEST_F(Batch, FaultsAreRows) {
  write_bytes(dir_.file("short.yuv"), std::vector<unsigned char>(100));
  cv::imwrite(dir_.file("flat.png"), cv::Mat(300, 400, CV_8UC1, cv::Scalar(90)));
  std::filesystem::copy_file(dir_.file("ref_0.ftrs"), dir_.file("gone_0.ftrs"));
  write_yuv420(dir_.file("tiny.yuv"), make_reference_frame(320, 180, 5));
  std::filesystem::copy_file(dir_.file("ref.yuv"), dir_.file("bare.yuv"));
  ASSERT_EQ(run_tool({"--result-root", "tiny", "--reference-file", "./tiny.yuv", "--width", "320", "--height", "180",
                      "./c5.jpg"}, dir_, kBatch).exit_code, 0);
  std::filesystem::copy_file(dir_.file("tiny_0.ftrs"), dir_.file("gone2_0.ftrs"));
  std::ofstream(dir_.file("faults.csv")) << "input,id,reference,width,height\n./c5.jpg,,bare.yuv,,\nmissing.jpg,,,,\n"
                                         << "notes.txt,,,,\nshort.yuv,,,,\nflat.png,,,,\n./c5.jpg,small,./gone.yuv,320,180\n"
                                         << "./c5.jpg,big,./gone2.yuv,640,360\n";
  const ToolRun r = run_tool({"--list", "faults.csv", "--reference-file", "./ref.yuv", "--width", "640", "--height",
                              "360", "--result-root", "faults"}, dir_, kBatch);
  EXPECT_EQ(r.exit_code, 1);
  const std::vector<std::string> expected = {
      "c5,./c5.jpg,aligned,",
      "missing,missing.jpg,error,,,,,,,,,,,,,,Failed to read image file: missing.jpg",
      "notes,notes.txt,error,,,,,,,,,,,,,,Unsupported input file format (.txt)",
      "short,short.yuv,error,,,,,,,,,,,,,,Failed to read complete YUV420 data from file: short.yuv "
      "with resolution 640x360",
      "flat,flat.png,error,,,,,,,,,,,,,,No features found to match against (a featureless "
      "picture?)",
      "small,./c5.jpg,error,,,,,,,,,,,,,,The feature cache ./gone_0.ftrs holds keypoints outside "
      "the 320x180 frame",
      "big,./c5.jpg,error,,,,,,,,,,,,,,The feature cache ./gone2_0.ftrs holds keypoints only "
      "within"};
  const std::vector<std::string> rows = split(summary(dir_.file("faults/summary.csv")), '\n');
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(rows.at(i + 1).substr(0, expected[i].size()), expected[i]);
  EXPECT_TRUE(std::filesystem::exists(dir_.file("bare_0.ftrs.source")));  // "bare.yuv": its cache beside it
  // What it says: OpenCV's own lines and the chosen --jobs only when asked;
  // --quiet keeps the captures in error and nothing else.
  EXPECT_EQ(r.err.find("[ WARN"), std::string::npos) << r.err;
  for (const auto& [flag, has, lacks] : {std::tuple{"--verbose", "--jobs 1 (given)", "?"},
                                         {"--verbose", "[ WARN", "?"},
                                         {"--quiet", "missing error", "c5 aligned"}}) {
    const ToolRun again = run_tool({flag, "./c5.jpg", "missing.jpg", "--reference-file", "./ref.yuv", "--width", "640",
                                    "--height", "360", "--jobs", "1", "--result-root", flag}, dir_, kBatch);
    EXPECT_EQ(again.exit_code, 1);
    EXPECT_NE(again.err.find(has), std::string::npos) << flag << again.err;
    EXPECT_EQ(again.err.find(lacks), std::string::npos) << flag << again.err;
  }
}

}  // namespace
