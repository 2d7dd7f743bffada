// What users get, pinned: for a few fixed simulator captures and modes, the
// status, the slot scores, the best slot, the corners to 1e-6 and the bytes
// of every file of the saved result folder (by checksum). Any change to a
// tuned number, an order or a layout shows here. When a change is meant,
// update the pinned text in the same commit and say why; a failing case
// prints the text it found.
#include <cinttypes>
#include <cstdio>

#include <gtest/gtest.h>

#include "framealign/framealign.h"
#include "test_support.h"

namespace {

struct Case {
  const char* name;
  std::uint64_t seed;
  void (*settings)(CaptureSettings&);
  void (*options)(framealign::AlignOptions&, const Capture&);
  const char* pinned;
  // What the capture shows: the reference, another frame, the reference's
  // background with other shapes, or a faint reference (of 0.3 the contrast,
  // the reference so too): plain SIFT finds too few matches on it for the
  // quick path, so that only the full search may answer.
  enum Shown { REFERENCE, UNRELATED, OTHER_SHAPES, FAINT } shown = REFERENCE;
};

// Tests are named after their case, not shown as bytes.
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

std::uint64_t fnv1a(const std::vector<unsigned char>& bytes) {
  std::uint64_t hash = 1469598103934665603ULL;
  for (unsigned char b : bytes) hash = (hash ^ b) * 1099511628211ULL;
  return hash;
}

std::string format(const char* pattern, double value) {
  char text[64];
  std::snprintf(text, sizeof(text), pattern, value);
  return text;
}

// Every file of a folder with the checksum of its bytes, a line each.
std::string file_sums(const std::string& folder) {
  std::string text;
  for (const auto& [name, bytes] : read_folder(folder)) {
    char line[128];
    std::snprintf(line, sizeof(line), "%s %016" PRIx64 "\n", name.c_str(), fnv1a(bytes));
    text += line;
  }
  return text;
}

// The result as one line per fact, the folder's files last (their count
// and one checksum over the names and checksums of them all).
std::string describe(const framealign::AlignResult& r, const std::string& folder) {
  std::string text = r.status + " score " + format("%.9g", r.score) + " slot " +
                     (r.best_slot ? std::to_string(*r.best_slot) : "-") + "\nslot_scores";
  for (double s : r.slot_scores) text += " " + format("%.9g", s);
  text += "\ncorners";
  if (r.corners) {
    for (double c : *r.corners) text += " " + format("%.6f", c);
  }
  text += "\nest_error_px " + (r.est_error_px ? format("%.6f", *r.est_error_px) : "-") + " path " +
          (r.path.empty() ? "-" : r.path) + "\n";
  const std::string files = file_sums(folder);
  char line[64];
  std::snprintf(line, sizeof(line), "files %zu %016" PRIx64, read_folder(folder).size(),
                fnv1a(std::vector<unsigned char>(files.begin(), files.end())));
  return text + line;
}

void plain(CaptureSettings&) {}
void mirrored(CaptureSettings& s) { s.mirror = true; }
void hard(CaptureSettings& s) {
  s.blur = 3.5;
  s.noise = 10;
  s.moire = 0.35;
  s.perspective = 0.2;
}
// Captures on which some attempts fail: the failed slots move behind.
void small_screen(CaptureSettings& s) {
  s.screen_scale = 0.2;
  s.blur = 2;
  s.noise = 8;
}
void steep_small(CaptureSettings& s) {
  s.perspective = 0.3;
  s.blur = 2.5;
  s.noise = 10;
  s.screen_scale = 0.35;
}
void blurred_steep(CaptureSettings& s) {
  s.blur = 4;
  s.noise = 12;
  s.moire = 0.4;
  s.perspective = 0.25;
}
void clean(CaptureSettings& s) {
  s.noise = 0.5;
  s.blur = 0.5;
  s.vignette = 0;
}
void search(framealign::AlignOptions&, const Capture&) {}
void refined(framealign::AlignOptions& o, const Capture&) { o.refine = true; }
void fast(framealign::AlignOptions& o, const Capture&) { o.fast = true; }
void advanced(framealign::AlignOptions& o, const Capture&) {
  o.advanced = true;
  o.jpeg_output = true;
}
void given_corners(framealign::AlignOptions& o, const Capture& c) {
  o.corners.emplace();
  std::copy(c.corners, c.corners + 8, o.corners->begin());
  o.outputs = framealign::parse_outputs("slow");
  o.crop_width = 360;
  o.crop_height = 360;
}
void unrectified(framealign::AlignOptions& o, const Capture&) { o.no_rectify = true; }

const Case kCases[] = {
    {"search", 11, plain, search, R"(aligned score 0.0712351746 slot 1
slot_scores 0.0719431318 0.0712351746 0.0715993186
corners 169.392136 150.466217 823.307373 135.132767 149.929825 511.271698 803.804626 488.798431
est_error_px - path -
files 19 ea8e9bdbfcef2815)"},
    {"refined", 11, plain, refined, R"(aligned score 0.0712351746 slot 1
slot_scores 0.0719431318 0.0712351746 0.0715993186
corners 169.432099 150.298048 823.486268 135.079104 149.992114 511.102278 803.617041 488.717084
est_error_px 0.486131 path -
files 19 9b029bc0614e2f01)"},
    {"fast", 11, plain, fast, R"(aligned score 0.0713762537 slot 0
slot_scores 0.0713762537
corners 169.369239 150.244938 823.498815 135.129152 149.852890 511.069267 803.577803 488.649067
est_error_px 0.505792 path fast
files 7 3b03b8882a7e1cfc)"},
    {"advanced_mirrored", 12, mirrored, advanced, R"(aligned score 0.0880596024 slot 1
slot_scores 0.110976512 0.0880596024 0.0911023806
corners 217.922028 198.441254 835.921936 190.979324 184.294754 536.830688 819.287537 540.410095
est_error_px - path -
files 31 103e4f4257ae2266)"},
    {"hard", 13, hard, refined, R"(aligned score 0.793735507 slot 1
slot_scores 1.15709896 0.793735507 1.08598085
corners 212.474533 155.318039 804.935059 159.278000 191.253296 513.232422 913.349487 609.444763
est_error_px 4.764312 path -
files 19 28bdaa632da1dff5)"},
    {"corners_slow_cropped", 11, plain, given_corners, R"(aligned score 0 slot -
slot_scores
corners 169.511688 150.267746 823.667297 134.915207 149.937454 511.176270 803.675049 488.767822
est_error_px - path -
files 10 6c488c46c43b5913)"},
    {"unrectified", 11, plain, unrectified, R"(unrectified score 0 slot -
slot_scores
corners
est_error_px - path -
files 7 37d80460549d85ac)"},
    {"small_screen", 1, small_screen, search, R"(aligned score 10.7022764 slot 1
slot_scores 12.0769428 10.7022764
corners 462.875061 329.283203 634.494202 324.648468 457.602112 432.596771 647.942993 429.344574
est_error_px - path -
files 13 4d82995815b306f5)"},
    {"steep_small", 3, steep_small, search, R"(aligned score 13.4169813 slot 0
slot_scores 13.4169813
corners 181.144211 204.127335 490.412384 126.453918 228.318878 309.004395 439.775024 386.979828
est_error_px - path -
files 7 b8df357c4edf6db6)"},
    {"blurred_steep", 3, blurred_steep, search, R"(aligned score 5.42863072 slot 0
slot_scores 5.42863072 10.8551556
corners 92.641708 193.011871 707.943054 72.049141 159.192047 413.576691 670.175720 556.054626
est_error_px - path -
files 13 bcdb1c54a876f247)"},
    {"fast_faint", 1, clean, fast, R"(aligned score 0.0397153445 slot 2
slot_scores 0.0679615168 0.040810622 0.0397153445
corners 185.856472 199.086074 809.022806 194.335211 189.881400 568.644020 832.492296 546.840692
est_error_px 0.366849 path full
files 19 c5de9afc6d5df516)", Case::FAINT},
    {"other_shapes", 1, plain, search, R"(not_found score 999999 slot -
slot_scores
corners
est_error_px - path -
files 1 c13a206f4237004b)", Case::OTHER_SHAPES},
    {"unrelated", 14, plain, search, R"(not_found score 999999 slot -
slot_scores
corners
est_error_px - path -
files 1 c13a206f4237004b)", Case::UNRELATED},
};

class Pinned : public testing::TestWithParam<Case> {};

TEST_P(Pinned, ResultsAndFilesAreUnchanged) {
  const Case& c = GetParam();
  cv::Mat frame = make_reference_frame(640, 360, c.seed);
  if (c.shown == Case::FAINT) frame.convertTo(frame, CV_8U, 0.3, 128 - 128 * 0.3);
  const cv::Mat shown = c.shown == Case::UNRELATED      ? make_reference_frame(640, 360, c.seed + 1000)
                        : c.shown == Case::OTHER_SHAPES ? make_reference_frame(640, 360, c.seed, c.seed + 1)
                                                        : frame;
  CaptureSettings settings;
  settings.capture_width = 960;
  settings.capture_height = 720;
  settings.seed = c.seed;
  c.settings(settings);
  const Capture capture = render_capture(shown, settings);
  framealign::AlignOptions options;
  c.options(options, capture);
  const framealign::AlignResult result =
      framealign::align(capture.picture, framealign::Reference::from_picture(frame), options);
  TempDir dir;
  result.save(dir.file("out"));
  const std::string found = describe(result, dir.file("out"));
  EXPECT_EQ(found, c.pinned) << "found:\nR\"(" << found << ")\"\nfiles:\n" << file_sums(dir.file("out"));
}

INSTANTIATE_TEST_SUITE_P(align, Pinned, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

}  // namespace
