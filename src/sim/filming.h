// What happens while a screen is filmed, beyond the camera itself: the
// player's clock (paused, sought), a hand in front of the screen, the
// backlight's PWM, the camera's auto exposure and how much of the screen
// stays in view.
#pragma once

#include <map>
#include <vector>

#include <opencv2/core.hpp>

#include "sim/video.h"

// The reference frame the player shows at each moment.
class PlayerClock {
 public:
  explicit PlayerClock(const VideoSettings& v);
  int frame_at(double t) const;
  // The first moment after t at which the frame shown may change.
  double next_change(double t) const;
  // How long each frame is shown within [a, b), as shares.
  std::map<int, double> shown_during(double a, double b) const;

 private:
  struct Segment {
    double start;
    int first_frame;
    bool playing;
  };
  std::vector<Segment> segments_;
  double fps_;
  int frames_;
};

// Draws a hand, at time t of a clip of `seconds`, into `light` (capture
// size); returns the share of the screen (the quadrilateral `corners`,
// TL TR BL BR) it covers. Nothing while it is out of the picture.
double draw_hand(cv::Mat& light, double t, double seconds, const double* corners);

// The backlight's brightness over each row's exposure: `pwm_hz` square
// wave, on half of each period, its off half at 40% of the light.
double backlight(double start, double exposure, double pwm_hz);

// Share of the screen (TL TR BL BR corners) inside a capture of `size`.
double share_in_view(const double* corners, cv::Size size);
