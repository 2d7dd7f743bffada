// A result as bytes and back, so that it can travel to another process
// (Python's pickle, a task queue). The layout is private to this file:
// a tag, then every field in a fixed order, numbers in the machine's own
// byte order (results travel between processes of one build, not between
// machines of different kinds).
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "align/align.h"
#include "align/slots.h"
#include "api/result_files.h"
#include "framealign/framealign.h"

namespace framealign {

namespace {

constexpr char kTag[] = "framealign result 4\n";

class Writer {
 public:
  template <typename T>
  void value(const T& v) {
    bytes_.append(reinterpret_cast<const char*>(&v), sizeof(T));
  }
  void text(const std::string& s) {
    value<std::uint64_t>(s.size());
    bytes_ += s;
  }
  void picture(const cv::Mat& m) {
    value<std::int32_t>(m.rows);
    value<std::int32_t>(m.cols);
    for (int r = 0; r < m.rows; ++r) bytes_.append(reinterpret_cast<const char*>(m.ptr(r)), m.cols);
  }
  void mapping(const Mapping& m) {
    for (double v : m.homography.val) value(v);
    for (double v : {m.centre.x, m.centre.y, m.scale, m.k1, m.k2}) value(v);
  }
  std::string bytes_;
};

class Reader {
 public:
  explicit Reader(const std::string& bytes) : bytes_(bytes) {}
  template <typename T>
  T value() {
    T v;
    std::memcpy(&v, take(sizeof(T)), sizeof(T));
    return v;
  }
  std::string text() {
    const std::size_t n = size(bytes_.size());
    return std::string(take(n), n);
  }
  // A count no larger than `most`.
  std::size_t size(std::size_t most) {
    const std::uint64_t n = value<std::uint64_t>();
    if (n > most) fail("a count of " + std::to_string(n));
    return static_cast<std::size_t>(n);
  }
  cv::Mat picture() {
    const int rows = value<std::int32_t>(), cols = value<std::int32_t>();
    if (rows < 0 || cols < 0 || (rows > 0 && cols > std::numeric_limits<int>::max() / rows)) {
      fail("a picture of " + std::to_string(rows) + " x " + std::to_string(cols));
    }
    // The bytes first, so that a damaged size never allocates more than
    // the input could fill.
    const char* bytes = take(static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols));
    cv::Mat m(rows, cols, CV_8UC1);
    if (m.total() > 0) std::memcpy(m.data, bytes, m.total());
    return m;
  }
  Mapping mapping() {
    Mapping m;
    for (double& v : m.homography.val) v = value<double>();
    m.centre.x = value<double>();
    m.centre.y = value<double>();
    m.scale = value<double>();
    m.k1 = value<double>();
    m.k2 = value<double>();
    return m;
  }
  bool flag() {
    const auto v = value<std::uint8_t>();
    if (v > 1) fail("a flag of " + std::to_string(v));
    return v == 1;
  }
  bool at_end() const { return at_ == bytes_.size(); }
  [[noreturn]] static void fail(const std::string& what) {
    throw Error("these bytes are not a framealign result (" + what + ")");
  }

 private:
  const char* take(std::size_t n) {
    if (n > bytes_.size() - at_) fail("they end too early");
    const char* p = bytes_.data() + at_;
    at_ += n;
    return p;
  }
  const std::string& bytes_;
  std::size_t at_ = 0;
};

template <typename T, typename Write>
void optional_field(Writer& w, const std::optional<T>& v, Write write) {
  w.value<std::uint8_t>(v.has_value());
  if (v) write(*v);
}

template <typename T, typename Read>
std::optional<T> optional_field(Reader& r, Read read) {
  if (!r.flag()) return std::nullopt;
  return read();
}

}  // namespace

