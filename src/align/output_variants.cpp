// Output variants: how an aligned frame is finished, and the --output lists
// that name them.
#include "align/output_variants.h"

#include <cctype>
#include <stdexcept>
#include <string>
#include <vector>

namespace framealign {

namespace {

struct Preset {
  const char* name;
  std::vector<int> variants;
};

const Preset kPresets[] = {
    {"fast", {3}},
    {"medium", {3, 0}},
    {"slow", {3, 0, 4}},
    {"slowest", {3, 0, 4, 2, 1}},
};

void append_unique_output(std::vector<int>& outputs, int variant) {
  for (int existing : outputs) {
    if (existing == variant) return;
  }
  outputs.push_back(variant);
}

std::string trim(const std::string& s) {
  size_t begin = 0;
  size_t end = s.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(s[begin]))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(s[end - 1]))) --end;
  return s.substr(begin, end - begin);
}

}  // namespace

std::string append_output_list(const std::string& value, std::vector<int>& outputs) {
  size_t pos = 0;
  while (true) {
    const size_t comma = value.find(',', pos);
    const std::string token =
        trim(value.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos));
    if (token.empty()) {
      return "Error: Invalid --output value: empty token";
    }
    std::string lower = token;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));

    const Preset* preset = nullptr;
    for (const Preset& p : kPresets) {
      if (lower == p.name) preset = &p;
    }
    if (preset != nullptr) {
      for (int v : preset->variants) append_unique_output(outputs, v);
    } else {
      int number = 0;
      size_t used = 0;
      try {
        number = std::stoi(token, &used);
      } catch (const std::exception&) {
        used = 0;
      }
      if (used == 0 || used != token.size()) {
        return "Error: Invalid --output value: " + token;
      }
      if (!is_output_variant(number)) {
        return "Error: --output value must be 0, 1, 2, 3, 4, fast, medium, slow, or slowest";
      }
      append_unique_output(outputs, number);
    }
    if (comma == std::string::npos) return "";
    pos = comma + 1;
  }
}

void check_output_variant(int code) {
  if (!is_output_variant(code)) {
    throw std::invalid_argument("output variant " + std::to_string(code) + " is not one of 0 to 4");
  }
}

}  // namespace framealign
