#include "batch/result_root.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "batch/files.h"

namespace fs = std::filesystem;

namespace {

std::string reason(int error) { return std::strerror(error); }

// Takes an exclusive flock on `lock`, writing our process id into it.
int take_lock(const std::string& lock) {
  const int fd = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) throw RootError("cannot open the lock " + lock + ": " + reason(errno));
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    char holder[32] = {};
    const ssize_t n = ::pread(fd, holder, sizeof(holder) - 1, 0);
    ::close(fd);
    if (error != EWOULDBLOCK) throw RootError("cannot lock " + lock + ": " + reason(error));
    const std::string pid = n > 0 ? std::string(holder, static_cast<size_t>(n)) : "?";
    throw RootError(lock + " is held by process " + pid.substr(0, pid.find('\n')) +
                    ": another batch runs on this result root");
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) < 0) {
    const int error = errno;
    ::close(fd);
    throw RootError("cannot write the lock " + lock + ": " + reason(error));
  }
  return fd;
}

// Flushes every regular file under `folder`, then the folder itself.
void sync_tree(const std::string& folder) {
  file_operation("flush", folder);
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0) {
      const int error = errno;
      if (fd >= 0) ::close(fd);
      throw std::runtime_error("cannot flush " + entry.path().string() + ": " + reason(error));
    }
    ::close(fd);
  }
  sync_folder(folder);
}

}  // namespace

ResultRoot::ResultRoot(const std::string& path, const std::string& lock_tag) : path_(path) {
  if (path.empty()) throw RootError("--result-root is empty");
  std::error_code error;
  for (const char* sub : {"", ".partial", ".made"}) {
    fs::create_directories(fs::path(path) / sub, error);
    if (error || !fs::is_directory(fs::path(path) / sub)) {
      throw RootError("cannot use " + (fs::path(path) / sub).string() + " as a folder" +
                      (error ? ": " + error.message() : ""));
    }
  }
  lock_fd_ = take_lock((fs::path(path) / (".lock" + lock_tag)).string());
}

ResultRoot::~ResultRoot() {
  if (lock_fd_ >= 0) ::close(lock_fd_);
}

std::string ResultRoot::folder(const std::string& id) const { return (fs::path(path_) / id).string(); }

std::string ResultRoot::partial(const std::string& id) const {
  return (fs::path(path_) / ".partial" / id).string();
}

std::string ResultRoot::foreign(const std::string& id) const {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(folder(id), error);
  if (status.type() == fs::file_type::not_found) return "";
  const bool marked = fs::exists(fs::path(path_) / ".made" / id, error);
  if (status.type() == fs::file_type::directory && (marked || recorded_.count(id) > 0)) return "";
  return folder(id) + " was not made by framealign-batch; it is left as it is";
}

std::string ResultRoot::other_capture(const std::string& id, const std::string& input) const {
  std::ifstream mark(fs::path(path_) / ".made" / id);
  std::string made_from;
  std::error_code error;
  if (!std::getline(mark, made_from) || made_from == input || !fs::exists(folder(id), error)) return "";
  return folder(id) + " holds the result of " + made_from + ", not of " + input +
         "; give this capture another id";
}

bool ResultRoot::has_result(const std::string& id) const {
  std::error_code error;
  return foreign(id).empty() && fs::is_regular_file(fs::path(folder(id)) / "best_result.txt", error);
}

std::string ResultRoot::fresh_partial(const std::string& id) const {
  file_operation("make", partial(id));
  discard(id);
  fs::create_directories(partial(id));
  return partial(id);
}

void ResultRoot::discard(const std::string& id) const {
  std::error_code ignored;
  fs::remove_all(partial(id), ignored);
}

void ResultRoot::install(const std::string& id, const std::string& input) {
  const std::string from = partial(id), to = folder(id);
  sync_tree(from);
  const std::string mark = (fs::path(path_) / ".made" / id).string();
  write_file_durably(mark, input + "\n");
  // Swapped whole: a reader sees the earlier result or the new one, never
  // neither and never half of one.
  const bool earlier = fs::exists(to);
  file_operation("move " + from + " to", to);
  const unsigned flags = earlier ? RENAME_EXCHANGE : RENAME_NOREPLACE;
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) != 0) {
    throw std::runtime_error("cannot move " + from + " to " + to + ": " + reason(errno));
  }
  sync_folder(path_);
  if (earlier) discard(id);  // now the earlier result, under .partial/
}
