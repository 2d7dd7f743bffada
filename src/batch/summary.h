// The batch's record of what became of each capture: summary files and the
// journal they are made from.
//
// Every finished capture appends its row to a journal in the result root at
// once, so that a batch killed at any moment loses at most the capture in
// flight; the summary CSV, rows in list order, is written from the rows
// recorded when the batch ends. A rerun reads the rows back from every
// summary and journal in the root, shards' included.
#pragma once

#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "framealign/framealign.h"

// The summary's columns, in order: id, input, status, best_score,
// best_slot, slot_scores, x1 .. y4, with `refined` est_error_px, with `fast`
// path, with `reasons` reason (why a hint was not verified), with `videos`
// the kVideoColumns capture_frame, ref_frame, ref_frames, mixed, tear_rows,
// unsure and sync_score, then seconds and message.
std::vector<std::string> summary_columns(bool refined, bool fast, bool videos = false,
                                         bool reasons = false);
constexpr std::size_t kVideoColumns = 7;

// A capture's status when it could not be aligned at all (its message says why).
inline constexpr const char kError[] = "error";

struct SummaryRow {
  std::string id, input, status;    // status: framealign's (kAligned, kNotFound) or kError
  std::vector<std::string> values;  // the remaining columns, as written
  std::vector<std::string> fields() const;
};

// Rows by id from every summary*.csv and .journal* file in `root`; a later
// row for an id replaces an earlier one: journals after summaries, each
// kind oldest file first, and within a file line after line. Rows of
// another form (a run with other columns) are left out; a line that is no
// row at all (cut by a kill, or damaged) is left out with a warning.
std::map<std::string, SummaryRow> read_recorded_rows(const std::string& root,
                                                     const std::vector<std::string>& columns,
                                                     std::vector<std::string>& warnings);

// Appends rows to a journal file, one whole line per write, flushed.
class Journal {
 public:
  explicit Journal(const std::string& path);
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
  void append(const SummaryRow& row);

 private:
  std::mutex lock_;
  std::string path_;
  std::FILE* file_;
};

// Writes the summary CSV (header, then the rows) through a temporary name.
// Throws std::runtime_error when it cannot.
void write_summary(const std::string& path, const std::vector<std::string>& columns,
                   const std::vector<SummaryRow>& rows);
