#include "main/feature_cache.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

std::vector<cv::KeyPoint> make_keypoints(int n, int seed) {
  cv::RNG rng(seed);
  std::vector<cv::KeyPoint> kps;
  for (int i = 0; i < n; ++i) {
    cv::KeyPoint kp(rng.uniform(0.f, 1920.f), rng.uniform(0.f, 1080.f), rng.uniform(1.f, 40.f),
                    rng.uniform(0.f, 360.f), rng.uniform(0.f, 0.1f), rng.uniform(-1, 1 << 20),
                    rng.uniform(-5, 5));
    kps.push_back(kp);
  }
  return kps;
}

cv::Mat make_descriptors(int rows, int seed) {
  cv::Mat d(rows, 128, CV_32F);
  cv::RNG(seed).fill(d, cv::RNG::UNIFORM, 0.f, 255.f);
  return d;
}

void expect_same_features(const std::vector<cv::KeyPoint>& a, const cv::Mat& da,
                          const std::vector<cv::KeyPoint>& b, const cv::Mat& db) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(a[i].pt, b[i].pt);
    EXPECT_EQ(a[i].size, b[i].size);
    EXPECT_EQ(a[i].angle, b[i].angle);
    EXPECT_EQ(a[i].response, b[i].response);
    EXPECT_EQ(a[i].octave, b[i].octave);
    EXPECT_EQ(a[i].class_id, b[i].class_id);
  }
  ASSERT_EQ(da.rows, db.rows);
  ASSERT_EQ(da.cols, db.cols);
  ASSERT_EQ(da.type(), db.type());
  EXPECT_EQ(cv::norm(da, db, cv::NORM_INF), 0.0);
}

// Loads and returns what was printed on standard error.
std::string load_reporting(const std::string& path, std::vector<cv::KeyPoint>& kps,
                           cv::Mat& desc, bool& found) {
  testing::internal::CaptureStderr();
  found = load_features(path, kps, desc);
  return testing::internal::GetCapturedStderr();
}

TEST(feature_cache_path, NamesFollowTheBaseFile) {
  struct Case {
    std::string input, reference;
    int frame;
    const char* name;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"shots/img.png", "a/b/ref.yuv", 12, "ORIGINAL", "shots/img_ORIGINAL.ftrs"},
      {"shots/img.png", "a/b/ref.yuv", 12, nullptr, "a/b/ref_12.ftrs"},
      {"shots/img.png", "a/b/ref.yuv", -1, nullptr, "a/b/ref_-1.ftrs"},
      {"shots/img.png", "a/b/ref", 0, nullptr, "a/b/ref_0.ftrs"},
      {"x.tar.jpg", "chart.yuv", 0, nullptr, "/chart_0.ftrs"},
      {"x.tar.jpg", "chart.yuv", 0, "UNKNOWN", "/x.tar_UNKNOWN.ftrs"},
  };
  for (const Case& c : cases) {
    Arguments args;
    args.input_file = c.input;
    args.reference_file = c.reference;
    args.frame_number = c.frame;
    EXPECT_EQ(feature_cache_path(args, c.name), c.expected);
  }
}

TEST(save_features, Nominal) {
  TempDir dir;
  const std::string path = dir.file("f.ftrs");
  const auto kps = make_keypoints(300, 1);
  const cv::Mat desc = make_descriptors(300, 2);
  save_features(path, kps, desc);
  EXPECT_EQ(read_bytes(path).size(), 8u + 28u * 300u + 12u + 300u * 128u * 4u);

  std::vector<cv::KeyPoint> loaded = make_keypoints(3, 9);  // replaced, not appended to
  cv::Mat loaded_desc;
  ASSERT_TRUE(load_features(path, loaded, loaded_desc));
  expect_same_features(kps, desc, loaded, loaded_desc);

  // A view into a larger matrix is not continuous; it is written row by row.
  const cv::Mat wide = make_descriptors(40, 3);
  const cv::Mat view = wide(cv::Rect(5, 10, 64, 20));
  ASSERT_FALSE(view.isContinuous());
  save_features(path, make_keypoints(20, 4), view);
  ASSERT_TRUE(load_features(path, loaded, loaded_desc));
  expect_same_features(make_keypoints(20, 4), view, loaded, loaded_desc);
}

