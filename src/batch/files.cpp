#include "batch/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path, int error) {
  throw std::runtime_error("cannot " + what + " " + path + ": " + std::strerror(error));
}

struct Fault {
  bool enospc = false;
  bool kill = false;
  long at = 0;
};

Fault fault_from_environment() {
  Fault fault;
  const char* text = std::getenv("FRAMEALIGN_BATCH_FAULT");
  if (text == nullptr) return fault;
  const std::string value = text;
  const std::size_t colon = value.find(':');
  const std::string kind = value.substr(0, colon);
  fault.enospc = kind == "enospc";
  fault.kill = kind == "kill";
  if (colon != std::string::npos) fault.at = std::atol(value.c_str() + colon + 1);
  return fault;
}

}  // namespace

void file_operation(const std::string& what, const std::string& path) {
  static const Fault fault = fault_from_environment();
  static std::atomic<long> count{0};
  const long n = ++count;
  if (fault.at <= 0 || n < fault.at) return;
  if (fault.kill) ::kill(::getpid(), SIGKILL);
  if (fault.enospc) fail(what, path, ENOSPC);
}

void sync_folder(const std::string& path) {
  file_operation("flush the folder", path);
  const int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) fail("open the folder", path, errno);
  const int synced = ::fsync(folder);
  const int error = errno;
  ::close(folder);
  if (synced != 0) fail("flush the folder", path, error);
}

void write_file_durably(const std::string& path, const std::string& text) {
  file_operation("write", path);
  const std::string temporary = path + ".part";
  const int file = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file < 0) fail("write", temporary, errno);
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(file, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const int error = n < 0 ? errno : ENOSPC;
      ::close(file);
      ::unlink(temporary.c_str());
      fail("write", path, error);
    }
    done += static_cast<std::size_t>(n);
  }
  int error = ::fsync(file) == 0 ? 0 : errno;
  if (::close(file) != 0 && error == 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    fail("write", path, error);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    const int rename_error = errno;
    ::unlink(temporary.c_str());
    fail("write", path, rename_error);
  }
  const std::string parent = std::filesystem::path(path).parent_path().string();
  sync_folder(parent.empty() ? "." : parent);
}

void keep_file_durably(const std::string& written, const std::string& path) {
  file_operation("write", path);
  const int file = ::open(written.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) fail("write", path, errno);
  int error = ::fsync(file) == 0 ? 0 : errno;
  if (::close(file) != 0 && error == 0) error = errno;
  if (error == 0 && ::rename(written.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(written.c_str());
    fail("write", path, error);
  }
  const std::string parent = std::filesystem::path(path).parent_path().string();
  sync_folder(parent.empty() ? "." : parent);
}
