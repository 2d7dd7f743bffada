// Reading a capture video frame by frame: frames the video announces but
// the decoder cannot give (a damaged or cut file) are told apart from its
// end, and frames a caller kept are passed over and followed as kept.
#include <opencv2/imgproc.hpp>

#include "core/as_error.h"
#include "video/doubts.h"
#include "video/video_state.h"

namespace framealign {

namespace {

// After this many frames in a row that cannot be decoded, the rest of what
// the video announces is taken as lost with them (a header can announce far
// more than a cut file holds).
constexpr int kMostUnreadable = 900;

}  // namespace

VideoAligner::State::Read VideoAligner::State::read_frame(int n, cv::Mat* picture) {
  // The decoder takes one frame's data per call, whether it can decode it
  // or not, so that the frames after a damaged one keep their numbers.
  const bool read = picture ? video.read(*picture) && !picture->empty() : video.grab();
  if (read) {
    unreadable = 0;
    return Read::frame;
  }
  if (n >= announced) {
    length = n;
    return Read::end;
  }
  if (++unreadable >= kMostUnreadable) length = n + 1;  // this frame's row says the rest
  return Read::damaged;
}

std::string VideoAligner::State::damaged(int n) const {
  const std::string announces = "the video announces " + std::to_string(announced) + " frames";
  if (length == n + 1 && n + 1 < announced) {
    return "frames " + std::to_string(n) + " to " + std::to_string(announced - 1) + " could not be decoded (" +
           announces + "; it is damaged or cut short, and the " + std::to_string(kMostUnreadable - 1) +
           " frames before them could not be decoded either)";
  }
  return "frame " + std::to_string(n) + " could not be decoded (" + announces + "; it is damaged or cut short)";
}

cv::Mat VideoAligner::State::grey_capture(int n, const cv::Mat& picture) {
  if (size.empty()) size = picture.size();
  if (picture.size() != size) {
    throw Error("frame " + std::to_string(n) + " is " + std::to_string(picture.cols) + "x" +
                std::to_string(picture.rows) + ", the frames before it " + std::to_string(size.width) + "x" +
                std::to_string(size.height) + " (a video whose frames change size is aligned at its first size only)");
  }
  cv::Mat grey;
  if (picture.channels() == 1) {
    grey = picture.clone();
  } else {
    cv::cvtColor(picture, grey, picture.channels() == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
  }
  // As framealign reads the frame stored as a PNG.
  cv::add(grey, cv::Scalar(16), grey, grey != 0);
  return grey;
}

void VideoAligner::State::recall(int capture_frame, const KeptFrame& kept) {
  read_clock(capture_frame);
  if (kept.ref_frame < 0 || !kept.corners) {
    tracking = false;
    return;
  }
  seen(capture_frame, kept.ref_frame, *kept.corners);
  if (framealign::corners_in_doubt(kept.unsure)) tracking = false;
}

}  // namespace framealign
