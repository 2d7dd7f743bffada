#include "batch/capture_list.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "batch/csv.h"

namespace {

const char* const kColumns[] = {"input", "id", "reference", "width", "height", "frame_number", "video"};

// A whole decimal number in [lo, hi], nothing before or after it.
bool parse_int(const std::string& text, long lo, long hi, int& value) {
  if (text.empty() || text.size() > 20) return false;
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || text[0] == ' ' || v < lo || v > hi) return false;
  value = static_cast<int>(v);
  return true;
}

// Why `id` cannot name a folder inside the result root, or "".
std::string bad_id(const std::string& id) {
  if (id.empty()) return "an empty id";
  if (id == "." || id == ".." || id.find('/') != std::string::npos || id[0] == '.') {
    return "id '" + id + "' is not a plain file name";
  }
  // The longest name one folder entry may have on Linux file systems.
  constexpr std::size_t kLongestName = 255;
  if (id.size() > kLongestName) {
    return "id '" + id.substr(0, 24) + "...' is " + std::to_string(id.size()) +
           " bytes long, more than a file name may be (" + std::to_string(kLongestName) + ")";
  }
  if (id.rfind("summary", 0) == 0 && id.size() > 4 && id.compare(id.size() - 4, 4, ".csv") == 0) {
    return "id '" + id + "' is the name of a summary file";
  }
  return "";
}

std::string default_id(const std::string& input) {
  return std::filesystem::path(input).stem().string();
}

// Checks ids once every job is known: plain names, no two alike. `where`
// prefixes a job's number ("list.csv:" or "capture "); `earlier` and `hint`
// name the job that took a repeated id first ("line 3", or "capture 3" and
// how to tell the two apart).
void check_ids(const std::vector<CaptureJob>& jobs, const std::string& where,
               const std::string& earlier, const std::string& hint) {
  std::map<std::string, int> seen;
  for (const CaptureJob& job : jobs) {
    const std::string why = bad_id(job.id);
    if (!why.empty()) throw ListError(where + std::to_string(job.line) + ": " + why);
    const auto [it, fresh] = seen.emplace(job.id, job.line);
    if (!fresh) {
      throw ListError(where + std::to_string(job.line) + ": id '" + job.id +
                      "' is already the id of " + earlier + std::to_string(it->second) + hint);
    }
  }
}

}  // namespace

std::vector<CsvRecord> read_csv_file(const std::string& path, const std::string& what) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error))
    throw ListError(what + " " + path + " is a folder");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ListError("cannot read " + what + " " + path);
  std::stringstream text;
  text << in.rdbuf();
  std::string content = text.str();
  // Spreadsheets start a CSV file with a UTF-8 byte-order mark.
  if (content.rfind("\xEF\xBB\xBF", 0) == 0) content.erase(0, 3);
  std::vector<CsvRecord> records;
  try {
    records = parse_csv(content);
  } catch (const CsvError& e) {
    throw ListError(path + ":" + std::to_string(e.line) + ": " + e.what());
  }
  if (records.empty()) throw ListError(path + ":1: no header row");
  return records;
}

std::vector<CaptureJob> read_capture_list(const std::string& path, const ReferenceFrame& defaults) {
  const std::vector<CsvRecord> records = read_csv_file(path, "the list");
  const std::string where = path + ":";

  std::map<std::string, size_t> column;
  const CsvRecord& header = records[0];
  for (size_t i = 0; i < header.fields.size(); ++i) {
    const std::string& name = header.fields[i];
    if (std::find(std::begin(kColumns), std::end(kColumns), name) == std::end(kColumns)) {
      throw ListError(where + std::to_string(header.line) + ": unknown column '" + name + "'");
    }
    if (!column.emplace(name, i).second) {
      throw ListError(where + std::to_string(header.line) + ": column '" + name + "' twice");
    }
  }
  if (!column.count("input")) {
    throw ListError(where + std::to_string(header.line) + ": no column 'input'");
  }

  std::vector<CaptureJob> jobs;
  for (size_t r = 1; r < records.size(); ++r) {
    const CsvRecord& row = records[r];
    const std::string at = where + std::to_string(row.line) + ": ";
    if (row.fields.size() != header.fields.size()) {
      throw ListError(at + std::to_string(row.fields.size()) + " values, the header has " +
                      std::to_string(header.fields.size()));
    }
    auto value = [&](const char* name) {
      const auto it = column.find(name);
      return it == column.end() ? std::string() : row.fields[it->second];
    };
    auto number = [&](const char* name, long lo, long hi, int& out) {
      const std::string text = value(name);
      if (!text.empty() && !parse_int(text, lo, hi, out)) {
        throw ListError(at + name + " '" + text + "' is not a whole number from " +
                        std::to_string(lo) + " to " + std::to_string(hi));
      }
    };
    CaptureJob job;
    job.line = row.line;
    job.input = value("input");
    if (job.input.empty()) throw ListError(at + "missing value for column 'input'");
    job.reference = defaults;
    if (!value("reference").empty()) job.reference.path = value("reference");
    if (job.reference.path.empty()) {
      throw ListError(at + "no reference (column 'reference' or --reference-file)");
    }
    number("width", 1, 65535, job.reference.width);
    number("height", 1, 65535, job.reference.height);
    number("frame_number", -1, INT_MAX, job.reference.frame_number);
    int video = 0;
    number("video", 0, 1, video);
    job.video = video == 1;
    job.id = value("id").empty() ? default_id(job.input) : value("id");
    jobs.push_back(job);
  }
  check_ids(jobs, where, "line ", "");
  return jobs;
}

std::vector<CaptureJob> capture_jobs(const std::vector<std::string>& inputs,
                                     const ReferenceFrame& defaults) {
  std::vector<CaptureJob> jobs;
  for (const std::string& input : inputs) {
    CaptureJob job;
    job.line = static_cast<int>(jobs.size()) + 1;
    job.input = input;
    job.id = default_id(input);
    job.reference = defaults;
    jobs.push_back(job);
  }
  check_ids(jobs, "capture ", "capture ", " (a --list can give each capture an id)");
  return jobs;
}

std::vector<CaptureJob> shard_of(const std::vector<CaptureJob>& jobs, int k, int n) {
  std::vector<CaptureJob> shard;
  for (size_t i = static_cast<size_t>(k - 1); i < jobs.size(); i += static_cast<size_t>(n)) {
    shard.push_back(jobs[i]);
  }
  return shard;
}

std::string shared_capture_cache(const std::vector<CaptureJob>& jobs) {
  std::map<std::string, std::string> by_cache;
  for (const CaptureJob& job : jobs) {
    const std::filesystem::path input(job.input);
    const std::string cache = (input.parent_path() / input.stem()).string();
    const auto [it, fresh] = by_cache.emplace(cache, job.input);
    if (!fresh && it->second != job.input) {
      return "--capture-cache: " + it->second + " and " + job.input + " would share the cache files " +
             cache + "_<filter>.ftrs; rename one, or run without --capture-cache";
    }
  }
  return "";
}

