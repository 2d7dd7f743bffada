// Output variants: the CLAHE settings that finish an aligned frame, and the
// --output list that names them.
#pragma once

#include <string>
#include <vector>

namespace framealign {

// CLAHE setting of an output variant.
struct ClaheSetting {
  float clip_limit;
  int tiles_x;  // tiles across
  int tiles_y;  // tiles down
};

// Output variants: 0 is the raw aligned plane (clip limit 0 here means "no
// CLAHE"), 1..4 are CLAHE settings (see adaptive_histogram_equalization).
// Codes outside 0..4 are left raw too.
constexpr ClaheSetting kOutputVariants[5] = {
    {0.0f, 0, 0}, {40.0f, 12, 8}, {20.0f, 32, 32}, {18.0f, 40, 64}, {20.0f, 80, 45}};

// Whether `code` names an output variant (0..4).
constexpr bool is_output_variant(int code) { return code >= 0 && code < 5; }

// Throws std::invalid_argument ("output variant N is not one of 0 to 4")
// unless `code` names an output variant.
void check_output_variant(int code);

// The variant of the enhanced copy of every search result.
constexpr int kEnhancedCopyVariant = 2;

// Finishes a plane as output variant `code` (0 and unknown codes: unchanged).
void apply_output_variant(unsigned char* buffer, int width, int height, int code);

// Adds the output variants named by one --output value (numbers 0..4 and the
// presets fast, medium, slow, slowest, comma-separated, each once). Returns
// "" or framealign's error line (without a line end); variants appended
// before a bad token stay in the list.
std::string append_output_list(const std::string& value, std::vector<int>& outputs);

}  // namespace framealign
