#pragma once
// The integer post-process of one output element: the pipeline that narrows
// a 32-bit partial sum to the output, step by step with its trace lines. The
// accelerator generations share every step but the sumin rescale, whose
// widths and trace lines differ: a generation passes it in as `addSumin`.
//
// Also the loop every post-process (integer or floating, either generation)
// runs over whole tensors: channel = last axis, per-channel registers decoded
// once per call, the traced element computed first and not stored.
#include <cstdint>
#include <type_traits>
#include <vector>

#include "kora/Core/Trace.h"
#include "kora/Support/FixedPoint.h"
#include "kora/Support/StridedWalk.h"

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

/// Calls f.template operator()<relu, round>() with the flags as constants, so
/// that a loop instantiated inside carries no per-element branch on them.
template <class F>
void withConstantFlags(PostProcessFlags flags, F&& f) {
  if (flags.relu)
    flags.round ? f.template operator()<true, true>() : f.template operator()<true, false>();
  else
    flags.round ? f.template operator()<false, true>() : f.template operator()<false, false>();
}

/// Per-channel registers of a post-process: one table for every batch image,
/// or one table per image.
template <class Regs>
struct ChannelPlan {
  std::vector<Regs> regs;  // [tables * channels]
  long tables = 1;
  long channels = 0;
};

/// Stores element(at, regs[k], psum, suminPointer, trace) -> TOut into every
/// element of fout (channel k = last axis). TSumin is the sumin element type,
/// or void without sumin (the pointer handed over is then meaningless).
template <class TOut, class TSumin, class Regs, class Element>
void storeChannelwise(const Tensor& fout, const Tensor& psum, const Tensor& sumin, const Regs* regs,
                      const Element& element) {
  const long K = psum.dim(-1);
  const Tensor& suminOrPsum = std::is_void_v<TSumin> ? psum : sumin;
  auto base = [](const Tensor& t) { return t.storage()->data() + t.offset(); };
  const ArrayRef<long> rows = psum.shape().slice(0, psum.rank() - 1);
  const StridedWalk<3> walk(rows, {base(fout), base(psum), base(suminOrPsum)},
                            {fout.strides().data(), psum.strides().data(), suminOrPsum.strides().data()});
  const long outStep = fout.stride(-1), psumStep = psum.stride(-1), suminStep = suminOrPsum.stride(-1);
  static const Coord unused;
  walk.forEachChunk([&](char* const* p, const long* s, long n) {
    for (long j = 0; j < n; ++j) {
      char* out = p[0] + j * s[0];
      const char* in = p[1] + j * s[1];
      const char* add = p[2] + j * s[2];
      for (long k = 0; k < K; ++k) {
        NoTrace quiet;
        const int32_t value = *reinterpret_cast<const int32_t*>(in + k * psumStep);
        *reinterpret_cast<TOut*>(out + k * outStep) =
            element(unused, regs[k], value, static_cast<const void*>(add + k * suminStep), quiet);
      }
    }
  });
}

/// The whole post-process of psum into fout: the traced element first
/// (computed with Tracer, not stored, so that an in-place call still reads
/// its input), then store(fout, psum, sumin, table) for every table's part
/// of the operands (all of them when one table serves every image).
template <class TOut, class TSumin, class Regs, class Element, class Store>
void runChannelwise(Tensor& fout, const Tensor& psum, const Tensor& sumin, const ChannelPlan<Regs>& plan,
                    const Element& element, const Store& store) {
  if (fout.isEmpty()) return;
  const long K = plan.channels;
  if (const TracePoint trace = TracePoint::forOutput(fout)) {
    const Coord& at = trace.coord();
    const long table = plan.tables > 1 ? at[0] : 0;
    const void* add = nullptr;
    if constexpr (!std::is_void_v<TSumin>) add = &sumin.at<TSumin>(at);
    Tracer tracer;
    (void)element(at, plan.regs[size_t(table * K + at[at.rank - 1])], psum.at<int32_t>(at), add, tracer);
  }
  if (plan.tables == 1) {
    store(fout, psum, sumin, 0L);
    return;
  }
  for (long b = 0; b < plan.tables; ++b) {
    const Tensor noSumin;
    store(fout.slice(0, b, b + 1), psum.slice(0, b, b + 1), sumin.isValid() ? sumin.slice(0, b, b + 1) : noSumin, b);
  }
}

/// The same, each element stored through `element` and its channel's
/// registers.
template <class TOut, class TSumin, class Regs, class Element>
void runChannelwise(Tensor& fout, const Tensor& psum, const Tensor& sumin, const ChannelPlan<Regs>& plan,
                    const Element& element) {
  runChannelwise<TOut, TSumin>(fout, psum, sumin, plan, element,
                               [&](const Tensor& out, const Tensor& in, const Tensor& add, long table) {
                                 storeChannelwise<TOut, TSumin>(out, in, add, plan.regs.data() + table * plan.channels,
                                                                element);
                               });
}

}  // namespace kora::vela::intrinsic::detail
