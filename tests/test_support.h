// Test helpers: a private temporary folder per test, whole-file I/O.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

class TempDir {
 public:
  TempDir() {
    static int count = 0;
    path_ = std::filesystem::temp_directory_path() /
            ("framealign_test_" + std::to_string(::getpid()) + "_" + std::to_string(count++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline void write_bytes(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<unsigned char> read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::string read_text(const std::string& path) {
  const std::vector<unsigned char> bytes = read_bytes(path);
  return std::string(bytes.begin(), bytes.end());
}

// Every regular file of a folder with its bytes, by name.
inline std::vector<std::pair<std::string, std::vector<unsigned char>>> read_folder(
    const std::string& folder) {
  std::vector<std::pair<std::string, std::vector<unsigned char>>> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_regular_file()) files.emplace_back(entry.path().filename().string(), read_bytes(entry.path().string()));
  }
  std::sort(files.begin(), files.end());
  return files;
}
