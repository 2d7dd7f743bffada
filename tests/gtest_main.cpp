// Every test starts with OpenCV's random generator as a fresh thread has it:
// FLANN draws its k-d trees from it, so a test's matches must not depend on
// which tests ran before it.
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

namespace {

class FreshRandomGenerator : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { cv::theRNG() = cv::RNG(); }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new FreshRandomGenerator);
  return RUN_ALL_TESTS();
}
