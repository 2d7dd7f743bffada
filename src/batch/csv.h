// CSV as RFC 4180 writes it: comma-separated fields, quoted with double
// quotes when they hold a comma, a quote, or a line break, a quote inside
// a quoted field doubled. Lines end in LF; CRLF is read too.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

// A malformed CSV text: `line` is the 1-based line where the record starts.
class CsvError : public std::runtime_error {
 public:
  CsvError(int line, const std::string& what) : std::runtime_error(what), line(line) {}
  int line;
};

struct CsvRecord {
  int line;  // 1-based line where the record starts
  std::vector<std::string> fields;
};

// The records of `text`, blank lines left out. Throws CsvError for a quote
// left open, text after a closing quote, or a NUL byte.
std::vector<CsvRecord> parse_csv(const std::string& text);

// One record as a line of CSV, with its line end.
std::string csv_line(const std::vector<std::string>& fields);
