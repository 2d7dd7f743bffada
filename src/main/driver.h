// The program's main flow: options, result folder, inputs, alignment, report.
#pragma once

// Runs the tool once and returns the process exit code: 0 after a run, the
// usage text or the version; -1 after a reported error. Failures the tool
// does not report itself end the process as uncaught exceptions.
int run_program(int argc, char** argv);
