#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "align/align.h"
#include "test_support.h"

namespace {

// Callbacks that record the entry names asked for; the loader finds what the
// saver stored when `remember` is set.
struct Recorder {
  std::vector<std::string> loads, saves;
  bool remember = false;
  FeatureLoadCallback loader() {
    return [this](std::vector<cv::KeyPoint>& k, cv::Mat& d, const char* name) {
      loads.push_back(name ? name : "<null>");
      const bool hit = remember && std::find(saves.begin(), saves.end(), loads.back()) != saves.end();
      if (hit) {
        k.assign(7, cv::KeyPoint(1, 2, 3));
        d = cv::Mat(7, 128, CV_32F, cv::Scalar(1));
      }
      return hit;
    };
  }
  FeatureSaveCallback saver() {
    return [this](const std::vector<cv::KeyPoint>&, const cv::Mat&, const char* name) {
      saves.push_back(name ? name : "<null>");
    };
  }
};

TEST(generate_copy_features, StoresSixEntriesInOrder) {
  const cv::Mat image = make_texture(96, 64, 8);
  const std::vector<std::string> all = {"GAUSSIAN_BLUR", "ORIGINAL", "MORPHOLOGICAL_OPENING",
                                        "UNKNOWN",       "UNKNOWN",  "UNKNOWN"};
  Recorder missing;
  generate_copy_features(image, missing.loader(), missing.saver());
  EXPECT_EQ(missing.saves, all);
  // With a loader that finds what was saved, the later UNKNOWN passes hit.
  Recorder cache;
  cache.remember = true;
  generate_copy_features(image, cache.loader(), cache.saver());
  EXPECT_EQ(cache.loads, all);
  EXPECT_EQ(cache.saves, std::vector<std::string>(all.begin(), all.begin() + 4));
}

TEST(get_keypoints_descriptors_cpy, CacheHitSkipsExtractionAndSave) {
  const cv::Mat image = make_texture(96, 64, 6);
  Recorder rec;
  rec.remember = true;
  rec.saves = {"ORIGINAL"};
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  get_keypoints_descriptors_cpy(image, kps, desc, ORIGINAL, rec.loader(), rec.saver(), false);
  EXPECT_EQ(kps.size(), 7u);
  EXPECT_EQ(rec.saves.size(), 1u);
  // The reference's entry has no name.
  get_keypoints_descriptors_ref(image, kps, desc, rec.loader(), rec.saver());
  EXPECT_EQ(rec.saves.back(), "<null>");
  EXPECT_GT(kps.size(), 20u);
  EXPECT_EQ(desc.rows, static_cast<int>(kps.size()));
}

TEST(SIFTdetectAndCompute, UniformPictureGivesNoFeatures) {
  std::vector<cv::KeyPoint> kps(3);
  cv::Mat desc(3, 128, CV_32F);
  SIFTdetectAndCompute(cv::Mat(120, 160, CV_8UC1, cv::Scalar(128)), kps, desc, false);
  EXPECT_TRUE(kps.empty());
  EXPECT_TRUE(desc.empty());
}

}  // namespace
