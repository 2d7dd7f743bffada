// The program's main flow: options, result folder, inputs, alignment, report.
#pragma once

// Runs the tool once and returns the process exit code: 0 after a run, the
// usage text or the version; -1 after a reported error. Failures the tool
// does not report itself end the process as uncaught exceptions.
int run_program(int argc, char** argv);

// Makes freed memory stay in one heap for reuse, so that a search's SIFT
// pyramids, allocated and freed layer by layer, are not mapped and faulted
// afresh each time. For processes that align: call before the first search.
void keep_freed_memory_for_reuse();
