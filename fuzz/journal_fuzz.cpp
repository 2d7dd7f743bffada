// The batch's journal reader on the fuzz bytes as a .journal file. It keeps
// only rows of the summary's width and warns about the lines it skips; a row
// appended after whatever the file held (a torn or damaged end included) is
// always read back whole.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "batch/summary.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::filesystem::path root = "/tmp/framealign_fuzz_journal_" + std::to_string(::getpid());
  std::filesystem::remove_all(root);
  std::filesystem::create_directories(root);
  const std::string journal = (root / ".journal").string();
  if (std::FILE* f = std::fopen(journal.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  const std::vector<std::string> columns = summary_columns(false, false);
  std::vector<std::string> warnings;
  for (const auto& [id, row] : read_recorded_rows(root.string(), columns, warnings)) {
    if (row.id != id || row.values.size() != columns.size() - 3) __builtin_trap();
  }
  SummaryRow appended{"fuzz-id", "in,put.jpg", "aligned", std::vector<std::string>(columns.size() - 3, "1")};
  Journal(journal).append(appended);
  warnings.clear();
  const auto rows = read_recorded_rows(root.string(), columns, warnings);
  const auto it = rows.find("fuzz-id");
  if (it == rows.end() || it->second.fields() != appended.fields()) __builtin_trap();
  return 0;
}
