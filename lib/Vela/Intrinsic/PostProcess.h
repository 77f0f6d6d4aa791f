#pragma once
// The integer post-process of one output element: the pipeline that narrows
// a 32-bit partial sum to the output, step by step with its trace lines. The
// accelerator generations share every step but the sumin rescale, whose
// widths and trace lines differ: a generation passes it in as `addSumin`.
#include <cstdint>

#include "kora/Core/Trace.h"
#include "kora/Support/FixedPoint.h"

namespace kora::vela::intrinsic::detail {

/// What the post-process unit holds for one channel, once its quant info is
/// decoded: a 32-bit bias, the two shifts and an unsigned 15-bit scale.
struct PostProcessStage {
  int64_t bias = 0;
  unsigned preRShift = 0;
  int64_t scale = 0;
  unsigned postRShift = 0;
};

struct PostProcessFlags {
  bool relu = false;   // values below 1 become 0 before any shift
  bool round = false;  // the final right shift adds the bit below the cut
};

/// Adds nothing: a post-process without sumin.
struct NoSumin {
  template <class Trace>
  int64_t operator()(Trace&, int64_t psum64) const {
    return psum64;
  }
};

/// The nine steps for the element at `at`, in 64-bit arithmetic:
///  1. psum64 = psum
///  2. psum64 += bias
///  3. psum64 = addSumin(trace, psum64): rescaled sumin added, before relu
///     and any shift
///  4. relu: values below 1 become 0
///  5. psum64 >>= preRShift (floor)
///  6. clamp to [-32768, 32767]
///  7. psum64 *= scale
///  8. psum64 >>= postRShift, floor or (round) half up
///  9. clamp to the range of TOut
/// Ranges: |psum + bias| < 2^32 and a rescaled sumin well below 2^62, so
/// steps 1 to 3 cannot overflow; after the 16-bit clamp the product with a
/// 15-bit scale is below 2^30.
template <class TOut, class Trace, class AddSumin>
TOut postProcessElement(const Coord& at, int32_t psum, const PostProcessStage& q, const AddSumin& addSumin,
                        PostProcessFlags flags, Trace& trace) {
  int64_t v = psum;
  KORA_TRACE(trace, "psum64 = psum{} // {}", at, v);
  v += q.bias;
  KORA_TRACE(trace, "psum64 += bias({}) // {}", q.bias, v);
  v = addSumin(trace, v);
  if (flags.relu) {
    v = v < 1 ? 0 : v;
    KORA_TRACE(trace, "psum64 = relu(psum64) //  {}", v);
  }
  v = fixed::shiftRightArithmetic(v, q.preRShift);
  KORA_TRACE(trace, "psum64 >>= preRShift({}) // {}", q.preRShift, v);
  v = fixed::clamp64(v, -32768, 32767);
  KORA_TRACE(trace, "psum64 = clamp16(psum64) // {}", v);
  v *= q.scale;
  KORA_TRACE(trace, "psum64 *= scale({}) // {}", q.scale, v);
  if (flags.round) {
    v = fixed::roundingShiftRight(v, q.postRShift);
    KORA_TRACE(trace, "psum64 >>~= postRShift({}) // {}", q.postRShift, v);
  } else {
    v = fixed::shiftRightArithmetic(v, q.postRShift);
    KORA_TRACE(trace, "psum64 >>= postRShift({}) // {}", q.postRShift, v);
  }
  const TOut out = fixed::saturate<TOut>(v);
  KORA_TRACE(trace, "fout{} = clamp(psum64) // {}", at, int64_t(out));
  return out;
}

}  // namespace kora::vela::intrinsic::detail
