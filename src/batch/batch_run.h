// One run of the batch: what every capture's work reads, and where it
// records what it did.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "batch/batch_runner.h"
#include "batch/report.h"
#include "batch/result_root.h"
#include "batch/summary.h"

struct BatchRun {
  const BatchOptions& options;
  ResultRoot& root;
  const Report& report;
  Journal& journal;
  // What earlier runs recorded, by id: the captures and frames done.
  const std::map<std::string, SummaryRow>& recorded;
  // Takes a row once it is journalled (from any worker).
  std::function<void(const SummaryRow&)> record;
  // Says when to stop taking new work (a signal came).
  std::function<bool()> stopped;

  // Journals `row`, then records it.
  void keep(const SummaryRow& row) const {
    journal.append(row);
    record(row);
  }
};
