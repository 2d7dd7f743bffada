// The batch program's tests share one set of simulated captures and one
// whole uninterrupted batch of the first four.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/captures.h"

inline const std::string kBatch = FRAMEALIGN_BATCH;

// The summary without its timing column, which no two runs share.
inline std::string summary(const std::string& path) {
  std::string text = read_text(path), out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t message = line.rfind(','), seconds = line.rfind(',', message - 1);
    if (line.rfind("id,", 0) != 0) line.erase(seconds + 1, message - seconds - 1);
    out += line + "\n";
  }
  return out;
}

// The shared captures and one whole uninterrupted batch of the first four.
class Batch : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    write_captures(dir_, corners_);
    full_ = run_tool(args("full"), dir_, kBatch);
  }
  static std::vector<std::string> args(const std::string& root, std::vector<std::string> more = {}) {
    std::vector<std::string> a = {"--list", "list.csv", "--reference-file", "./ref.yuv", "--width", "640",
                                  "--height", "360", "--jobs", "1", "--result-root", root};
    a.insert(a.end(), more.begin(), more.end());
    return a;
  }
  // The batch's folders equal those of the whole run, and so does its summary.
  static void expect_like_full(const std::string& root, const std::string& summary_name = "summary.csv") {
    EXPECT_EQ(summary(dir_.file(root + "/" + summary_name)), summary(dir_.file("full/summary.csv")));
    for (int i = 1; i <= 4; ++i) {
      const std::string id = "/cap" + std::to_string(i);
      EXPECT_TRUE(read_folder(dir_.file(root + id)) == read_folder(dir_.file("full" + id))) << root << id;
    }
  }
  static inline TempDir dir_;
  static inline ToolRun full_;
  static inline double corners_[6][8];
};
