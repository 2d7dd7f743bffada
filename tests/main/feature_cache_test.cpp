#include "main/feature_cache.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
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
    f.keypoints.emplace_back(rng.uniform(0.f, 1920.f), rng.uniform(0.f, 1080.f),
                             rng.uniform(1.f, 40.f), rng.uniform(0.f, 360.f),
                             rng.uniform(0.f, 0.1f), rng.uniform(-1, 1 << 20), rng.uniform(-5, 5));
  }
  f.descriptors.create(n, 128, CV_32F);
  rng.fill(f.descriptors, cv::RNG::UNIFORM, 0.f, 255.f);
  return f;
}

bool same(const Features& a, const Features& b) {
  if (a.keypoints.size() != b.keypoints.size() || a.descriptors.size() != b.descriptors.size() ||
      a.descriptors.type() != b.descriptors.type()) {
    return false;
  }
  for (size_t i = 0; i < a.keypoints.size(); ++i) {
    const cv::KeyPoint &p = a.keypoints[i], &q = b.keypoints[i];
    if (p.pt != q.pt || p.size != q.size || p.angle != q.angle || p.response != q.response ||
        p.octave != q.octave || p.class_id != q.class_id) {
      return false;
    }
  }
  return a.descriptors.empty() || cv::norm(a.descriptors, b.descriptors, cv::NORM_INF) == 0.0;
}

TEST(feature_cache_path, NamesFollowTheBaseFile) {
  struct Case {
    std::string reference;
    int frame;
    const char* name;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"a/b/ref.yuv", 12, "ORIGINAL", "shots/img_ORIGINAL.ftrs"},
      {"a/b/ref.yuv", 12, nullptr, "a/b/ref_12.ftrs"},
      {"a/b/ref", -1, nullptr, "a/b/ref_-1.ftrs"},
      {"chart.yuv", 0, nullptr, "/chart_0.ftrs"},  // kept as it is: users give a folder
  };
  for (const Case& c : cases) {
    Arguments args;
    args.input_file = "shots/img.png";
    args.reference_file = c.reference;
    args.frame_number = c.frame;
    EXPECT_EQ(feature_cache_path(args, c.name), c.expected);
  }
}

TEST(save_features, RoundTripAndByteLayout) {
  TempDir dir;
  const std::string path = dir.file("f.ftrs");
  Features loaded = make_features(3, 9);
  for (const Features& f : {make_features(300, 1), Features{}}) {
    save_features(path, f.keypoints, f.descriptors);
    EXPECT_EQ(read_bytes(path).size(), 20u + 28u * f.keypoints.size() + 512u * f.keypoints.size());
    ASSERT_TRUE(load_features(path, loaded.keypoints, loaded.descriptors));
    EXPECT_TRUE(same(loaded, f));
  }
  // Count, then x y angle response size octave class_id, then rows cols type, data.
  const cv::Mat two_bytes = (cv::Mat_<unsigned char>(1, 2) << 0xAB, 0xCD);
  save_features(path, {cv::KeyPoint(1.5f, 2.5f, 3.5f, 4.5f, 5.5f, -6, 7)}, two_bytes);
  std::vector<unsigned char> expected(8, 0);
  expected[0] = 1;
  auto put = [&](const void* p, size_t n) {
    expected.insert(expected.end(), static_cast<const unsigned char*>(p),
                    static_cast<const unsigned char*>(p) + n);
  };
  const float floats[] = {1.5f, 2.5f, 4.5f, 5.5f, 3.5f};
  const int32_t ints[] = {-6, 7, 1, 2, CV_8UC1};
  put(floats, sizeof(floats));
  put(ints, sizeof(ints));
  expected.insert(expected.end(), {0xAB, 0xCD});
  EXPECT_EQ(read_bytes(path), expected);
}

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
  const int32_t kWrappingType = CV_32SC(8);
  std::vector<std::vector<unsigned char>> cases = {
      with(0, int64_t(1) << 60, 8), with(0, -1, 8),  // counts the file cannot hold
      with(matrix, -1, 4),                            // negative rows
      with(matrix, 0x7fffffff, 4),                    // rows x cols past the file
      with(matrix + 8, 1 << 20, 4),                   // impossible type
  };
  // 2^29 rows x 2^30 cols of 32-byte elements: the byte count wraps to zero.
  cases.push_back(with(matrix, (int64_t(1) << 62) | (int64_t(1) << 29), 8));
  std::memcpy(cases.back().data() + matrix + 8, &kWrappingType, 4);
  for (size_t size = 0; size < bytes.size(); ++size) cases.emplace_back(bytes.begin(), bytes.begin() + size);
  // Three keypoints but two descriptor rows: matching would index past the keypoints.
  save_features(path, good.keypoints, good.descriptors.rowRange(0, 2));
  cases.push_back(read_bytes(path));

  for (const std::vector<unsigned char>& damaged : cases) {
    write_bytes(path, damaged);
    Features out = make_features(1, 5);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(load_features(path, out.keypoints, out.descriptors)) << damaged.size();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.rfind("Error reading features from cache: ", 0), 0u) << err;
    EXPECT_TRUE(same(out, make_features(1, 5))) << "outputs change only on success";
  }
  testing::internal::CaptureStderr();
  Features out;
  EXPECT_FALSE(load_features(dir.file("missing.ftrs"), out.keypoints, out.descriptors));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // a missing file is a silent miss
}

// Writers replace one entry while readers load it: every load sees one whole
// feature set, never a torn file, and no temporary file is left behind.
TEST(feature_callbacks, ConcurrentSavesAndLoadsSeeWholeFiles) {
  TempDir dir;
  Arguments args;
  args.input_file = dir.file("shot.png");
  const FeatureSaveCallback save = make_feature_save_callback(args);
  const FeatureLoadCallback load = make_feature_load_callback(args);
  const std::vector<Features> sets = {make_features(200, 0), make_features(250, 1),
                                      make_features(300, 2)};
  save(sets[0].keypoints, sets[0].descriptors, "ORIGINAL");
  std::vector<int> bad(sets.size(), 0);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < sets.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 30; ++i) save(sets[t].keypoints, sets[t].descriptors, "ORIGINAL");
    });
    threads.emplace_back([&, t] {
      for (int i = 0; i < 30; ++i) {
        Features got;
        const bool whole = load(got.keypoints, got.descriptors, "ORIGINAL") &&
                           (same(got, sets[0]) || same(got, sets[1]) || same(got, sets[2]));
        bad[t] += whole ? 0 : 1;
      }
    });
  }
  for (std::thread& th : threads) th.join();
  for (int b : bad) EXPECT_EQ(b, 0);
  EXPECT_EQ(read_folder(dir.path().string()).size(), 1u);
  EXPECT_TRUE(std::filesystem::exists(dir.file("shot_ORIGINAL.ftrs")));
}

}  // namespace
