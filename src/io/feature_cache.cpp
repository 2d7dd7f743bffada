#include "io/feature_cache.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace framealign {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kCountBytes = 8;
constexpr std::size_t kRecordBytes = 28;
constexpr std::size_t kMatrixHeaderBytes = 12;

template <typename T>
void put(std::vector<char>& out, T value) {
  const char* bytes = reinterpret_cast<const char*>(&value);
  out.insert(out.end(), bytes, bytes + sizeof(T));
}

template <typename T>
T get(const char*& in) {
  T value;
  std::memcpy(&value, in, sizeof(T));
  in += sizeof(T);
  return value;
}

void read_exactly(std::istream& in, void* data, std::size_t bytes, const std::string& path) {
  if (!in.read(static_cast<char*>(data), static_cast<std::streamsize>(bytes))) {
    throw std::runtime_error("unexpected end of file in " + path);
  }
}

}  // namespace

std::string feature_cache_path(const std::string& base, const std::string& tag) {
  const fs::path path(base);
  return path.parent_path().string() + "/" + path.stem().string() + "_" + tag + ".ftrs";
}

void save_features(const std::string& path, const std::vector<cv::KeyPoint>& keypoints,
                   const cv::Mat& descriptors) {
  if (descriptors.dims > 2) return;  // the file has room for rows and cols only
  std::vector<char> bytes;
  bytes.reserve(kCountBytes + keypoints.size() * kRecordBytes + kMatrixHeaderBytes +
                descriptors.total() * descriptors.elemSize());
  put<std::uint64_t>(bytes, keypoints.size());
  for (const cv::KeyPoint& kp : keypoints) {
    put<float>(bytes, kp.pt.x);
    put<float>(bytes, kp.pt.y);
    put<float>(bytes, kp.angle);
    put<float>(bytes, kp.response);
    put<float>(bytes, kp.size);
    put<std::int32_t>(bytes, kp.octave);
    put<std::int32_t>(bytes, kp.class_id);
  }
  put<std::int32_t>(bytes, descriptors.rows);
  put<std::int32_t>(bytes, descriptors.cols);
  put<std::int32_t>(bytes, descriptors.type());

  const std::size_t row_bytes = descriptors.cols * descriptors.elemSize();
  for (int r = 0; r < descriptors.rows; ++r) {
    const char* row = reinterpret_cast<const char*>(descriptors.ptr(r));
    bytes.insert(bytes.end(), row, row + row_bytes);
  }
  // Failures are ignored: a cache that cannot be written is only a cache.
  replace_file(path, bytes.data(), bytes.size());
}

CacheRead load_features(const std::string& path, std::vector<cv::KeyPoint>& keypoints,
                        cv::Mat& descriptors) {
  try {
    const fs::file_type type = fs::status(path).type();
    if (type == fs::file_type::not_found || type == fs::file_type::none) return {};
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};

    // Every count is checked against what the file really holds before
    // anything is allocated, so a damaged file cannot exhaust memory.
    in.seekg(0, std::ios::end);
    const std::streamoff end = in.tellg();
    in.seekg(0, std::ios::beg);
    if (end < 0 || !in) throw std::runtime_error("cannot determine the size of " + path);
    const std::uint64_t file_size = static_cast<std::uint64_t>(end);
    if (file_size < kCountBytes + kMatrixHeaderBytes) {
      throw std::runtime_error(path + " is too short (" + std::to_string(file_size) +
                               " bytes)");
    }

    std::uint64_t count = 0;
    read_exactly(in, &count, sizeof(count), path);
    const std::uint64_t room = file_size - kCountBytes - kMatrixHeaderBytes;
    if (count > room / kRecordBytes) {
      throw std::runtime_error(path + " announces " + std::to_string(count) +
                               " keypoints but holds " + std::to_string(file_size) + " bytes");
    }

    std::vector<char> records(count * kRecordBytes);
    read_exactly(in, records.data(), records.size(), path);
    std::vector<cv::KeyPoint> loaded(count);
    const char* cursor = records.data();
    for (cv::KeyPoint& kp : loaded) {
      kp.pt.x = get<float>(cursor);
      kp.pt.y = get<float>(cursor);
      kp.angle = get<float>(cursor);
      kp.response = get<float>(cursor);
      kp.size = get<float>(cursor);
      kp.octave = get<std::int32_t>(cursor);
      kp.class_id = get<std::int32_t>(cursor);
    }

    std::int32_t header[3];
    read_exactly(in, header, sizeof(header), path);
    const std::int32_t rows = header[0], cols = header[1], mat_type = header[2];
    if (rows < 0 || cols < 0 || mat_type < 0 || mat_type > CV_MAT_TYPE_MASK) {
      throw std::runtime_error(path + " holds an impossible descriptor matrix (" +
                               std::to_string(rows) + "x" + std::to_string(cols) + ", type " +
                               std::to_string(mat_type) + ")");
    }
    // A row is at most 2^31 elements of 4096 bytes, so its size fits; the
    // whole matrix is compared by division, as rows x row size can wrap.
    const std::uint64_t row_bytes =
        static_cast<std::uint64_t>(cols) * static_cast<std::uint64_t>(CV_ELEM_SIZE(mat_type));
    const std::uint64_t left = room - count * kRecordBytes;
    if (row_bytes != 0 && static_cast<std::uint64_t>(rows) > left / row_bytes) {
      throw std::runtime_error(path + " announces a " + std::to_string(rows) + "x" +
                               std::to_string(cols) + " descriptor matrix but holds " +
                               std::to_string(file_size) + " bytes");
    }
    // Matching indexes keypoints by descriptor row: the two must agree.
    if (static_cast<std::uint64_t>(rows) != count) {
      throw std::runtime_error(path + " holds " + std::to_string(count) + " keypoints but " +
                               std::to_string(rows) + " descriptor rows");
    }
    cv::Mat matrix(rows, cols, mat_type);
    const std::uint64_t data_bytes = static_cast<std::uint64_t>(rows) * row_bytes;
    if (data_bytes > 0) read_exactly(in, matrix.data, data_bytes, path);

    keypoints = std::move(loaded);
    descriptors = matrix;
    return {true, ""};
  } catch (const std::exception& e) {
    return {false, e.what()};
  }
}

std::string picture_fingerprint(const cv::Mat& picture) {
  std::uint64_t hash = 1469598103934665603ULL;  // FNV-1a, 64 bits
  for (int r = 0; r < picture.rows; ++r) {
    const unsigned char* row = picture.ptr(r);
    const std::size_t bytes = picture.cols * picture.elemSize();
    for (std::size_t c = 0; c < bytes; ++c) hash = (hash ^ row[c]) * 1099511628211ULL;
  }
  char text[64];
  std::snprintf(text, sizeof(text), "%dx%d %016llx", picture.cols, picture.rows,
                static_cast<unsigned long long>(hash));
  return text;
}

bool cache_made_from(const std::string& cache, const std::string& fingerprint) {
  std::ifstream in(cache + ".source");
  std::string line;
  return std::getline(in, line) && line == fingerprint;
}

void note_cache_source(const std::string& cache, const std::string& fingerprint) {
  const std::string line = fingerprint + "\n";
  replace_file(cache + ".source", line.data(), line.size());
}

}  // namespace framealign
