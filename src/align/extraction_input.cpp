// What the alignment driver hands a capture to when it has a reference and
// no corners: the capture as it lies (no rectification), or the quick path
// and the rectification search; every result gets its enhanced copy.
#include <cstring>
#include <optional>
#include <stdexcept>

#include "align/alignment_driver.h"
#include "align/hinted.h"
#include "align/quick_path.h"
#include "align/search.h"
#include "align/warps.h"
#include "core/plane_io.h"

namespace framealign {

namespace {

// The reference's tuned features (from the job's cache when it has them).
struct ReferenceFeatures {
  std::vector<cv::KeyPoint> keypoints;
  cv::Mat descriptors;
};
ReferenceFeatures reference_features(const AlignmentJob& job) {
  ReferenceFeatures ref;
  get_keypoints_descriptors_ref(job.reference, ref.keypoints, ref.descriptors, job.load, job.save);
  return ref;
}

// The quick path's verified slot, or why there is none.
VerifiedAttempt quick_attempt(const AlignmentJob& job) {
  stop_if_asked(job.stop);
  QuickFeatures computed;
  if (job.quick_reference == nullptr) computed = quick_features(job.reference);
  const ReferenceFeatures ref = reference_features(job);
  return quick_rectified_img(job.input, job.reference,
                             job.quick_reference ? *job.quick_reference : computed, ref.keypoints,
                             ref.descriptors);
}

// A hinted alignment: the verified answer, or the capture warped by the
// hint as given with the reason it was not verified.
Alignment hinted_alignment(const AlignmentJob& job, const Plan& plan) {
  stop_if_asked(job.stop);
  const ReferenceFeatures ref = reference_features(job);
  stop_if_asked(job.stop);
  VerifiedAttempt attempt =
      hinted_slot(job.input, *job.hint, job.reference, ref.keypoints, ref.descriptors);
  if (attempt.slot) {
    const double score = attempt.slot->score;
    return Alignment{
        plan, score, plan.path(false), SlotSet::with_enhanced_copies({std::move(*attempt.slot)}),
        "",   {}};
  }
  Slot given = unverified_hint_slot(job.input, *job.hint, job.width, job.height);
  return Alignment{
      plan, kFailedScore, plan.path(false), SlotSet::with_enhanced_copies({given}), attempt.reason,
      {}};
}

}  // namespace

Alignment extraction_slots(const AlignmentJob& job) {
  const Plan plan = job.plan();
  if (plan.mode == AlignmentMode::NO_RECTIFY) {
    Slot slot = Slot::blank(job.width, job.height);
    copy_plane(job.input, slot.frame.data, job.width, job.height);
    write_frame_polygon(job.width, job.height, slot.polygon.data());
    // No score: the capture was not searched.
    return Alignment{plan, 0.0, "", SlotSet::with_enhanced_copies({slot}), "", {}};
  }
  if (plan.mode == AlignmentMode::HINTED) return hinted_alignment(job, plan);
  std::string refused;  // why the quick answer was not taken
  if (plan.quick_first) {
    VerifiedAttempt quick = quick_attempt(job);
    if (quick.slot) {
      const double score = quick.slot->score;
      return Alignment{
          plan, score, plan.path(true), SlotSet::with_enhanced_copies({std::move(*quick.slot)}),
          "",   {}};
    }
    refused = "quick path refused: " + quick.reason;
  }
  SearchTerms terms;
  terms.advanced = job.advanced;
  terms.refine = plan.refine;
  terms.stop = job.stop;
  Found found = search_slots(job.input, job.reference, job.load, job.save, terms);
  const std::string reason = found.reason.empty() || refused.empty()
                                 ? found.reason + refused
                                 : found.reason + "; " + refused;
  return Alignment{plan,
                   found.best_score,
                   plan.path(false),
                   SlotSet::with_enhanced_copies(std::move(found.results)),
                   reason,
                   std::move(found.evidence)};
}

int generate_extraction_input(const char* result_folder, const cv::Mat& image,
                              const unsigned char* reference, int width, int height, int no_rectify,
                              const double* pts_in, unsigned char** aligned, double (*pts)[8],
                              double (*content_pts)[20], double* best_score,
                              const FeatureLoadCallback& load, const FeatureSaveCallback& save,
                              bool advanced) {
  (void)result_folder;  // read by nothing the search calls
  if (pts_in[7] != 0.0 || reference == nullptr) {
    throw std::invalid_argument(
        "generate_extraction_input: given corners and a missing reference are the alignment "
        "driver's modes");
  }
  AlignmentJob job;
  job.input = image;
  job.reference = cv::Mat(height, width, CV_8UC1, const_cast<unsigned char*>(reference));
  job.width = width;
  job.height = height;
  job.no_rectify = no_rectify != 0;
  job.advanced = advanced;
  job.load = load;
  job.save = save;
  const Alignment alignment = extraction_slots(job);
  const SlotSet& slots = alignment.slots;
  const int k = slots.results();
  for (int i = 0; i < slots.size(); ++i) {
    std::memcpy(aligned[i], slots[i].frame.data, luma_plane_size(width, height));
  }
  // The copies' rows are not written: the writer reads row i modulo k. Nor
  // are the corners and score of a capture that was not searched.
  for (int j = 0; j < k; ++j) {
    std::copy(slots[j].polygon.begin(), slots[j].polygon.end(), content_pts[j]);
    if (!job.no_rectify) std::copy(slots[j].corners.begin(), slots[j].corners.end(), pts[j]);
  }
  if (!job.no_rectify) *best_score = alignment.score;
  return slots.size();
}

}  // namespace framealign
