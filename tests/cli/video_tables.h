// The CSV tables of the video tests: the simulator's truth.csv and the
// batch's summary.csv, each row by its key column.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "batch/csv.h"
#include "test_support.h"

using Table =
    std::map<std::string, std::map<std::string, std::string>>;  // key column -> column -> value

inline Table read_table(const std::string& path, const std::string& key) {
  const std::vector<CsvRecord> records = parse_csv(read_text(path));
  const std::vector<std::string>& columns = records.at(0).fields;
  Table table;
  for (size_t r = 1; r < records.size(); ++r) {
    std::vector<std::string> values = records[r].fields;
    values.resize(columns.size());
    std::map<std::string, std::string> row;
    for (size_t i = 0; i < columns.size(); ++i) row[columns[i]] = values[i];
    table[row[key]] = row;
  }
  return table;
}
