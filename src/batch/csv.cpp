#include "batch/csv.h"

std::vector<CsvRecord> parse_csv(const std::string& text) {
  std::vector<CsvRecord> records;
  CsvRecord record{1, {}};
  std::string field;
  int line = 1;
  bool quoted = false;       // inside a quoted field
  bool after_quote = false;  // a quoted field just closed
  bool any = false;          // the record has begun
  auto end_field = [&] {
    record.fields.push_back(field);
    field.clear();
    after_quote = false;
  };
  auto end_record = [&] {
    if (any) {
      end_field();
      records.push_back(record);
    }
    record = CsvRecord{line, {}};
    any = false;
  };
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\0') throw CsvError(line, "a NUL byte");
    if (quoted) {
      if (c == '"' && i + 1 < text.size() && text[i + 1] == '"') {
        field += '"';
        ++i;
      } else if (c == '"') {
        quoted = false;
        after_quote = true;
      } else {
        if (c == '\n') ++line;
        field += c;
      }
      continue;
    }
    if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
    if (c == '\n') {
      ++line;
      end_record();
      continue;
    }
    if (c == ',') {
      end_field();
      any = true;
      continue;
    }
    if (after_quote) throw CsvError(record.line, "text after a closing quote");
    if (c == '"' && field.empty()) {
      quoted = true;
      any = true;
      continue;
    }
    field += c;
    any = true;
  }
  if (quoted) throw CsvError(record.line, "a quoted field is not closed");
  end_record();
  return records;
}

std::string csv_line(const std::vector<std::string>& fields) {
  std::string line;
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) line += ',';
    const std::string& f = fields[i];
    if (f.find_first_of(",\"\r\n") == std::string::npos) {
      line += f;
      continue;
    }
    line += '"';
    for (char c : f) line += c == '"' ? std::string("\"\"") : std::string(1, c);
    line += '"';
  }
  return line + "\n";
}
