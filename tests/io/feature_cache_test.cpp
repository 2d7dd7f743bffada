#include "io/feature_cache.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

struct Features {
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;
};

Features make_features(int n, int seed) {
  cv::RNG rng(seed);
  Features f;
  for (int i = 0; i < n; ++i) {
    f.keypoints.emplace_back(rng.uniform(0.f, 1920.f), rng.uniform(0.f, 1080.f), rng.uniform(1.f, 40.f),
                             rng.uniform(0.f, 360.f), rng.uniform(0.f, 0.1f), rng.uniform(-1, 1 << 20),
                             rng.uniform(-5, 5));
  }
  f.descriptors.create(n, 128, CV_32F);
  rng.fill(f.descriptors, cv::RNG::UNIFORM, 0.f, 255.f);
  return f;
}

// The file a set saves to: all seven keypoint fields and the descriptor
// matrix (the layout is pinned below), so equal files mean equal sets.
std::vector<unsigned char> saved(const Features& f) {
  TempDir dir;
  save_features(dir.file("f.ftrs"), f.keypoints, f.descriptors);
  return read_bytes(dir.file("f.ftrs"));
}

// Entries beside their base file, tagged; a base without a folder part
// names a file at the root (framealign's naming, kept as it is).
TEST(feature_cache_path, NamesFollowTheBaseFile) {
  EXPECT_EQ(feature_cache_path("shots/img.png", "ORIGINAL"), "shots/img_ORIGINAL.ftrs");
  EXPECT_EQ(feature_cache_path("a/b/ref", "-1"), "a/b/ref_-1.ftrs");
  EXPECT_EQ(feature_cache_path("chart.yuv", "0"), "/chart_0.ftrs");
}

TEST(save_features, RoundTripAndByteLayout) {
  TempDir dir;
  const std::string path = dir.file("f.ftrs");
  Features loaded = make_features(3, 9);
  for (const Features& f : {make_features(300, 1), Features{}}) {
    save_features(path, f.keypoints, f.descriptors);
    EXPECT_EQ(read_bytes(path).size(), 20u + (28u + 512u) * f.keypoints.size());
    ASSERT_TRUE(load_features(path, loaded.keypoints, loaded.descriptors).loaded);
    EXPECT_TRUE(saved(loaded) == saved(f));
  }
  // Count, then x y angle response size octave class_id, then rows cols type, data.
  save_features(path, {cv::KeyPoint(1.5f, 2.5f, 3.5f, 4.5f, 5.5f, -6, 7)}, (cv::Mat_<uchar>(1, 2) << 0xAB, 0xCD));
  std::vector<unsigned char> expected(48);
  const uint64_t count = 1;
  const float floats[] = {1.5f, 2.5f, 4.5f, 5.5f, 3.5f};
  const int32_t ints[] = {-6, 7, 1, 2, CV_8UC1};
  std::memcpy(expected.data(), &count, 8);
  std::memcpy(expected.data() + 8, floats, 20);
  std::memcpy(expected.data() + 28, ints, 20);
  expected.insert(expected.end(), {0xAB, 0xCD});
  EXPECT_EQ(read_bytes(path), expected);
}

// Impossible counts and sizes, and every truncation of a valid file: a miss
// with the reason, the outputs untouched, nothing allocated beyond the file.
TEST(load_features, DamagedFilesAreReportedMisses) {
  TempDir dir;
  const std::string path = dir.file("bad.ftrs");
  const Features good = make_features(3, 1);
  save_features(path, good.keypoints, good.descriptors);
  const std::vector<unsigned char> bytes = read_bytes(path);
  auto with = [&](size_t offset, int64_t value, size_t width) {
    std::vector<unsigned char> damaged = bytes;
    std::memcpy(damaged.data() + offset, &value, width);
    return damaged;
  };
  const size_t matrix = 8 + 3 * 28;
  std::vector<std::vector<unsigned char>> cases = {
      with(0, int64_t(1) << 60, 8), with(0, -1, 8),  // counts the file cannot hold
      with(matrix, -1, 4),                            // negative rows
      with(matrix, 0x7fffffff, 4),                    // rows x cols past the file
      with(matrix + 8, 1 << 20, 4),                   // impossible type
      // 2^29 rows x 2^30 cols of 32-byte elements: the byte count wraps to zero.
      with(matrix, (int64_t(1) << 62) | (int64_t(1) << 29), 8)};
  const int32_t wrapping_type = CV_32SC(8);
  std::memcpy(cases.back().data() + matrix + 8, &wrapping_type, 4);
  for (size_t size = 0; size < bytes.size(); ++size) cases.emplace_back(bytes.begin(), bytes.begin() + size);
  // Three keypoints but two descriptor rows: matching would index past the keypoints.
  save_features(path, good.keypoints, good.descriptors.rowRange(0, 2));
  cases.push_back(read_bytes(path));

  for (const std::vector<unsigned char>& damaged : cases) {
    write_bytes(path, damaged);
    Features out = make_features(1, 5);
    const CacheRead read = load_features(path, out.keypoints, out.descriptors);
    EXPECT_FALSE(read.loaded) << damaged.size();
    EXPECT_EQ(read.damage.rfind(path, 0), 0u) << read.damage;
    EXPECT_TRUE(saved(out) == saved(make_features(1, 5))) << "outputs change only on success";
  }
  Features out;
  const CacheRead missing = load_features(dir.file("missing.ftrs"), out.keypoints, out.descriptors);
  EXPECT_FALSE(missing.loaded);
  EXPECT_EQ(missing.damage, "");  // a missing file is a plain miss
}

}  // namespace
