#include "align/align.h"

std::string get_preprocessing_name(PreprocessingType type) {
  switch (type) {
    case GAUSSIAN_BLUR:
      return "GAUSSIAN_BLUR";
    case ORIGINAL:
      return "ORIGINAL";
    case MORPHOLOGICAL_OPENING:
      return "MORPHOLOGICAL_OPENING";
  }
  return "UNKNOWN";
}
