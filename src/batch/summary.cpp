#include "batch/summary.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "batch/csv.h"
#include "batch/files.h"

std::vector<std::string> summary_columns(bool refined, bool fast) {
  std::vector<std::string> columns = {"id", "input", "status", "best_score", "best_slot",
                                      "slot_scores", "x1", "y1", "x2", "y2", "x3", "y3", "x4", "y4"};
  if (refined) columns.push_back("est_error_px");
  if (fast) columns.push_back("path");
  columns.insert(columns.end(), {"seconds", "message"});
  return columns;
}

std::vector<std::string> SummaryRow::fields() const {
  std::vector<std::string> all = {id, input, status};
  all.insert(all.end(), values.begin(), values.end());
  return all;
}

namespace {

void read_rows(const std::string& path, const std::vector<std::string>& columns,
               std::map<std::string, SummaryRow>& rows) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  std::string content = text.str();
  // A line without its end was cut off by a kill; it is not a row.
  const size_t end = content.rfind('\n');
  content.resize(end == std::string::npos ? 0 : end + 1);
  std::vector<CsvRecord> records;
  try {
    records = parse_csv(content);
  } catch (const CsvError&) {
    return;  // not written by this program
  }
  for (const CsvRecord& record : records) {
    if (record.fields.size() != columns.size() || record.fields == columns) continue;
    SummaryRow row{record.fields[0], record.fields[1], record.fields[2],
                   {record.fields.begin() + 3, record.fields.end()}};
    rows[row.id] = row;
  }
}

}  // namespace

std::map<std::string, SummaryRow> read_recorded_rows(const std::string& root,
                                                     const std::vector<std::string>& columns) {
  std::vector<std::string> summaries, journals;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(root, error)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("summary", 0) == 0 && entry.path().extension() == ".csv") {
      summaries.push_back(entry.path().string());
    } else if (name.rfind(".journal", 0) == 0) {
      journals.push_back(entry.path().string());
    }
  }
  std::map<std::string, SummaryRow> rows;
  for (const std::string& path : summaries) read_rows(path, columns, rows);
  for (const std::string& path : journals) read_rows(path, columns, rows);
  return rows;
}

Journal::Journal(const std::string& path) : path_(path), file_(std::fopen(path.c_str(), "ab")) {
  if (file_ == nullptr) {
    throw std::runtime_error("cannot write the journal " + path + ": " + std::strerror(errno));
  }
}

Journal::~Journal() { std::fclose(file_); }

void Journal::append(const SummaryRow& row) {
  const std::string line = csv_line(row.fields());
  std::lock_guard<std::mutex> guard(lock_);
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
