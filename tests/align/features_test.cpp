#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "align/align.h"
#include "synthetic.h"

namespace {

struct Recorder {
  std::vector<std::string> loads;
  std::vector<std::string> saves;
  // Entries stored by the saver, found again by the loader when `remember`.
  std::vector<std::pair<std::string, std::vector<cv::KeyPoint>>> stored;
  bool remember = false;

  FeatureLoadCallback loader() {
    return [this](std::vector<cv::KeyPoint>& kps, cv::Mat& desc, const char* name) {
      const std::string key = name != nullptr ? name : "<null>";
      loads.push_back(key);
      if (!remember) return false;
      for (const auto& entry : stored) {
        if (entry.first == key) {
          kps = entry.second;
          desc = cv::Mat(static_cast<int>(kps.size()), 128, CV_32F, cv::Scalar(1));
          return true;
        }
      }
      return false;
    };
  }
  FeatureSaveCallback saver() {
    return [this](const std::vector<cv::KeyPoint>& kps, const cv::Mat&, const char* name) {
      const std::string key = name != nullptr ? name : "<null>";
      saves.push_back(key);
      stored.emplace_back(key, kps);
    };
  }
};

TEST(SIFTdetectAndCompute, Nominal) {
  const cv::Mat image = make_texture(320, 240, 4);
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  SIFTdetectAndCompute(image, kps, desc, false);
  EXPECT_GT(kps.size(), 200u);
  EXPECT_EQ(desc.rows, static_cast<int>(kps.size()));
  EXPECT_EQ(desc.cols, 128);
  EXPECT_EQ(desc.type(), CV_32F);
}

TEST(SIFTdetectAndCompute, UniformPictureGivesNoFeatures) {
  const cv::Mat flat(120, 160, CV_8UC1, cv::Scalar(128));
  std::vector<cv::KeyPoint> kps(3);
  cv::Mat desc(3, 128, CV_32F);
  SIFTdetectAndCompute(flat, kps, desc, false);
  EXPECT_TRUE(kps.empty());
  EXPECT_TRUE(desc.empty());
}

TEST(SIFTdetectAndCompute, AffineSimulationFindsMore) {
  const cv::Mat image = make_texture(160, 120, 5);
  std::vector<cv::KeyPoint> plain, affine;
  cv::Mat d1, d2;
  SIFTdetectAndCompute(image, plain, d1, false);
  SIFTdetectAndCompute(image, affine, d2, true);
  EXPECT_GT(affine.size(), 2 * plain.size());
  EXPECT_EQ(d2.rows, static_cast<int>(affine.size()));
}

TEST(get_keypoints_descriptors_cpy, CacheHitSkipsExtractionAndSave) {
  const cv::Mat image = make_texture(96, 64, 6);
  Recorder rec;
  rec.remember = true;
  rec.stored.emplace_back("ORIGINAL", std::vector<cv::KeyPoint>(7, cv::KeyPoint(1, 2, 3)));
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  get_keypoints_descriptors_cpy(image, kps, desc, ORIGINAL, rec.loader(), rec.saver(), false);
  EXPECT_EQ(kps.size(), 7u);
  EXPECT_EQ(desc.rows, 7);
  EXPECT_EQ(rec.loads, (std::vector<std::string>{"ORIGINAL"}));
  EXPECT_TRUE(rec.saves.empty());

  // A miss computes on the filtered picture and saves under the type's name.
  get_keypoints_descriptors_cpy(image, kps, desc, MORPHOLOGICAL_OPENING, rec.loader(),
                                rec.saver(), false);
  EXPECT_EQ(rec.saves, (std::vector<std::string>{"MORPHOLOGICAL_OPENING"}));
  std::vector<cv::KeyPoint> expected;
  cv::Mat expected_desc;
  SIFTdetectAndCompute(apply_preprocessing(image, MORPHOLOGICAL_OPENING), expected, expected_desc,
                       false);
  ASSERT_EQ(kps.size(), expected.size());
  EXPECT_EQ(cv::norm(desc, expected_desc, cv::NORM_INF), 0.0);

  // Without callbacks it simply computes.
  get_keypoints_descriptors_cpy(image, kps, desc, GAUSSIAN_BLUR, nullptr, nullptr, false);
  EXPECT_FALSE(kps.empty());
}

TEST(get_keypoints_descriptors_ref, UsesTheUnnamedEntry) {
  const cv::Mat image = make_texture(96, 64, 7);
  Recorder rec;
  std::vector<cv::KeyPoint> kps;
  cv::Mat desc;
  get_keypoints_descriptors_ref(image, kps, desc, rec.loader(), rec.saver());
  EXPECT_EQ(rec.loads, (std::vector<std::string>{"<null>"}));
  EXPECT_EQ(rec.saves, (std::vector<std::string>{"<null>"}));
  EXPECT_FALSE(kps.empty());
}

TEST(generate_copy_features, StoresSixEntriesInOrder) {
  const cv::Mat image = make_texture(96, 64, 8);
  Recorder missing;
  generate_copy_features(image, missing.loader(), missing.saver());
  const std::vector<std::string> all = {"GAUSSIAN_BLUR", "ORIGINAL", "MORPHOLOGICAL_OPENING",
                                        "UNKNOWN",       "UNKNOWN",  "UNKNOWN"};
  EXPECT_EQ(missing.saves, all);
  EXPECT_EQ(missing.loads, all);

  // With a loader that finds what was saved, the second and third UNKNOWN hit.
  Recorder cache;
  cache.remember = true;
  generate_copy_features(image, cache.loader(), cache.saver());
  EXPECT_EQ(cache.saves, std::vector<std::string>(all.begin(), all.begin() + 4));
}

}  // namespace