std::string AlignResult::to_bytes() const {
  Writer w;
  w.bytes_ = kTag;
  w.text(status);
  w.value(score);
  optional_field(w, best_slot, [&](int v) { w.value<std::int32_t>(v); });
  w.value<std::uint64_t>(slot_scores.size());
  for (double v : slot_scores) w.value(v);
  optional_field(w, corners, [&](const std::array<double, 8>& c) { for (double v : c) w.value(v); });
  optional_field(w, est_error_px, [&](double v) { w.value(v); });
  optional_field(w, homography, [&](const cv::Matx33d& h) { for (double v : h.val) w.value(v); });
  optional_field(w, mapping, [&](const Mapping& m) { w.mapping(m); });
  w.text(path);
  w.text(reason);
  w.value<std::uint64_t>(matches.size());
  for (const MatchPoint& m : matches) {
    for (double v : {m.x, m.y, m.residual}) w.value(v);
  }
  w.value<std::uint8_t>(files != nullptr);
  if (!files) return w.bytes_;
  w.picture(files->capture);
  w.value<std::int32_t>(files->width);
  w.value<std::int32_t>(files->height);
  w.value<std::uint8_t>(files->jpeg_output);
  // Of each slot, what its files hold.
  w.value<std::uint64_t>(files->slots.size());
  for (const Slot& slot : files->slots.slots()) {
    w.picture(slot.frame);
    for (double v : slot.corners) w.value(v);
    for (double v : slot.polygon) w.value(v);
    optional_field(w, slot.mapping, [&](const Mapping& m) { w.mapping(m); });
  }
  return w.bytes_;
}

AlignResult AlignResult::from_bytes(const std::string& bytes) {
  if (bytes.compare(0, sizeof(kTag) - 1, kTag) != 0) Reader::fail("no tag");
  const std::string body = bytes.substr(sizeof(kTag) - 1);
  Reader r(body);
  AlignResult out;
  out.status = r.text();
  out.score = r.value<double>();
  out.best_slot = optional_field<int>(r, [&] { return r.value<std::int32_t>(); });
  out.slot_scores.resize(r.size(kSlots));
  for (double& v : out.slot_scores) v = r.value<double>();
  if (out.best_slot && (*out.best_slot < 0 || *out.best_slot >= static_cast<int>(out.slot_scores.size()))) {
    Reader::fail("a best slot outside the slots");
  }
  out.corners = optional_field<std::array<double, 8>>(r, [&] {
    std::array<double, 8> c;
    for (double& v : c) v = r.value<double>();
    return c;
  });
  out.est_error_px = optional_field<double>(r, [&] { return r.value<double>(); });
  out.homography = optional_field<cv::Matx33d>(r, [&] {
    cv::Matx33d h;
    for (double& v : h.val) v = r.value<double>();
    return h;
  });
  out.mapping = optional_field<Mapping>(r, [&] { return r.mapping(); });
  out.path = r.text();
  out.reason = r.text();
  // Each match is 24 bytes: a count beyond what is left cannot be one.
  out.matches.resize(r.size(body.size() / 24));
  for (MatchPoint& m : out.matches) {
    m.x = r.value<double>();
    m.y = r.value<double>();
    m.residual = r.value<double>();
  }
  if (r.flag()) {
    auto files = std::make_shared<Files>();
    files->capture = r.picture();
    files->width = r.value<std::int32_t>();
    files->height = r.value<std::int32_t>();
    files->jpeg_output = r.flag();
    std::vector<Slot> slots(r.size(kSlots));
    for (Slot& slot : slots) {
      slot.frame = r.picture();
      if (slot.frame.rows != files->height || slot.frame.cols != files->width) {
        Reader::fail("a frame of another size");
      }
      for (double& v : slot.corners) v = r.value<double>();
      for (double& v : slot.polygon) v = r.value<double>();
      slot.mapping = optional_field<Mapping>(r, [&] { return r.mapping(); });
      out.frames.push_back(slot.frame);
    }
    files->slots = SlotSet(std::move(slots));
    out.files = files;
  }
  if (!r.at_end()) Reader::fail("bytes left over");
  return out;
}

}  // namespace framealign
