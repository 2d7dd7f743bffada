// Every text framealign prints itself, beside the options' errors (options.cpp),
// and the exit status that goes with a reported failure. Failures it does not
// report (see run_program) end the process through std::terminate instead.
#pragma once

// Exit status after a reported error (255 as the shell sees it).
constexpr int kExitError = -1;

// Each is followed by its detail, if any, and a line end, on standard error.
constexpr char kFolderNotCreated[] = "Failed to create result folder";
constexpr char kFilesystemError[] = "Filesystem error: ";
constexpr char kImageNotRead[] = "Failed to read image file: ";
constexpr char kCacheReadError[] = "Error reading features from cache: ";

// Results, on standard output.
constexpr char kBestScore[] = "best score: ";
constexpr char kAlignmentTime[] = "alignment time: ";