TEST(save_features, ByteLayout) {
  TempDir dir;
  const std::string path = dir.file("f.ftrs");
  cv::KeyPoint kp(1.5f, 2.5f, 3.5f, 4.5f, 5.5f, -6, 7);  // x, y, size, angle, response, octave, id
  cv::Mat desc = (cv::Mat_<unsigned char>(1, 2) << 0xAB, 0xCD);
  save_features(path, {kp}, desc);

  std::vector<unsigned char> expected;
  auto put = [&](const void* p, size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    expected.insert(expected.end(), b, b + n);
  };
  const uint64_t n = 1;
  put(&n, 8);
  const float floats[] = {1.5f, 2.5f, 4.5f, 5.5f, 3.5f};  // x, y, angle, response, size
  put(floats, sizeof(floats));
  const int32_t ints[] = {-6, 7, 1, 2, CV_8UC1};
  put(ints, sizeof(ints));
  expected.push_back(0xAB);
  expected.push_back(0xCD);
  EXPECT_EQ(read_bytes(path), expected);
  EXPECT_EQ(expected[0], 1);  // little-endian count
}

TEST(save_features, EmptySetIsTwentyBytes) {
  TempDir dir;
  const std::string path = dir.file("empty.ftrs");
  save_features(path, {}, cv::Mat());
  EXPECT_EQ(read_bytes(path).size(), 20u);
  std::vector<cv::KeyPoint> kps = make_keypoints(2, 1);
  cv::Mat desc = make_descriptors(2, 1);
  ASSERT_TRUE(load_features(path, kps, desc));
  EXPECT_TRUE(kps.empty());
  EXPECT_TRUE(desc.empty());
}

TEST(save_features, UnwritableFolderIsSilent) {
  TempDir dir;
  testing::internal::CaptureStderr();
  save_features(dir.file("no/such/folder/f.ftrs"), make_keypoints(2, 1), make_descriptors(2, 1));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(std::filesystem::exists(dir.file("no")));
}

TEST(load_features, MissingFileIsASilentMiss) {
  TempDir dir;
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  bool found = true;
  EXPECT_EQ(load_reporting(dir.file("none.ftrs"), kps, desc, found), "");
  EXPECT_FALSE(found);
}

TEST(load_features, DamagedFilesAreReportedMisses) {
  TempDir dir;
  const std::string path = dir.file("bad.ftrs");
  save_features(path, make_keypoints(3, 1), make_descriptors(3, 2));
  const std::vector<unsigned char> good = read_bytes(path);
  const size_t matrix_header = 8 + 3 * 28;

  auto with_int32 = [&](size_t offset, int32_t value) {
    std::vector<unsigned char> bytes = good;
    std::memcpy(bytes.data() + offset, &value, 4);
    return bytes;
  };
  std::vector<std::vector<unsigned char>> damaged = {
      with_int32(matrix_header, -1),                    // negative rows
      with_int32(matrix_header + 4, 1 << 30),           // cols the file cannot hold
      with_int32(matrix_header + 8, 1 << 20),           // impossible type
      with_int32(matrix_header + 8, -7),                // negative type
      with_int32(matrix_header, 0x7fffffff),            // rows*cols overflows 32 bits
  };
  std::vector<unsigned char> huge_count(100, 0);
  const uint64_t count = uint64_t(1) << 60;
  std::memcpy(huge_count.data(), &count, 8);
  damaged.push_back(huge_count);
  std::vector<unsigned char> max_count = good;
  std::memset(max_count.data(), 0xFF, 8);
  damaged.push_back(max_count);
  for (size_t size = 0; size < good.size(); ++size) {  // every truncation
    damaged.emplace_back(good.begin(), good.begin() + size);
  }

  for (size_t i = 0; i < damaged.size(); ++i) {
    write_bytes(path, damaged[i]);
    std::vector<cv::KeyPoint> kps = make_keypoints(1, 5);
    cv::Mat desc = make_descriptors(1, 5);
    bool found = true;
    const std::string err = load_reporting(path, kps, desc, found);
    EXPECT_FALSE(found) << "case " << i;
    EXPECT_EQ(err.rfind("Error reading features from cache: ", 0), 0u) << "case " << i << ": " << err;
    EXPECT_EQ(err.back(), '\n');
    EXPECT_EQ(kps.size(), 1u) << "outputs change only on success";
    EXPECT_EQ(desc.rows, 1);
  }
}

