// The captures of a batch: from a CSV list or from the command line, each
// with its result folder's name (id) and its reference frame.
#pragma once

#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

// One frame of a raw reference file, at its size.
struct ReferenceFrame {
  std::string path;
  int width = 1920;
  int height = 1080;
  int frame_number = 0;
  bool operator<(const ReferenceFrame& o) const {
    return std::tie(path, width, height, frame_number) <
           std::tie(o.path, o.width, o.height, o.frame_number);
  }
};

struct CaptureJob {
  int line = 0;         // of the list, or the position on the command line
  std::string id;       // the result folder's name; default: the input's stem
  std::string input;    // the capture's path
  ReferenceFrame reference;
  bool video = false;   // a capture video: `id` names its frames <id>_<frame>
  std::optional<std::array<double, 8>> hint;  // rough corners (--hints): refined, verified
};

// A list that cannot be run: `what()` names the file and line.
class ListError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct CsvRecord;

// The records of a CSV file (`what` names it in messages, "the list"), a
// spreadsheet's byte-order mark skipped. Throws ListError for a file that
// cannot be read, malformed CSV, or no header row.
std::vector<CsvRecord> read_csv_file(const std::string& path, const std::string& what);

// Reads a CSV list with a header row. Column "input" is required; "id",
// "reference", "width", "height", "frame_number" and "video" (1: the input
// is a capture video) are optional, and an
// empty value takes the default: the input's stem for the id, `defaults`
// for the rest. Throws ListError for a file that
// cannot be read, malformed CSV, an unknown column, a missing value, a
// value that is not a whole number in range, a duplicate id, or an id that
// is not a plain file name.
std::vector<CaptureJob> read_capture_list(const std::string& path, const ReferenceFrame& defaults);

// Jobs for captures named on the command line, numbered from 1.
std::vector<CaptureJob> capture_jobs(const std::vector<std::string>& inputs,
                                     const ReferenceFrame& defaults);

// The rows K, K + N, K + 2N, ... (1-based) of `jobs`.
std::vector<CaptureJob> shard_of(const std::vector<CaptureJob>& jobs, int k, int n);

// Two different captures whose feature cache files would have one name
// (x.jpg and x.png beside each other), said as the refusal; or "".
std::string shared_capture_cache(const std::vector<CaptureJob>& jobs);
