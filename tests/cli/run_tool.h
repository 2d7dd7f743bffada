// Runs a built binary (FRAMEALIGN_BINARY) as a process, as a user would.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "test_support.h"

struct ToolRun {
  int exit_code;  // as the shell sees it: 128 + signal for a killed process
  std::string out, err;
};

// Runs `binary` in `dir`, bounded by a timeout so that a hang fails instead of blocking.
inline ToolRun run_tool(const std::vector<std::string>& args, const TempDir& dir,
                        const std::string& binary = FRAMEALIGN_BINARY) {
  auto quote = [](const std::string& word) {
    std::string q = "'";
    for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
  };
  std::string command = "cd " + quote(dir.path()) + " && timeout 900 " + quote(binary);
  for (const std::string& a : args) command += " " + quote(a);
  const int status = std::system((command + " >.out 2>.err").c_str());
  ToolRun run{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), read_text(dir.file(".out")),
              read_text(dir.file(".err"))};
  std::filesystem::remove(dir.file(".out"));
  std::filesystem::remove(dir.file(".err"));
  return run;
}
