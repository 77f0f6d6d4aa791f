#include "Demo.h"

namespace demo {

void runRoiAlign() {
  heading("mira::RoiAlign2 over a two-level pyramid, tracing fout[1, 1, 1, 0]");
  // A 32 x 32 pixel image seen through maps of stride 4 (8 x 8) and 8 (4 x 4),
  // two channels each: 10y + x and its negation, in map pixels.
  auto ramp = [](long side) {
    std::vector<int8_t> values;
    for (long y = 0; y < side; ++y)
      for (long x = 0; x < side; ++x) values.insert(values.end(), {int8_t(10 * y + x), int8_t(-(10 * y + x))});
    return tensorOf<int8_t>(kora::ElementType::si8, {side, side, 2}, values);
  };
  kora::Tensor fine = ramp(8), coarse = ramp(4);
  // Roi units are quarter pixels: a 6 x 6 pixel box (level 0), a 24 x 20
  // pixel box (level 1) and an empty one (a zero block).
  kora::Tensor rois = tensorOf<int16_t>(kora::ElementType::si16, {3, 4},
                                        {8, 8, 32, 32, 16, 24, 112, 104, 40, 40, 40, 60});
  printValues<int16_t>("rois", rois);
  const long point[] = {1, 1, 1, 0};
  kora::Context::get().setTracePoint(point);
  std::vector<kora::Tensor> outputs;
  // Pooled to 2 x 2; strides 4 and 8; canonical box size 16 at level 3.
  if (run("mira::RoiAlign2", outputs,
          {rois, fine, coarse, std::vector<int64_t>{2, 2}, std::vector<int64_t>{4, 8}, 1, "bilinear", 16, 3,
           std::vector<double>{}}))
    printValues<int8_t>("fout", outputs[0]);
  kora::Context::get().setTracePoint({});
}

}  // namespace demo
