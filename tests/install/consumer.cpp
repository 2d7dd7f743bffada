// Another project's program, built against an installed framealign: the
// README's example. Usage: consumer CAPTURE REFERENCE.yuv WIDTH HEIGHT
#include <cstdio>
#include <cstdlib>

#include <framealign/framealign.h>

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  try {
    const auto reference = framealign::Reference::from_yuv(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    const framealign::AlignResult result = framealign::align(framealign::read_capture(argv[1]), reference);
    if (result.status != "aligned") return 1;
    std::printf("%d", *result.best_slot);
    for (double value : *result.corners) std::printf(" %f", value);
    std::printf("\n");
  } catch (const framealign::Error& e) {
    std::fprintf(stderr, "consumer: %s\n", e.what());
    return 1;
  }
}
