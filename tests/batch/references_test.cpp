#include "batch/references.h"

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

// A reference stays in memory while captures still to run need it, and is
// freed after the last of them; one that cannot be prepared is an error for
// each of its captures.
TEST(References, KeptOnlyWhileCapturesNeedThem) {
  TempDir dir;
  write_yuv420(dir.file("ref.yuv"), make_reference_frame(160, 90, 3));
  CaptureJob first, second, missing;
  first.reference = {dir.file("ref.yuv"), 160, 90, 0};
  second.reference = first.reference;
  missing.reference = {dir.file("none.yuv"), 160, 90, 0};
  References references({&first, &second, &missing});
  const cv::Mat plane = references.get(first.reference).picture();  // shares the frame
  references.done(first.reference);
  EXPECT_GT(plane.u->refcount, 1);
  references.done(second.reference);
  EXPECT_EQ(plane.u->refcount, 1);
  EXPECT_THROW(references.get(missing.reference), framealign::Error);
}

}  // namespace
