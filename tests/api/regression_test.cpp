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
  bool unrelated = false;  // the capture shows another frame than the reference
};

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

// The result as one line per fact, files last.
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
  for (const auto& [name, bytes] : read_folder(folder)) {
    char line[128];
    std::snprintf(line, sizeof(line), "%s %016" PRIx64 "\n", name.c_str(), fnv1a(bytes));
    text += line;
  }
  return text;
}

void plain(CaptureSettings&) {}
void mirrored(CaptureSettings& s) { s.mirror = true; }
void hard(CaptureSettings& s) {
  s.blur = 3.5;
  s.noise = 10;
  s.moire = 0.35;
  s.perspective = 0.2;
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
aligned_0__640xx360.yuv af3718dee36d494b
aligned_1__640xx360.yuv ff5b1872a659f4a4
aligned_2__640xx360.yuv 0aa2adafd83003b4
aligned_3__640xx360.yuv 5a6a7c7ba1442049
aligned_4__640xx360.yuv 279a5bcc7083729b
aligned_5__640xx360.yuv cc11be236355b49d
best_result.txt cc4890fa90aa4af7
content_pts_0.txt 24dbe67121a013f9
content_pts_1.txt 24dbe67121a013f9
content_pts_2.txt 24dbe67121a013f9
content_pts_3.txt 24dbe67121a013f9
content_pts_4.txt 24dbe67121a013f9
content_pts_5.txt 24dbe67121a013f9
pts_0.txt 1a8ae5fd0a221f14
pts_1.txt c06cb8c6f1f3b87e
pts_2.txt 487fee489d7db2b6
pts_3.txt 1a8ae5fd0a221f14
pts_4.txt c06cb8c6f1f3b87e
pts_5.txt 487fee489d7db2b6
)"},
    {"refined", 11, plain, refined, R"(aligned score 0.0712351746 slot 1
slot_scores 0.0719431318 0.0712351746 0.0715993186
corners 169.432099 150.298048 823.486268 135.079104 149.992114 511.102278 803.617041 488.717084
est_error_px 0.486131 path -
aligned_0__640xx360.yuv dbe3c1858cd3eeb2
aligned_1__640xx360.yuv e5b243148a0436df
aligned_2__640xx360.yuv 55fb3f42f1a1573e
aligned_3__640xx360.yuv e105495a0c6e85b6
aligned_4__640xx360.yuv f99cd1b603e9c075
aligned_5__640xx360.yuv 655901918a75f663
best_result.txt cc4890fa90aa4af7
content_pts_0.txt 24dbe67121a013f9
content_pts_1.txt 24dbe67121a013f9
content_pts_2.txt 24dbe67121a013f9
content_pts_3.txt 24dbe67121a013f9
content_pts_4.txt 24dbe67121a013f9
content_pts_5.txt 24dbe67121a013f9
pts_0.txt 2e38c3e594484f44
pts_1.txt 8587d650df20ecec
pts_2.txt e32aafdf7b6000b4
pts_3.txt 2e38c3e594484f44
pts_4.txt 8587d650df20ecec
pts_5.txt e32aafdf7b6000b4
)"},
    {"fast", 11, plain, fast, R"(aligned score 0.0713762537 slot 0
slot_scores 0.0713762537
corners 169.369239 150.244938 823.498815 135.129152 149.852890 511.069267 803.577803 488.649067
est_error_px 0.505792 path fast
aligned_0__640xx360.yuv 8f4e7064a1047c0b
aligned_1__640xx360.yuv 7f14b6a45d64df81
best_result.txt 6c5f4cf1cd5b4d01
content_pts_0.txt 24dbe67121a013f9
content_pts_1.txt 24dbe67121a013f9
pts_0.txt 5234779cad62e99a
pts_1.txt 5234779cad62e99a
)"},
    {"advanced_mirrored", 12, mirrored, advanced, R"(aligned score 0.0880596024 slot 1
slot_scores 0.110976512 0.0880596024 0.0911023806
corners 217.922028 198.441254 835.921936 190.979324 184.294754 536.830688 819.287537 540.410095
est_error_px - path -
aligned_0.jpg 1caa6acac8c2cec9
aligned_0__640xx360.yuv a22e5bee4a39922d
aligned_1.jpg 1f0b8ddd4d5819ba
aligned_1__640xx360.yuv 49ec06434846ebf2
aligned_2.jpg c6c3c67ce48670c0
aligned_2__640xx360.yuv 085549cd53660d9f
aligned_3.jpg 62e2062816bf3a7e
aligned_3__640xx360.yuv e33f05a66688a642
aligned_4.jpg 21471471ec6ba2b1
aligned_4__640xx360.yuv f61eb1e49ec855b5
aligned_5.jpg 0c4ec6aad23800a0
aligned_5__640xx360.yuv f93c079d0e2f1781
best_result.txt fc80c09c89cce9a3
content_pts_0.txt 24dbe67121a013f9
content_pts_1.txt 24dbe67121a013f9
content_pts_2.txt 24dbe67121a013f9
content_pts_3.txt 24dbe67121a013f9
content_pts_4.txt 24dbe67121a013f9
content_pts_5.txt 24dbe67121a013f9
in_0.jpg c4f78e5028946de8
in_1.jpg 223701d3397395a7
in_2.jpg 223701d3397395a7
in_3.jpg c4f78e5028946de8
in_4.jpg 223701d3397395a7
in_5.jpg 223701d3397395a7
pts_0.txt bf6f3c93f1047fd3
pts_1.txt 99a83826ed1b5421
pts_2.txt 31046c3b560a5d3b
pts_3.txt bf6f3c93f1047fd3
pts_4.txt 99a83826ed1b5421
pts_5.txt 31046c3b560a5d3b
)"},
    {"hard", 13, hard, refined, R"(aligned score 0.793735507 slot 1
slot_scores 1.15709896 0.793735507 1.08598085
corners 212.474533 155.318039 804.935059 159.278000 191.253296 513.232422 913.349487 609.444763
est_error_px 4.764312 path -
aligned_0__640xx360.yuv 419c971d4fcf9fb5
aligned_1__640xx360.yuv b7b84aae893ccf94
aligned_2__640xx360.yuv 0825cc06bf993938
aligned_3__640xx360.yuv a989a20a2c4c4b95
aligned_4__640xx360.yuv 875ac33538e3f702
aligned_5__640xx360.yuv c04cee8e4e2fcf42
best_result.txt 8d1183b8b07ac1bc
content_pts_0.txt 24dbe67121a013f9
content_pts_1.txt 24dbe67121a013f9
content_pts_2.txt 24dbe67121a013f9
content_pts_3.txt 24dbe67121a013f9
content_pts_4.txt 24dbe67121a013f9
content_pts_5.txt 24dbe67121a013f9
pts_0.txt 4277f80ad893136a
pts_1.txt 402a859cc40ce68d
pts_2.txt 1b49b39486bdcd90
pts_3.txt 4277f80ad893136a
pts_4.txt 402a859cc40ce68d
pts_5.txt 1b49b39486bdcd90
)"},
    {"corners_slow_cropped", 11, plain, given_corners, R"(aligned score 0 slot -
slot_scores
corners 169.511688 150.267746 823.667297 134.915207 149.937454 511.176270 803.675049 488.767822
est_error_px - path -
aligned_0__640xx360.yuv 4f920e0c3e3e42d8
aligned_1__640xx360.yuv 629b91724e3657a3
aligned_2__640xx360.yuv 360afc3b06c34956
best_result.txt debe40b024d431b5
content_pts_0.txt 143c5c3e64159a25
content_pts_1.txt 143c5c3e64159a25
content_pts_2.txt 143c5c3e64159a25
pts_0.txt 9cd1bbabf1f0ddee
pts_1.txt 9cd1bbabf1f0ddee
pts_2.txt 9cd1bbabf1f0ddee
)"},
    {"unrectified", 11, plain, unrectified, R"(unrectified score 0 slot -
slot_scores
corners
est_error_px - path -
aligned_0__640xx360.yuv ab298a13fc2c78ae
aligned_1__640xx360.yuv 93027cd6abe89792
best_result.txt debe40b024d431b5
content_pts_0.txt 2e4f47cb3f8311ad
content_pts_1.txt 2e4f47cb3f8311ad
pts_0.txt efcafff056e39401
pts_1.txt efcafff056e39401
)"},
    {"unrelated", 14, plain, search, R"(not_found score 999999 slot -
slot_scores
corners
est_error_px - path -
best_result.txt f05495a71365f305
)", true},
};

class Pinned : public testing::TestWithParam<Case> {};

TEST_P(Pinned, ResultsAndFilesAreUnchanged) {
  const Case& c = GetParam();
  const cv::Mat frame = make_reference_frame(640, 360, c.seed);
  const cv::Mat shown = c.unrelated ? make_reference_frame(640, 360, c.seed + 1000) : frame;
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
  EXPECT_EQ(found, c.pinned) << "found:\nR\"(" << found << ")\"";
}

INSTANTIATE_TEST_SUITE_P(align, Pinned, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

}  // namespace
