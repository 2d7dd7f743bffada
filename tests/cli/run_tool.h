// Runs the built framealign binary as a process, as a user would.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "test_support.h"

struct ToolRun {
  int exit_code;  // as the shell sees it: 128 + signal for a killed process
  std::string out;
  std::string err;
};

inline std::string quote(const std::string& word) {
  std::string q = "'";
  for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

inline ToolRun run_tool(const std::vector<std::string>& args, const TempDir& dir) {
  std::string command = "cd " + quote(dir.path().string()) + " && timeout 900 " +
                        quote(FRAMEALIGN_BINARY);
  for (const std::string& a : args) command += " " + quote(a);
  const std::string out = dir.file(".stdout"), err = dir.file(".stderr");
  command += " >" + quote(out) + " 2>" + quote(err);
  const int status = std::system(command.c_str());
  ToolRun run{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), read_text(out),
          read_text(err)};
  std::filesystem::remove(out);
  std::filesystem::remove(err);
  return run;
}

