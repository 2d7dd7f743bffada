#include "batch/summary.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "batch/csv.h"
#include "batch/files.h"

std::vector<std::string> summary_columns(bool refined, bool fast, bool videos, bool reasons) {
  std::vector<std::string> columns = {"id", "input", "status", "best_score", "best_slot",
                                      "slot_scores", "x1", "y1", "x2", "y2", "x3", "y3", "x4", "y4"};
  if (refined) columns.push_back("est_error_px");
  if (fast) columns.push_back("path");
  if (reasons) columns.push_back("reason");
  if (videos) {
    columns.insert(columns.end(), {"capture_frame", "ref_frame", "ref_frames", "mixed", "tear_rows", "unsure",
                                   "sync_score"});
  }
  columns.insert(columns.end(), {"seconds", "message"});
  return columns;
}

std::vector<std::string> SummaryRow::fields() const {
  std::vector<std::string> all = {id, input, status};
  all.insert(all.end(), values.begin(), values.end());
  return all;
}

namespace {

// Whether a record has the width of some run's summary: a row of another
// form (a run with other options), not a damaged one.
bool some_layout(std::size_t fields) {
  static const std::set<std::size_t> widths = [] {
    std::set<std::size_t> all;
    for (bool refined : {false, true}) {
      for (bool fast : {false, true}) {
        for (bool videos : {false, true}) {
          for (bool reasons : {false, true}) {
            all.insert(summary_columns(refined, fast, videos, reasons).size());
          }
        }
      }
    }
    return all;
  }();
  return widths.count(fields) > 0;
}

// Reads the rows of one summary or journal, a record to a line. A line that
// is not a whole record (cut by a kill, or damaged) is left out with a
// warning naming it; every other row is kept.
void read_rows(const std::string& path, const std::vector<std::string>& columns,
               std::map<std::string, SummaryRow>& rows, std::vector<std::string>& warnings) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  const std::string content = text.str();
  int number = 0;
  for (std::size_t begin = 0; begin < content.size();) {
    const std::size_t end = content.find('\n', begin);
    const bool whole = end != std::string::npos;
    const std::string line = content.substr(begin, whole ? end - begin : std::string::npos);
    begin = whole ? end + 1 : content.size();
    ++number;
    if (line.empty()) continue;
    std::vector<CsvRecord> records;
    try {
      records = parse_csv(line + "\n");
    } catch (const CsvError&) {
    }
    const bool known = whole && records.size() == 1 && some_layout(records[0].fields.size());
    if (!known) {
      warnings.push_back("skipping line " + std::to_string(number) + " of " + path +
                         (whole ? ": not a row" : ": cut off"));
      continue;
    }
    const std::vector<std::string>& fields = records[0].fields;
    if (fields.size() != columns.size() || fields == columns) continue;
    rows[fields[0]] = SummaryRow{fields[0], fields[1], fields[2], {fields.begin() + 3, fields.end()}};
  }
}

// Files of `root` whose names start with `prefix` (and end with `suffix`),
// oldest first: a later file's row for an id is the newer one.
std::vector<std::string> by_age(const std::string& root, const std::string& prefix,
                                const std::string& suffix) {
  std::vector<std::pair<std::filesystem::file_time_type, std::string>> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(root, error)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(prefix, 0) != 0 || name.size() < suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0 ||
        !entry.is_regular_file(error)) {
      continue;
    }
    found.emplace_back(entry.last_write_time(error), entry.path().string());
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> paths;
  for (const auto& [time, path] : found) paths.push_back(path);
  return paths;
}

}  // namespace

std::map<std::string, SummaryRow> read_recorded_rows(const std::string& root,
                                                     const std::vector<std::string>& columns,
                                                     std::vector<std::string>& warnings) {
  std::map<std::string, SummaryRow> rows;
  for (const std::string& path : by_age(root, "summary", ".csv")) read_rows(path, columns, rows, warnings);
  for (const std::string& path : by_age(root, ".journal", "")) read_rows(path, columns, rows, warnings);
  return rows;
}

Journal::Journal(const std::string& path) : path_(path), file_(std::fopen(path.c_str(), "ab+")) {
  if (file_ == nullptr) {
    throw std::runtime_error("cannot write the journal " + path + ": " + std::strerror(errno));
  }
  // The journal's own name reaches the disk before any row relies on it.
  const std::string folder = std::filesystem::path(path).parent_path().string();
  sync_folder(folder.empty() ? "." : folder);
  // A line cut by a kill is ended, so that the next row starts a line of its own.
  if (std::fseek(file_, -1, SEEK_END) == 0 && std::fgetc(file_) != '\n') {
    if (std::fputc('\n', file_) == EOF || std::fflush(file_) != 0) {
      throw std::runtime_error("cannot write the journal " + path + ": " + std::strerror(errno));
    }
  }
}

Journal::~Journal() { std::fclose(file_); }

void Journal::append(const SummaryRow& row) {
  const std::string line = csv_line(row.fields());
  std::lock_guard<std::mutex> guard(lock_);
  file_operation("write the journal", path_);
  const bool written = std::fwrite(line.data(), 1, line.size(), file_) == line.size();
  if (!written || std::fflush(file_) != 0 || ::fsync(::fileno(file_)) != 0) {
    throw std::runtime_error("cannot write the journal " + path_ + ": " + std::strerror(errno));
  }
}

void write_summary(const std::string& path, const std::vector<std::string>& columns,
                   const std::vector<SummaryRow>& rows) {
  std::string text = csv_line(columns);
  for (const SummaryRow& row : rows) text += csv_line(row.fields());
  write_file_durably(path, text);
}
