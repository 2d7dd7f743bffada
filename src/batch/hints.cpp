#include "batch/hints.h"

#include <cmath>
#include <cstdlib>
#include <map>

#include "batch/csv.h"

namespace {

const char* const kColumns[] = {"id", "x1", "y1", "x2", "y2", "x3", "y3", "x4", "y4"};

bool parse_number(const std::string& text, double& value) {
  if (text.empty() || text[0] == ' ') return false;
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return *end == '\0' && std::isfinite(value);
}

}  // namespace

void attach_hints(const std::string& path, std::vector<CaptureJob>& jobs) {
  const std::vector<CsvRecord> records = read_csv_file(path, "the hints");
  const CsvRecord& header = records[0];
  std::map<std::string, std::size_t> column;
  for (std::size_t i = 0; i < header.fields.size(); ++i) column.emplace(header.fields[i], i);
  const std::string at_header = path + ":" + std::to_string(header.line) + ": ";
  for (const char* name : kColumns) {
    if (!column.count(name)) throw ListError(at_header + "no column '" + name + "'");
  }
  if (column.size() != header.fields.size() || column.size() != std::size(kColumns)) {
    throw ListError(at_header +
                    "the columns must be id, x1, y1, x2, y2, x3, y3, x4, y4, each once");
  }
  std::map<std::string, CaptureJob*> by_id;
  for (CaptureJob& job : jobs) {
    if (!job.video) by_id[job.id] = &job;
  }
  std::map<std::string, int> seen;
  for (std::size_t r = 1; r < records.size(); ++r) {
    const CsvRecord& row = records[r];
    const std::string at = path + ":" + std::to_string(row.line) + ": ";
    if (row.fields.size() != header.fields.size()) {
      throw ListError(at + std::to_string(row.fields.size()) + " values, the header has " +
                      std::to_string(header.fields.size()));
    }
    const std::string& id = row.fields[column["id"]];
    const auto job = by_id.find(id);
    if (job == by_id.end())
      throw ListError(at + "id '" + id + "' is no picture capture of this run");
    if (!seen.emplace(id, row.line).second) {
      throw ListError(at + "id '" + id + "' has a hint on line " + std::to_string(seen[id]) +
                      " already");
    }
    std::array<double, 8> corners;
    for (int c = 0; c < 8; ++c) {
      const std::string& text = row.fields[column[kColumns[c + 1]]];
      if (!parse_number(text, corners[c])) {
        throw ListError(at + kColumns[c + 1] + " '" + text + "' is not a finite number");
      }
    }
    job->second->hint = corners;
  }
}