TEST(load_features, DirectoryIsAReportedMiss) {
  TempDir dir;
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  bool found = true;
  const std::string err = load_reporting(dir.path().string(), kps, desc, found);
  EXPECT_FALSE(found);
}

TEST(feature_callbacks, FollowTheArgumentsRecord) {
  TempDir dir;
  Arguments args;
  args.input_file = dir.file("shot.jpg");
  args.reference_file = dir.file("ref.yuv");
  const FeatureSaveCallback save = make_feature_save_callback(args);
  const FeatureLoadCallback load = make_feature_load_callback(args);

  args.frame_number = 4;  // read at call time, not at construction
  save(make_keypoints(5, 1), make_descriptors(5, 1), nullptr);
  save(make_keypoints(6, 2), make_descriptors(6, 2), "ORIGINAL");
  EXPECT_TRUE(std::filesystem::exists(dir.file("ref_4.ftrs")));
  EXPECT_TRUE(std::filesystem::exists(dir.file("shot_ORIGINAL.ftrs")));

  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  ASSERT_TRUE(load(kps, desc, "ORIGINAL"));
  expect_same_features(make_keypoints(6, 2), make_descriptors(6, 2), kps, desc);
  EXPECT_FALSE(load(kps, desc, "GAUSSIAN_BLUR"));
}

// Several writers replace one entry while readers load it: every load sees
// one complete feature set, never a mixture or a torn file.
TEST(feature_callbacks, ConcurrentSavesAndLoadsSeeWholeFiles) {
  TempDir dir;
  Arguments args;
  args.input_file = dir.file("shot.png");
  const FeatureSaveCallback save = make_feature_save_callback(args);
  const FeatureLoadCallback load = make_feature_load_callback(args);
  const int kSets = 3;
  std::vector<std::vector<cv::KeyPoint>> sets;
  std::vector<cv::Mat> descs;
  for (int s = 0; s < kSets; ++s) {
    sets.push_back(make_keypoints(200 + 50 * s, s));
    descs.push_back(make_descriptors(200 + 50 * s, s));
  }
  save(sets[0], descs[0], "ORIGINAL");

  std::vector<std::thread> threads;
  std::vector<int> bad_loads(kSets, 0);
  for (int t = 0; t < kSets; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 30; ++round) save(sets[t], descs[t], "ORIGINAL");
    });
    threads.emplace_back([&, t] {
      for (int round = 0; round < 30; ++round) {
        std::vector<cv::KeyPoint> kps;
        cv::Mat desc;
        if (!load(kps, desc, "ORIGINAL")) {
          ++bad_loads[t];
          continue;
        }
        bool matches_a_set = false;
        for (int s = 0; s < kSets; ++s) {
          matches_a_set |= kps.size() == sets[s].size() && desc.rows == descs[s].rows &&
                           cv::norm(desc, descs[s], cv::NORM_INF) == 0.0 &&
                           kps.back().pt == sets[s].back().pt;
        }
        if (!matches_a_set) ++bad_loads[t];
      }
    });
  }
  for (std::thread& th : threads) th.join();
  for (int t = 0; t < kSets; ++t) EXPECT_EQ(bad_loads[t], 0);
  // No temporary files are left behind.
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(files, 1);
}

}  // namespace
