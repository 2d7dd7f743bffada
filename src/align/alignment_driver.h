// The alignment driver: one alignment's request (AlignmentJob), its plan,
// and the slots it ends with. framealign, align() and the video aligner all
// come through run_alignment.
#pragma once

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "align/align.h"
#include "align/plan.h"
#include "align/quick_path.h"
#include "align/slots.h"
#include "core/stop.h"

namespace framealign {

// One alignment's request.
struct AlignmentJob {
  cv::Mat input;      // CV_8UC1, rows packed
  cv::Mat reference;  // CV_8UC1, width x height; empty: none
  int width = 0;
  int height = 0;
  std::optional<std::array<double, 8>> corners;  // given by hand
  std::optional<std::array<double, 8>> hint;     // rough corners: where to look, refined
  int crop_width = 0;                            // with corners: the crop aspect to pad to; 0: none
  int crop_height = 0;
  std::vector<int> outputs;  // with corners: output variants (empty: 3, 0)
  bool no_rectify = false;
  bool advanced = false;
  bool refine = false;
  bool fast = false;
  FeatureLoadCallback load;
  FeatureSaveCallback save;
  // The reference's quick features, when the caller keeps them; computed
  // per call otherwise.
  const QuickFeatures* quick_reference = nullptr;
  // Set by another thread to stop the alignment (see stop_if_asked).
  const std::atomic<bool>* stop = nullptr;

  // What this job asks for, decided once (see make_plan).
  Plan plan() const {
    Request request;
    request.has_reference = !reference.empty();
    request.corners_given = corners.has_value();
    request.hinted = hint.has_value();
    request.no_rectify = no_rectify;
    request.refine = refine;
    request.fast = fast;
    return make_plan(request);
  }
};

// What one alignment ended with.
struct Alignment {
  Plan plan;
  double score = 0.0;  // align_frame's return value
  std::string path;    // see Plan::path
  SlotSet slots;
  // Why the answer is not there or not trusted, or why the quick path's
  // was refused, in words; "" otherwise.
  std::string reason;
  // With no result slot: the matches the search had best (Found::evidence).
  std::vector<MatchPoint> evidence;

  std::string status() const { return plan.status(score); }
};

// Runs the alignment of `job` in its plan's mode. Exceptions from any stage,
// worker threads' included, reach the caller.
Alignment run_alignment(const AlignmentJob& job);

// What a capture with a reference and no corners gives (no rectification,
// or the quick path and the search); every result with its enhanced copy.
Alignment extraction_slots(const AlignmentJob& job);

// Writes the result folder of `slots` (aligned_i__WxxH.yuv, pts_i.txt,
// content_pts_i.txt, the previews with `jpeg_output`, mapping_i.txt for a
// slot with a mapping), one thread per slot, then best_result.txt last.
// Throws std::runtime_error naming the first file that could not be written.
void write_result_folder(const std::string& folder, const cv::Mat& capture, const SlotSet& slots,
                         double best_score, bool jpeg_output);

}  // namespace framealign
