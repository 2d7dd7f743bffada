// Helpers shared by the tests: private temporary folders and whole-file I/O.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

// A fresh folder per test, removed afterwards.
class TempDir {
 public:
  TempDir() {
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = "framealign_";
    if (info != nullptr) name += std::string(info->test_suite_name()) + "_" + info->name();
    for (char& c : name) {
      if (c == '/') c = '_';
    }
    path_ = std::filesystem::temp_directory_path() /
            (name + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter()++));
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
  static int& counter() {
    static int n = 0;
    return n;
  }
  std::filesystem::path path_;
};

inline void write_bytes(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<unsigned char> read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in),
                                    std::istreambuf_iterator<char>());
}

inline std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
