#include <gtest/gtest.h>

#include "test_support.h"

namespace {

// Callbacks that record the entry names asked for (null as "<null>"); the
// loader finds what the saver stored.
struct Recorder {
  std::vector<std::string> loads, saves;
  FeatureLoadCallback loader() {
    return [this](std::vector<cv::KeyPoint>& k, cv::Mat& d, const char* name) {
      loads.push_back(name ? name : "<null>");
      if (std::find(saves.begin(), saves.end(), loads.back()) == saves.end()) return false;
      k.assign(7, cv::KeyPoint(1, 2, 3));
      d = cv::Mat(7, 128, CV_32F, cv::Scalar(1));
      return true;
    };
  }
  FeatureSaveCallback saver() {
    return [this](const std::vector<cv::KeyPoint>&, const cv::Mat&, const char* name) {
      saves.push_back(name ? name : "<null>");
    };
  }
};

// Type values 0..5 in turn; 3..5 all share the "UNKNOWN" entry, so the last
// two passes find what the first stored.
TEST(generate_copy_features, StoresEveryEntryOnce) {
  Recorder cache;
  generate_copy_features(make_reference_frame(96, 64, 8), cache.loader(), cache.saver());
  const std::vector<std::string> names = {"GAUSSIAN_BLUR", "ORIGINAL", "MORPHOLOGICAL_OPENING",
                                          "UNKNOWN", "UNKNOWN", "UNKNOWN"};
  EXPECT_EQ(cache.loads, names);
  EXPECT_EQ(cache.saves, std::vector<std::string>(names.begin(), names.begin() + 4));
}

}  // namespace
