// The batch's file layer: every write checked, and what it records reaches
// the disk before the batch relies on it.
#pragma once

#include <string>

// Writes `text` to `path` under a temporary name, flushes it to the disk,
// renames it into place and flushes the folder, so that `path` holds the
// old content or the whole new one, even after a power cut. Throws
// std::runtime_error naming the file and the system's reason.
void write_file_durably(const std::string& path, const std::string& text);

// Flushes the folder `path` to the disk, so that names created, renamed or
// removed in it are recorded. Throws as write_file_durably does.
void sync_folder(const std::string& path);
