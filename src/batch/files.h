// The batch's file layer: every write checked, and what it records reaches
// the disk before the batch relies on it.
#pragma once

#include <string>

// Writes `text` to `path` under a temporary name, flushes it to the disk,
// renames it into place and flushes the folder, so that `path` holds the
// old content or the whole new one, even after a power cut. Throws
// std::runtime_error naming the file and the system's reason.
void write_file_durably(const std::string& path, const std::string& text);

// Flushes the file `written` (made by another writer) to the disk and
// renames it to `path`, replacing what was there only then. Throws as
// write_file_durably does (`written` is then removed).
void keep_file_durably(const std::string& written, const std::string& path);

// Marks one of the batch's file operations (a write, a flush, a rename),
// named for a message: `what` `path`. For tests of what a full disk or a
// kill at any moment leaves behind, FRAMEALIGN_BATCH_FAULT set to
// "enospc:N" makes the N-th operation and all after it fail as on a full
// disk, and "kill:N" kills the process (SIGKILL) at the N-th. Unset, it
// only counts.
void file_operation(const std::string& what, const std::string& path);

// Flushes the folder `path` to the disk, so that names created, renamed or
// removed in it are recorded. Throws as write_file_durably does.
void sync_folder(const std::string& path);
