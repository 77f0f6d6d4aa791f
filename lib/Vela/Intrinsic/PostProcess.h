#pragma once
// The integer post-process of one output element: the pipeline that narrows
// a 32-bit partial sum to the output, step by step with its trace lines. The
// accelerator generations share every step but the sumin rescale, whose
// widths and trace lines differ: a generation passes it in as `addSumin`.
//
// Also the loop every post-process (integer or floating, either generation)
// runs over whole tensors: channel = last axis, per-channel registers decoded
// once per call, the traced element computed first and not stored; the
// integer post-process of whole tensors; and the MAC followed by a
// post-process, every check of both run first.
#include <cstdint>
#include <type_traits>
#include <vector>

#include "Vela/Intrinsic/MacEngine.h"
#include "Vela/Intrinsic/QuantInfo.h"
#include "kora/Core/Trace.h"
#include "kora/Support/Dispatch.h"
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
    // Everything the loops read but the elements is copied into locals: a
    // one-byte output may alias any memory, so a value read through a
    // pointer would be read again after every element stored.
    char* const out0 = p[0];
    const char* const in0 = p[1];
    const char* const add0 = p[2];
    const long outRow = s[0], inRow = s[1], addRow = s[2];
    const long channels = K, outNext = outStep, inNext = psumStep, addNext = suminStep;
    const Regs* const channelRegs = regs;
    for (long j = 0; j < n; ++j) {
      char* out = out0 + j * outRow;
      const char* in = in0 + j * inRow;
      const char* add = add0 + j * addRow;
      for (long k = 0; k < channels; ++k) {
        NoTrace quiet;
        const int32_t value = *reinterpret_cast<const int32_t*>(in + k * inNext);
        *reinterpret_cast<TOut*>(out + k * outNext) =
            element(unused, channelRegs[k], value, static_cast<const void*>(add + k * addNext), quiet);
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

/// Value j of (table x, channel) in a quant-info table [K', width] or
/// [X, K', width].
template <class T>
T tableValue(const Tensor& quantInfo, long x, long channel, long j) {
  const long a3[] = {x, channel, j}, a2[] = {channel, j};
  return quantInfo.rank() == 3 ? quantInfo.at<T>(a3) : quantInfo.at<T>(a2);
}

/// Sizes `plan` for `tables` tables of K channels and sets the registers of
/// every (table x, channel k) through registersAt(x, channel, regs) ->
/// Status, channel being k, or 0 per tensor. The first failure stops.
template <class Regs, class RegistersAt>
Status fillPlan(ChannelPlan<Regs>& plan, long tables, long K, bool perTensor, const RegistersAt& registersAt) {
  plan.tables = tables;
  plan.channels = K;
  plan.regs.resize(size_t(tables * K));
  for (long x = 0; x < tables; ++x)
    for (long k = 0; k < K; ++k) KORA_RETURN_IF_ERROR(registersAt(x, perTensor ? 0 : k, plan.regs[size_t(x * K + k)]));
  return Status::success();
}

// ---------------------------------------------------------------------------
// The integer post-process of whole tensors, either generation: the
// generation gives its sumin rescale AddSumin<TSumin> (built from the
// element's coordinate, its sumin, the channel's suminScale and suminRShift)
// and the sumin types it takes.

/// One element with a channel's registers; TSumin is void without sumin.
template <template <class> class AddSumin, class TOut, class TSumin, class Trace>
TOut integerElement(const Coord& at, int32_t psum, const void* sumin, const QuantRegisters& q, PostProcessFlags flags,
                    Trace& trace) {
  PostProcessStage stage;
  stage.bias = q.bias;
  stage.preRShift = q.preRShift;
  stage.scale = q.scale;
  stage.postRShift = q.postRShift;
  if constexpr (std::is_void_v<TSumin>) {
    return postProcessElement<TOut>(at, psum, stage, NoSumin{}, flags, trace);
  } else {
    const AddSumin<TSumin> add{at, *static_cast<const TSumin*>(sumin), int64_t(q.suminScale), q.suminRShift};
    return postProcessElement<TOut>(at, psum, stage, add, flags, trace);
  }
}

using IntegerOutputs = TypeList<int8_t, int16_t, int32_t>;

/// psum through the registers of `plan` into fout (si8, si16 or si32), with
/// sumin of one of `Sumins` or none; everything has been checked.
template <template <class> class AddSumin, class Sumins>
void runIntegerPostProcess(Tensor& fout, const Tensor& psum, const Tensor& sumin,
                           const ChannelPlan<QuantRegisters>& plan, PostProcessFlags flags) {
  dispatch<IntegerOutputs>(fout.elementType(), [&]<class TOut>() {
    auto run = [&]<class TSumin>() {
      withConstantFlags(flags, [&]<bool relu, bool round>() {
        runChannelwise<TOut, TSumin>(
            fout, psum, sumin, plan, [](const Coord& at, const QuantRegisters& q, int32_t value, const void* add,
                                        auto& trace) {
              return integerElement<AddSumin, TOut, TSumin>(at, value, add, q, PostProcessFlags{relu, round}, trace);
            });
      });
    };
    if (!sumin.isValid())
      run.template operator()<void>();
    else
      dispatch<Sumins>(sumin.elementType(), run);
  });
}

// ---------------------------------------------------------------------------
// Whole calls. prepare(psum, plan) runs every check of a post-process on psum
// (a shape that may hold no data) and plans it; run(psum, plan) computes it.

/// A post-process of a given psum.
template <class Plan, class Prepare, class Run>
Status checkedPostProcess(const Tensor& psum, const Prepare& prepare, const Run& run) {
  Plan plan;
  KORA_RETURN_IF_ERROR(prepare(psum, plan));
  if (!psum.isValid()) return Status::failure("post-process operands must hold data");
  run(psum, plan);
  return Status::success();
}

/// The MAC (ConvMac's arguments) into a fresh psum of fout's shape, starting
/// from `psum` when that tensor is valid, then the post-process. Checks, in
/// order: the MAC's, the post-process's, then those of the initial psum.
template <class Plan, class Prepare, class Run>
Status macThenPostProcess(const Tensor& fout, const Tensor& fin, const Tensor& weight, const Tensor& psum,
                          ArrayRef<int64_t> pad, int64_t padValue, ArrayRef<int64_t> stride,
                          ArrayRef<int64_t> dilation, int64_t group, const Prepare& prepare, const Run& run) {
  const Tensor psumShape(ElementType::si32, fout.shape());
  MacProblem mac;
  KORA_RETURN_IF_ERROR(prepareConvMac(psumShape, fin, weight, pad, padValue, stride, dilation, group, mac));
  Plan plan;
  KORA_RETURN_IF_ERROR(prepare(psumShape, plan));
  KORA_RETURN_IF_ERROR(checkInitialPsum(psum, fout));
  run(accumulate(fout.shape(), psum, fin, mac), plan);
  return Status::success();
}

/// A generation's integer post-process calls: its sumin rescale, its sumin
/// types and plan(fout, psum, quantInfo, sumin, encoded, perTensor, plan),
/// which runs its checks in its order and decodes its quant-info layout.
template <template <class> class AddSumin, class Sumins, auto plan>
struct IntegerPostProcess {
  using Plan = ChannelPlan<QuantRegisters>;

  /// ConvPP / ConvPPEncoded of the generation.
  static Status tensors(Tensor& fout, const Tensor& psum, const Tensor& quantInfo, const Tensor& sumin, bool encoded,
                        bool relu, bool round, bool perTensor) {
    return checkedPostProcess<Plan>(
        psum, [&](const Tensor& p, Plan& q) { return plan(fout, p, quantInfo, sumin, encoded, perTensor, q); },
        [&](const Tensor& p, const Plan& q) {
          runIntegerPostProcess<AddSumin, Sumins>(fout, p, sumin, q, {relu, round});
        });
  }

  /// ConvMacPP of the generation: "quantForm must be 0 (decoded) or 1
  /// (encoded)" first, then as macThenPostProcess.
  static Status afterMac(Tensor& fout, const Tensor& fin, const Tensor& weight, const Tensor& quantInfo,
                         const Tensor& sumin, const Tensor& psum, int64_t padValue, ArrayRef<int64_t> pad,
                         ArrayRef<int64_t> stride, ArrayRef<int64_t> dilation, int64_t group, int64_t quantForm,
                         bool relu, bool round, bool perTensor) {
    if (quantForm != 0 && quantForm != 1) return Status::failure("quantForm must be 0 (decoded) or 1 (encoded)");
    return macThenPostProcess<Plan>(
        fout, fin, weight, psum, pad, padValue, stride, dilation, group,
        [&](const Tensor& p, Plan& q) { return plan(fout, p, quantInfo, sumin, quantForm == 1, perTensor, q); },
        [&](const Tensor& acc, const Plan& q) {
          runIntegerPostProcess<AddSumin, Sumins>(fout, acc, sumin, q, {relu, round});
        });
  }
};

}  // namespace kora::vela::intrinsic::detail
