// The command line as a user meets it: standard output, standard error and
// the exit code of the built binary.
#include <gtest/gtest.h>

#include "cli/run_tool.h"

namespace {

TEST(framealign, OptionOutcomes) {
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string out, err;
  };
  const std::vector<Case> cases = {
      {{"--version", "--overlay-size"}, 0, "1.3.0\n", ""},
      {{"--width", "px"}, 255, "", "Error: Invalid width value: stoi\n"},
      {{"--overlay-size", "512"}, 255, "", "Error: Unknown option --overlay-size\n"},
  };
  TempDir dir;
  for (const Case& c : cases) {
    const ToolRun r = run_tool(c.args, dir);
    EXPECT_EQ(r.exit_code, c.exit_code) << c.args[0];
    EXPECT_EQ(r.out, c.out) << c.args[0];
    EXPECT_EQ(r.err, c.err) << c.args[0];
  }
  // Help reads nothing and creates nothing.
  const ToolRun help = run_tool({"--result-folder", "out", "-h", "--width", "px"}, dir);
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_EQ(help.out.rfind("Usage: " + std::string(FRAMEALIGN_BINARY) + " <options>\nOptions:\n", 0), 0u);
  EXPECT_FALSE(std::filesystem::exists(dir.file("out")));
}

TEST(framealign, ResultFolderIsPreparedBeforeTheInputIsRead) {
  TempDir dir;
  ToolRun r = run_tool({"--result-folder", "a/b/c", "--input-file", "missing.png"}, dir);
  EXPECT_EQ(r.exit_code, 255);
  // OpenCV still speaks for itself while the picture is read; the alignment silences it later.
  const std::string message = "Failed to read image file: missing.png\n";
  ASSERT_GT(r.err.size(), message.size());
  EXPECT_EQ(r.err.substr(r.err.size() - message.size()), message);
  EXPECT_NE(r.err.find("imread_('missing.png')"), std::string::npos) << r.err;
  EXPECT_TRUE(std::filesystem::is_directory(dir.file("a/b/c")));  // all levels made

  write_bytes(dir.file("plain"), {1});
  r = run_tool({"--result-folder", "plain/sub", "--input-file", "missing.jpg"}, dir);
  EXPECT_EQ(r.exit_code, 255);
  EXPECT_EQ(r.err.rfind("Filesystem error: ", 0), 0u) << r.err;
}

}  // namespace
