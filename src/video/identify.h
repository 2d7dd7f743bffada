// Telling which reference frames an aligned frame of a filmed screen shows.
//
// Every reference frame in range is kept as a tiny picture for a first
// look over all of them; the frames near the best of that look are then
// compared band by band (horizontal bands of the screen), and each band is
// given the frame it matches best, with the frames in the order a rolling
// shutter reads them (downwards or upwards through the screen) and a price
// on every change, so that noise does not read as a mixed frame.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include <opencv2/core.hpp>

namespace framealign {

struct Identity {
  bool found = false;
  int ref_frame = -1;           // the frame of the band at the screen's middle
  std::vector<int> ref_frames;  // the bands' frames, top to bottom, each once
  double sync_score = 1.0;      // mean over bands of 1 - correlation
  std::vector<int> band_frames;  // each band's frame, top to bottom
  // Each band's 1 - correlation with its frame; negative for a flat band.
  std::vector<double> band_costs;
  // Told on the small part of the picture where the frames near it differ
  // (the bands cannot tell such frames apart, nor, then, a geometry found
  // against one of them), and whether that part told them apart clearly.
  bool by_differences = false;
  bool unsure = false;
};

class FrameIndex {
 public:
  // `read(n)` gives reference frame n (CV_8UC1, width x height); frames
  // first..last are indexed.
  FrameIndex(const std::function<cv::Mat(int)>& read, int first, int last);

  // What `aligned` (a frame warped onto the reference, CV_8UC1) shows;
  // `expected`, when given, is the frame the screen's clock expects at its
  // middle (fractional), which decides between frames alike.
  Identity identify(const cv::Mat& aligned, const double* expected = nullptr);

  int first() const { return first_; }
  int last() const { return last_; }

 private:
  struct Bands {
    cv::Mat values;              // CV_32F, one row per band, each zero-mean and unit-length
    std::vector<bool> informative;  // bands with texture enough to tell frames apart
    cv::Mat small;               // CV_32F, the frame at the bands' width
  };
  const Bands& bands_of(int frame);
  std::vector<int> window_around(const cv::Mat& aligned, const double* expected) const;
  // Frames alike but for a small part (a cursor, a street's passers-by):
  // the bands cannot tell them apart, the pixels where they differ can
  // (differences.cpp).
  void decide_on_differences(const cv::Mat& aligned, const std::vector<int>& window, Identity& identity);
  std::vector<std::vector<double>> state_costs(const cv::Mat& seen,
                                               const std::vector<bool>& informative,
                                               const std::vector<int>& window,
                                               std::vector<std::vector<double>>& weight);

  std::function<cv::Mat(int)> read_;
  int first_, last_;
  cv::Mat glance_;  // CV_32F, one zero-mean unit-length row per frame
  std::map<int, Bands> bands_;  // the frames compared band by band lately
};

// A picture's bands as rows: `picture` reduced to the band size, each band
// made zero-mean and unit-length (flat ones left zero and marked).
void band_rows(const cv::Mat& picture, int bands, cv::Size size, cv::Mat& values,
               std::vector<bool>& informative);

}  // namespace framealign
