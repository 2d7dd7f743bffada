// Another project's program, built against an installed framealign.
#include <cstdio>

#include <align/align.h>

int main() {
  double corners[8];
  frame_corners(1920, 1080, corners);
  std::printf("%s %g\n", get_preprocessing_name(ORIGINAL).c_str(), corners[7]);
  return check_ref_pts_sanity(corners, 1920, 1080) ? 0 : 1;
}
